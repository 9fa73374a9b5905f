// NDR 2.0 reader and writer: byte-exact encodings in both integer representations, and stub data
// that lies about its sizes.
#include "rpc/dcerpc/ndr.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "hex_bytes.h"

namespace kesttcs::dcerpc {
namespace {

TEST(NdrWriterTest, AlignsPrimitivesRelativeToTheStubStart) {
  std::vector<uint8_t> out = {0xaa, 0xbb, 0xcc};  // e.g. bytes before the stub
  NdrWriter w(out);
  w.WriteUint8(0x01);
  w.WriteUint16(0x0203);
  w.WriteUint32(0x04050607);
  w.WriteUint64(0x08090a0b0c0d0e0fULL);
  w.WriteBytes(Hex("11 22 33"));
  w.WriteUint16(0x4455);
  EXPECT_EQ(out, Hex("aa bb cc  01 00 03 02  07 06 05 04  0f 0e 0d 0c 0b 0a 09 08  11 22 33 00 "
                     "55 44"));
  EXPECT_EQ(w.size(), 22u);
}

TEST(NdrWriterTest, ArraysAndUniquePointers) {
  std::vector<uint8_t> out;
  NdrWriter w(out);
  w.WriteUint8(7);
  w.WriteConformantBytes(Hex("de ad be"));
  w.WriteUniquePointer(true);
  w.WriteUniquePointer(false);
  w.WriteUniquePointer(true);
  EXPECT_EQ(out,
            Hex("07 00 00 00  03 00 00 00 de ad be 00  00 00 02 00  00 00 00 00  04 00 02 00"));
}

TEST(NdrReaderTest, ReadsBothByteOrders) {
  std::vector<uint8_t> little = Hex("01 00 03 02  07 06 05 04  0f 0e 0d 0c 0b 0a 09 08");
  std::vector<uint8_t> big = Hex("01 00 02 03  04 05 06 07  08 09 0a 0b 0c 0d 0e 0f");
  for (auto [bytes, order] : {std::pair{little, ByteOrder::kLittle}, {big, ByteOrder::kBig}}) {
    NdrReader r(bytes, order);
    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    ASSERT_TRUE(r.ReadUint8(u8) && r.ReadUint16(u16) && r.ReadUint32(u32) && r.ReadUint64(u64));
    EXPECT_EQ(u8, 0x01);
    EXPECT_EQ(u16, 0x0203);
    EXPECT_EQ(u32, 0x04050607u);
    EXPECT_EQ(u64, 0x08090a0b0c0d0e0fULL);
    EXPECT_EQ(r.remaining(), 0u);
    EXPECT_TRUE(r.ok());
  }
}

TEST(NdrReaderTest, ReadsArraysAndPointers) {
  std::vector<uint8_t> stub = Hex("03 00 00 00 de ad be 00  00 00 02 00  00 00 00 00");
  NdrReader r(stub);
  std::vector<uint8_t> bytes;
  bool first = false, second = true;
  ASSERT_TRUE(r.ReadConformantBytes(bytes));
  ASSERT_TRUE(r.ReadUniquePointer(first) && r.ReadUniquePointer(second));
  EXPECT_EQ(bytes, Hex("de ad be"));
  EXPECT_TRUE(first);
  EXPECT_FALSE(second);
  EXPECT_EQ(r.remaining(), 0u);
  EXPECT_TRUE(r.ok());
}

TEST(NdrReaderTest, RefusesClaimsBeyondTheStubAndStaysFailed) {
  {  // A count larger than the bytes present: nothing read, nothing allocated, cursor kept.
    std::vector<uint8_t> stub = Hex("ff ff ff ff 00 01 02");
    NdrReader r(stub);
    std::vector<uint8_t> bytes;
    EXPECT_FALSE(r.ReadConformantBytes(bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(r.position(), 0u);
    EXPECT_FALSE(r.ok());
    uint8_t u8 = 0;
    EXPECT_FALSE(r.ReadUint8(u8));  // sticky
  }
  {  // Element counts are checked against the element size.
    std::vector<uint8_t> stub = Hex("03 00 00 00  01 00 00 00 02 00 00 00");
    NdrReader r(stub);
    uint32_t count = 0;
    EXPECT_FALSE(r.ReadArrayCount(count, 4));
    std::vector<uint8_t> two_stub = Hex("02 00 00 00  01 00 00 00 02 00 00 00");
    NdrReader two(two_stub);
    EXPECT_TRUE(two.ReadArrayCount(count, 4));
    EXPECT_EQ(count, 2u);
  }
  {  // Truncated primitives and padding that runs past the end.
    std::vector<uint8_t> stub = Hex("01 02 03");
    NdrReader r(stub);
    uint32_t u32 = 7;
    EXPECT_FALSE(r.ReadUint32(u32));
    EXPECT_EQ(u32, 7u);
    NdrReader pad(stub);
    uint8_t u8 = 0;
    uint16_t u16 = 0;
    ASSERT_TRUE(pad.ReadUint8(u8));
    EXPECT_FALSE(pad.ReadUint16(u16) && pad.ReadUint16(u16));
    NdrReader align(stub);
    ASSERT_TRUE(align.ReadUint8(u8));
    EXPECT_FALSE(align.Align(8));
  }
  {  // A fixed field longer than the stub.
    std::vector<uint8_t> stub(19);
    NdrReader r(stub);
    std::array<uint8_t, 20> digest{};
    EXPECT_FALSE(r.ReadFixed(digest));
  }
}

}  // namespace
}  // namespace kesttcs::dcerpc
