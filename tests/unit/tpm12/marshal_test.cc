// Byte-exact fixtures for every marshalled structure, the header and auth trailers, the designed
// quirks (masked key flags, zero sizes, delegate blobs) and rejection of short or lying input.
#include "tpm12/marshal.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kesttcs {
namespace {

std::vector<BYTE> Hex(std::string_view text) {
  std::vector<BYTE> out;
  std::string digits;
  for (char c : text) {
    if (c != ' ') digits += c;
  }
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<BYTE>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string ToHex(std::span<const BYTE> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (BYTE b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
  }
  return out;
}

// The hex text without spaces, lower case.
std::string Norm(std::string_view text) { return ToHex(Hex(text)); }

// 20 bytes of `b` in hex.
std::string Rep20(BYTE b) { return ToHex(std::vector<BYTE>(20, b)); }

template <class D>
D Filled(BYTE b) {
  D d;
  std::memset(&d, b, sizeof d);
  return d;
}

// Checks fields -> bytes, bytes -> fields -> the same bytes, and that every shorter input or output
// buffer is refused with TCS_E_BAD_PARAMETER (each prefix lives in its own exact-size allocation,
// so an out-of-bounds read shows up under ASan).
template <class T>
void ExpectWireForm(const T& value, const std::string& hex) {
  const std::vector<BYTE> wire = Hex(hex);
  std::vector<BYTE> out(wire.size());
  BlobWriter writer(out);
  ASSERT_EQ(LoadBlob(writer, value), TSS_SUCCESS);
  EXPECT_EQ(ToHex(writer.written()), ToHex(wire));
  EXPECT_EQ(writer.offset(), wire.size());

  T parsed{};
  BlobReader reader(wire);
  ASSERT_EQ(UnloadBlob(reader, &parsed), TSS_SUCCESS);
  EXPECT_EQ(reader.offset(), wire.size());
  BlobWriter again(out);
  ASSERT_EQ(LoadBlob(again, parsed), TSS_SUCCESS);
  EXPECT_EQ(ToHex(again.written()), ToHex(wire));

  BlobReader skipper(wire);
  EXPECT_EQ(UnloadBlob(skipper, static_cast<T*>(nullptr)), TSS_SUCCESS);
  EXPECT_EQ(skipper.offset(), wire.size());

  for (std::size_t n = 0; n < wire.size(); ++n) {
    const std::vector<BYTE> prefix(wire.begin(), wire.begin() + n);
    BlobReader short_reader(prefix);
    T scratch{};
    EXPECT_EQ(UnloadBlob(short_reader, &scratch), TCS_E_BAD_PARAMETER) << "prefix " << n;
    std::vector<BYTE> small(n);
    BlobWriter short_writer(small);
    EXPECT_EQ(LoadBlob(short_writer, value), TCS_E_BAD_PARAMETER) << "buffer " << n;
  }
}

TPM_KEY_PARMS RsaParms() {
  TPM_KEY_PARMS p;
  p.algorithmID = 1;
  p.encScheme = 3;
  p.sigScheme = 1;
  p.parmSize = 12;
  p.parms = Hex("00000800 00000002 00000000");
  return p;
}
const std::string kRsaParmsHex = "00000001 0003 0001 0000000c 00000800 00000002 00000000";

TPM_KEY SampleKey() {
  TPM_KEY k;
  k.ver = {1, 1, 0, 0};
  k.keyUsage = 0x0011;
  k.keyFlags = 0x5;
  k.authDataUsage = 1;
  k.algorithmParms = RsaParms();
  k.pubKey.keyLength = 4;
  k.pubKey.key = Hex("deadbeef");
  k.encSize = 2;
  k.encData = Hex("abcd");
  return k;
}
const std::string kSampleKeyHex =
    "01010000 0011 00000005 01 " + kRsaParmsHex + " 00000000 00000004 deadbeef 00000002 abcd";

TPM_PCR_INFO_SHORT InfoShort(std::vector<BYTE> select, BYTE locality, BYTE digest) {
  TPM_PCR_INFO_SHORT s;
  s.pcrSelection.sizeOfSelect = static_cast<UINT16>(select.size());
  s.pcrSelection.pcrSelect = std::move(select);
  s.localityAtRelease = locality;
  s.digestAtRelease = Filled<TPM_DIGEST>(digest);
  return s;
}

TPM_DELEGATE_PUBLIC DelegatePublic() {
  TPM_DELEGATE_PUBLIC p;
  p.tag = 0x0019;
  p.label = 5;
  p.pcrInfo = InfoShort({}, 1, 0x88);
  p.permissions = {0x001a, 1, 0x10, 0};
  p.familyID = 3;
  p.verificationCount = 9;
  return p;
}
const std::string kDelegatePublicHex =
    "0019 05 0000 01 " + Rep20(0x88) + " 001a 00000001 00000010 00000000 00000003 00000009";

TEST(MarshalTest, IntegersAreBigEndianAndBoolsPassThrough) {
  std::array<BYTE, 16> buf{};
  BlobWriter w(buf);
  ASSERT_EQ(LoadBlob(w, UINT64{0x0102030405060708}), TSS_SUCCESS);
  ASSERT_EQ(LoadBlobs(w, UINT32{0xA1B2C3D4}, UINT16{0xC400}, BYTE{0x7F}), TSS_SUCCESS);
  ASSERT_EQ(LoadBlob(w, TSS_BOOL{0x05}), TSS_SUCCESS);
  EXPECT_EQ(ToHex(w.written()), "0102030405060708a1b2c3d4c4007f05");

  BlobReader r(buf);
  UINT64 u64 = 0;
  UINT32 u32 = 0;
  UINT16 u16 = 0;
  BYTE byte = 0;
  TSS_BOOL flag = 0;
  ASSERT_EQ(UnloadBlobs(r, &u64, &u32, &u16, &byte), TSS_SUCCESS);
  ASSERT_EQ(UnloadBlob(r, &flag), TSS_SUCCESS);
  EXPECT_EQ(u64, 0x0102030405060708ull);
  EXPECT_EQ(u32, 0xA1B2C3D4u);
  EXPECT_EQ(u16, 0xC400);
  EXPECT_EQ(byte, 0x7F);
  EXPECT_EQ(flag, 0x05);  // not normalised to 1

  std::array<BYTE, 8> eight{};
  UINT64ToArray(0x1122334455667788ull, eight);
  EXPECT_EQ(ArrayToUINT64(eight), 0x1122334455667788ull);
  EXPECT_EQ(ArrayToUINT32(std::span(eight).subspan<4, 4>()), 0x55667788u);
  EXPECT_EQ(ArrayToUINT16(std::span(eight).first<2>()), 0x1122);
  std::array<BYTE, 4> four{};
  UINT32ToArray(0xCAFEBABE, four);
  std::array<BYTE, 2> two{};
  UINT16ToArray(0xC400, two);
  EXPECT_EQ(ToHex(four) + ToHex(two), "cafebabec400");
}

TEST(MarshalTest, CursorsRefuseOverrunsAndKeepTheirOffset) {
  std::array<BYTE, 6> buf{};
  BlobWriter w(buf, 4);
  EXPECT_EQ(LoadBlob_UINT32(w, 1), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(w.offset(), 4);
  EXPECT_EQ(ToHex(buf), "000000000000");
  EXPECT_EQ(LoadBlob(w, std::span<const BYTE>()), TSS_SUCCESS);
  EXPECT_EQ(LoadBlob_UINT16(w, 0xBEEF), TSS_SUCCESS);
  EXPECT_EQ(LoadBlob(w, BYTE{1}), TCS_E_BAD_PARAMETER);

  BlobReader r(buf, 5);
  UINT16 v = 0x1234;
  EXPECT_EQ(UnloadBlob(r, &v), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(v, 0x1234);
  EXPECT_EQ(r.offset(), 5);
  BlobReader past(buf, 60000);
  EXPECT_EQ(past.remaining(), 0u);
  EXPECT_EQ(UnloadBlob(past, static_cast<BYTE*>(nullptr)), TCS_E_BAD_PARAMETER);

  // The running offset is 16 bits wide and wraps after 65535.
  std::vector<BYTE> big(70000);
  BlobWriter wrap(big, 65534);
  ASSERT_EQ(LoadBlob_UINT32(wrap, 0x01020304), TSS_SUCCESS);
  EXPECT_EQ(wrap.offset(), 2);
  EXPECT_EQ(ToHex(std::span(big).subspan(65534, 4)), "01020304");
}

TEST(MarshalTest, HeaderIsWrittenLastAndResponseCodesMapPerDriverPath) {
  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  ASSERT_EQ(LoadBlob_UINT32(w, 0x40000000), TSS_SUCCESS);
  ASSERT_EQ(LoadBlob_Header(TPM_TAG_RQU_COMMAND, w.offset(), 0x00000015, blob), TSS_SUCCESS);
  EXPECT_EQ(ToHex(w.written()), Norm("00c1 0000000e 00000015 40000000"));
  std::array<BYTE, 9> tiny{};
  EXPECT_EQ(LoadBlob_Header(TPM_TAG_RQU_COMMAND, 10, 1, tiny), TCS_E_BAD_PARAMETER);

  struct Case {
    ResponseCodeMapping mapping;
    UINT32 code;
    TSS_RESULT expected;
  };
  const Case cases[] = {
      {ResponseCodeMapping::kTddl, 0, TSS_SUCCESS},
      {ResponseCodeMapping::kTddl, 0x26, 0xE0280026},
      {ResponseCodeMapping::kTddl, 0x800, 0xE0280800},
      {ResponseCodeMapping::kTddl, 0x00010000, 0xE0290000},
      {ResponseCodeMapping::kTbs, 0, TSS_SUCCESS},
      {ResponseCodeMapping::kTbs, 0x26, 0xE0280026},
      {ResponseCodeMapping::kTbs, 0xFFFF, 0xE028FFFF},
      {ResponseCodeMapping::kTbs, 0x00010000, 0x00010000},
      {ResponseCodeMapping::kTbs, 0x80284001, 0x80284001},
  };
  EXPECT_EQ(GetResponseCodeMapping(), ResponseCodeMapping::kTddl);
  for (const Case& c : cases) {
    SetResponseCodeMapping(c.mapping);
    std::vector<BYTE> response = Hex("00c4 0000000e");
    response.resize(14);
    UINT32ToArray(c.code, std::span(response).subspan<6, 4>());
    UINT32 paramSize = 0;
    EXPECT_EQ(UnloadBlob_Header(response, &paramSize), c.expected) << std::hex << c.code;
    EXPECT_EQ(paramSize, 14u);
  }
  SetResponseCodeMapping(ResponseCodeMapping::kTddl);

  const std::vector<BYTE> short_response = Hex("00c4 0000000a 0000");
  UINT32 untouched = 7;
  EXPECT_EQ(UnloadBlob_Header(short_response, &untouched), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(untouched, 7u);

  // Output parameters are read from offset 10 and never past paramSize.
  const std::vector<BYTE> response = Hex("00c4 0000000e 00000000 11223344 55667788");
  BlobReader params = ResponseParams(response, 14);
  UINT32 value = 0;
  EXPECT_EQ(UnloadBlob_UINT32(params, &value), TSS_SUCCESS);
  EXPECT_EQ(value, 0x11223344u);
  EXPECT_EQ(UnloadBlob_UINT32(params, &value), TCS_E_BAD_PARAMETER);
  BlobReader lying = ResponseParams(response, 0xFFFFFFFF);
  EXPECT_EQ(lying.remaining(), response.size() - kTpmHeaderSize);
}

TEST(MarshalTest, AuthTrailersAndTheirPlaceBeforeParamSize) {
  TPM_AUTH auth{};
  auth.AuthHandle = 0x02000001;
  auth.NonceOdd = Filled<TPM_NONCE>(0x11);
  auth.NonceEven = Filled<TPM_NONCE>(0x22);
  auth.fContinueAuthSession = 1;
  auth.HMAC = Filled<TPM_AUTHDATA>(0x33);

  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  ASSERT_EQ(LoadBlobs(w, UINT32{0x40000000}, auth), TSS_SUCCESS);
  ASSERT_EQ(LoadBlob_Header(TPM_TAG_RQU_AUTH1_COMMAND, w.offset(), 0x41, blob), TSS_SUCCESS);
  const UINT32 paramSize = w.offset();
  EXPECT_EQ(paramSize, kTpmHeaderSize + 4u + kAuthRequestTrailerSize);
  EXPECT_EQ(ToHex(std::span(blob).subspan(14, 45)),
            Norm("02000001" + Rep20(0x11) + "01" + Rep20(0x33)));
  BlobReader handle_at(blob, static_cast<UINT16>(paramSize - 45));
  UINT32 handle = 0;
  ASSERT_EQ(UnloadBlob_UINT32(handle_at, &handle), TSS_SUCCESS);
  EXPECT_EQ(handle, 0x02000001u);
  EXPECT_EQ(blob[paramSize - 21], 1);

  std::vector<BYTE> out(44);
  BlobWriter tight(out);
  EXPECT_EQ(LoadBlob_Auth(tight, auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(tight.offset(), 0);

  const std::vector<BYTE> trailer = Hex(Rep20(0x44) + "00" + Rep20(0x55));
  TPM_AUTH in = auth;
  BlobReader r(trailer);
  ASSERT_EQ(UnloadBlob_Auth(r, &in), TSS_SUCCESS);
  EXPECT_EQ(r.offset(), kAuthResponseTrailerSize);
  EXPECT_EQ(in.AuthHandle, auth.AuthHandle);
  EXPECT_EQ(ToHex(in.NonceOdd.nonce), Rep20(0x11));
  EXPECT_EQ(ToHex(in.NonceEven.nonce), Rep20(0x44));
  EXPECT_EQ(in.fContinueAuthSession, 0);
  EXPECT_EQ(ToHex(in.HMAC.authdata), Rep20(0x55));
  const std::vector<BYTE> cut(trailer.begin(), trailer.end() - 1);
  BlobReader short_reader(cut);
  TPM_AUTH kept = auth;
  EXPECT_EQ(UnloadBlob_Auth(short_reader, &kept), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(ToHex(kept.NonceEven.nonce), Rep20(0x22));
}

TEST(MarshalTest, KeyFlagsCarryOnlyTheThreeLowBits) {
  TPM_KEY key;
  const std::vector<BYTE> key_wire = Hex("01010000 0011 0000001f 01 " + kRsaParmsHex +
                                         " 00000000 00000004 deadbeef 00000002 abcd");
  BlobReader kr(key_wire);
  ASSERT_EQ(UnloadBlob(kr, &key), TSS_SUCCESS);
  EXPECT_EQ(key.keyFlags, 0x7u);

  key.keyFlags = 0xFFFFFFF8 | TPM_KEY_FLAG_MIGRATABLE;
  std::array<BYTE, 64> out{};
  BlobWriter w(out);
  ASSERT_EQ(LoadBlob(w, key), TSS_SUCCESS);
  EXPECT_EQ(ToHex(w.written().subspan(6, 4)), "00000002");
}

TEST(MarshalTest, EveryStructureHasItsWireForm) {
  ExpectWireForm(RsaParms(), kRsaParmsHex);

  TPM_STORE_PUBKEY store;
  store.keyLength = 3;
  store.key = Hex("aabbcc");
  ExpectWireForm(store, "00000003 aabbcc");

  TPM_PUBKEY pub;
  pub.algorithmParms = {1, 3, 1, 0, {}};
  pub.pubKey = {2, Hex("0102")};
  const std::string pub_hex = "00000001 0003 0001 00000000 00000002 0102";
  ExpectWireForm(pub, pub_hex);

  ExpectWireForm(SampleKey(), kSampleKeyHex);
  // A TPM_KEY12: tag 0x0028 and fill 0 travel as the version group.
  TPM_KEY12 key12 = SampleKey();
  key12.ver = {0x00, 0x28, 0x00, 0x00};
  key12.PCRInfoSize = 3;
  key12.PCRInfo = Hex("010203");
  ExpectWireForm(key12, "00280000 0011 00000005 01 " + kRsaParmsHex +
                            " 00000003 010203 00000004 deadbeef 00000002 abcd");

  TPM_STORED_DATA sealed;
  sealed.ver = {1, 1, 0, 0};
  sealed.sealInfoSize = 2;
  sealed.sealInfo = Hex("0102");
  sealed.encDataSize = 3;
  sealed.encData = Hex("a1a2a3");
  ExpectWireForm(sealed, "01010000 00000002 0102 00000003 a1a2a3");

  TPM_CERTIFY_INFO certify;
  certify.version = {1, 1, 0, 0};
  certify.keyUsage = 0x0010;
  certify.keyFlags = 0x1F;  // signed by the TPM: passes unmasked
  certify.algorithmParms = {1, 3, 1, 0, {}};
  certify.pubkeyDigest = Filled<TPM_DIGEST>(0x11);
  certify.data = Filled<TPM_NONCE>(0x22);
  certify.parentPCRStatus = 1;
  ExpectWireForm(certify, "01010000 0010 0000001f 00 00000001 0003 0001 00000000 " + Rep20(0x11) +
                              Rep20(0x22) + "01 00000000");

  TPM_MIGRATIONKEYAUTH migration;
  migration.migrationKey = pub;
  migration.migrationScheme = 1;
  migration.digest = Filled<TPM_DIGEST>(0x33);
  ExpectWireForm(migration, pub_hex + " 0001 " + Rep20(0x33));

  TPM_PCR_SELECTION selection{3, Hex("010080")};
  ExpectWireForm(selection, "0003 010080");

  TPM_PCR_COMPOSITE composite{{2, Hex("0300")}, 4, Hex("01020304")};
  ExpectWireForm(composite, "0002 0300 00000004 01020304");

  TPM_PCR_INFO info{{3, Hex("010000")}, Filled<TPM_DIGEST>(0x44), Filled<TPM_DIGEST>(0x55)};
  ExpectWireForm(info, "0003 010000" + Rep20(0x44) + Rep20(0x55));

  ExpectWireForm(InfoShort(Hex("000001"), 0x1f, 0x66), "0003 000001 1f" + Rep20(0x66));

  TPM_KEY_HANDLE_LIST handles{2, {0x01000000, 0x01000001}};
  ExpectWireForm(handles, "0002 01000000 01000001");

  const TSS_UUID uuid{0x01020304, 0x0506, 0x0708, 0x09, 0x0a, {0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10}};
  ExpectWireForm(uuid, "0102030405060708090a0b0c0d0e0f10");

  TPM_CURRENT_TICKS ticks{0x0014, 0x0102030405060708ull, 0x03e8, Filled<TPM_NONCE>(0x77)};
  ExpectWireForm(ticks, "0014 0102030405060708 03e8" + Rep20(0x77));

  TPM_COUNTER_VALUE counter{0x000e, {'a', 'b', 'c', 'd'}, 7};
  ExpectWireForm(counter, "000e 61626364 00000007");

  TPM_NV_ATTRIBUTES attributes{0x0017, 0x00020002};
  ExpectWireForm(attributes, "0017 00020002");

  TPM_NV_DATA_PUBLIC nv;
  nv.tag = 0x0018;
  nv.nvIndex = 0x00011100;
  nv.pcrInfoRead = InfoShort(Hex("000000"), 0x1f, 0);
  nv.pcrInfoWrite = InfoShort(Hex("800000"), 0x01, 0xAB);
  nv.permission = {0x0017, 0x00000002};
  nv.bWriteSTClear = 1;
  nv.dataSize = 0x100;
  ExpectWireForm(nv, "0018 00011100 0003 000000 1f" + Rep20(0) + "0003 800000 01" + Rep20(0xAB) +
                         "0017 00000002 00 01 00 00000100");

  TPM_DELEGATIONS delegations{0x001a, 1, 0x01, 0x02};
  ExpectWireForm(delegations, "001a 00000001 00000001 00000002");

  ExpectWireForm(DelegatePublic(), kDelegatePublicHex);

  TPM_DELEGATE_OWNER_BLOB owner_blob;
  owner_blob.tag = 0x001b;
  owner_blob.pub = DelegatePublic();
  owner_blob.integrityDigest = Filled<TPM_DIGEST>(0x99);
  owner_blob.additionalSize = 1;
  owner_blob.additionalArea = Hex("ee");
  owner_blob.sensitiveSize = 2;
  owner_blob.sensitiveArea = Hex("f0f1");
  ExpectWireForm(owner_blob,
                 "001b " + kDelegatePublicHex + Rep20(0x99) + "00000001 ee 00000002 f0f1");

  TPM_DELEGATE_KEY_BLOB key_blob;
  key_blob.tag = 0x001c;
  key_blob.pub = DelegatePublic();
  key_blob.integrityDigest = Filled<TPM_DIGEST>(0x99);
  key_blob.pubKeyDigest = Filled<TPM_DIGEST>(0xAA);
  key_blob.sensitiveSize = 1;
  key_blob.sensitiveArea = Hex("f2");
  ExpectWireForm(key_blob,
                 "001c " + kDelegatePublicHex + Rep20(0x99) + Rep20(0xAA) + "00000000 00000001 f2");

  TPM_FAMILY_TABLE_ENTRY family{0x0025, 2, 3, 4, 1};
  ExpectWireForm(family, "0025 02 00000003 00000004 00000001");
}

TEST(MarshalTest, PcrEventArraysBelongToTheirHolder) {
  BYTE value[] = {0xab, 0xcd};
  BYTE event_data[] = {'e', 'v', 't'};
  TSS_PCR_EVENT event{{1, 2, 0, 0}, 10, 5, 2, value, 3, event_data};
  std::array<BYTE, 64> buf{};
  BlobWriter w(buf);
  ASSERT_EQ(LoadBlob(w, event), TSS_SUCCESS);
  const std::string hex = Norm("01020000 0000000a 00000005 00000002 abcd 00000003 657674");
  EXPECT_EQ(ToHex(w.written()), hex);

  Unloaded<TSS_PCR_EVENT> parsed;
  BlobReader r(w.written());
  ASSERT_EQ(UnloadBlob(r, &parsed), TSS_SUCCESS);
  EXPECT_EQ(ToHex(std::span(parsed.record.rgbPcrValue, parsed.record.ulPcrValueLength)), "abcd");
  EXPECT_EQ(ToHex(std::span(parsed.record.rgbEvent, parsed.record.ulEventLength)), "657674");
  EXPECT_EQ(parsed.record.ulPcrIndex, 10u);
  // Reading again replaces the arrays (under ASan a leak or a double delete fails the test), and
  // an empty array becomes a null pointer.
  const std::vector<BYTE> other = Hex("01020000 0000000b 00000005 00000001 ef 00000000");
  BlobReader again(other);
  ASSERT_EQ(UnloadBlob(again, &parsed), TSS_SUCCESS);
  EXPECT_EQ(ToHex(std::span(parsed.record.rgbPcrValue, parsed.record.ulPcrValueLength)), "ef");
  EXPECT_EQ(parsed.record.rgbEvent, nullptr);
  EXPECT_EQ(parsed.record.ulEventLength, 0u);
  BlobReader skipper(w.written());
  EXPECT_EQ(UnloadBlob(skipper, static_cast<Unloaded<TSS_PCR_EVENT>*>(nullptr)), TSS_SUCCESS);
  EXPECT_EQ(skipper.offset(), w.offset());

  const std::vector<BYTE> lying = Hex("01020000 0000000a 00000005 00000002 abcd ffffffff 65");
  BlobReader lr(lying);
  Unloaded<TSS_PCR_EVENT> partial;
  EXPECT_EQ(UnloadBlob(lr, &partial), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(partial.record.rgbEvent, nullptr);

  TSS_PCR_EVENT missing{{1, 2, 0, 0}, 10, 5, 2, nullptr, 0, nullptr};
  BlobWriter w2(buf);
  EXPECT_EQ(LoadBlob(w2, missing), TCS_E_BAD_PARAMETER);
}

TEST(MarshalTest, ZeroSizesAllocateNothingAndHandleListKeepsItsHandles) {
  TPM_KEY key = SampleKey();
  key.PCRInfoSize = 0;
  const std::vector<BYTE> wire = Hex(kSampleKeyHex);
  TPM_KEY parsed;
  parsed.PCRInfo = Hex("ff");  // replaced by nothing
  BlobReader r(wire);
  ASSERT_EQ(UnloadBlob(r, &parsed), TSS_SUCCESS);
  EXPECT_EQ(parsed.PCRInfoSize, 0u);
  EXPECT_TRUE(parsed.PCRInfo.empty());
  EXPECT_EQ(parsed.PCRInfo.data(), nullptr);
  EXPECT_EQ(parsed.keyUsage, 0x0011);
  EXPECT_EQ(ToHex(parsed.pubKey.key), "deadbeef");

  TPM_KEY_HANDLE_LIST list{5, {1, 2, 3}};
  const std::vector<BYTE> none = Hex("0000");
  BlobReader lr(none);
  ASSERT_EQ(UnloadBlob(lr, &list), TSS_SUCCESS);
  EXPECT_EQ(list.loaded, 0);
  EXPECT_EQ(list.handle, (std::vector<TPM_KEY_HANDLE>{1, 2, 3}));
}

TEST(MarshalTest, DelegateBlobSizeRules) {
  const std::string head = "001b " + kDelegatePublicHex + Rep20(0x99);
  TPM_DELEGATE_OWNER_BLOB blob;
  blob.additionalArea = Hex("0a0b");
  blob.sensitiveArea = Hex("0c");

  // additionalSize 0 leaves the additional area; a top-bit sensitiveSize reads nothing.
  const std::vector<BYTE> top_bit = Hex(head + "00000000 80000000");
  BlobReader r(top_bit);
  ASSERT_EQ(UnloadBlob(r, &blob), TSS_SUCCESS);
  EXPECT_EQ(r.offset(), top_bit.size());
  EXPECT_EQ(blob.additionalSize, 0u);
  EXPECT_EQ(ToHex(blob.additionalArea), "0a0b");
  EXPECT_EQ(blob.sensitiveSize, 0x80000000u);
  EXPECT_EQ(ToHex(blob.sensitiveArea), "0c");
  // Such a structure cannot be marshalled back: the size claims bytes that are not there.
  std::array<BYTE, 256> out{};
  BlobWriter w(out);
  EXPECT_EQ(LoadBlob(w, blob), TCS_E_BAD_PARAMETER);

  const std::vector<BYTE> zero = Hex(head + "00000000 00000000");
  BlobReader zr(zero);
  ASSERT_EQ(UnloadBlob(zr, &blob), TSS_SUCCESS);
  EXPECT_EQ(blob.sensitiveSize, 0u);
  EXPECT_EQ(ToHex(blob.sensitiveArea), "0c");

  // The sensitive area's allocation fails: the additional area goes too.
  const std::vector<BYTE> both = Hex(head + "00000001 ee 00000002 f0f1");
  BlobReader br(both);
  marshal_testing::FailAllocationsAfter(1);
  EXPECT_EQ(UnloadBlob(br, &blob), TCS_E_OUTOFMEMORY);
  marshal_testing::FailAllocationsAfter(-1);
  EXPECT_TRUE(blob.additionalArea.empty());
  EXPECT_EQ(ToHex(blob.sensitiveArea), "0c");

  TPM_DELEGATE_KEY_BLOB key_blob;
  const std::vector<BYTE> key_wire =
      Hex("001c " + kDelegatePublicHex + Rep20(0x99) + Rep20(0xAA) + "00000001 ee 00000001 f2");
  BlobReader kr(key_wire);
  marshal_testing::FailAllocationsAfter(1);
  EXPECT_EQ(UnloadBlob(kr, &key_blob), TCS_E_OUTOFMEMORY);
  marshal_testing::FailAllocationsAfter(-1);
  EXPECT_TRUE(key_blob.additionalArea.empty());
}

TEST(MarshalTest, AllocationFailureStopsAtTheFieldAndKeepsEarlierParts) {
  const std::vector<BYTE> wire = Hex(kSampleKeyHex);
  TPM_KEY key;
  BlobReader r(wire);
  marshal_testing::FailAllocationsAfter(1);
  EXPECT_EQ(UnloadBlob(r, &key), TCS_E_OUTOFMEMORY);
  marshal_testing::FailAllocationsAfter(-1);
  EXPECT_EQ(key.algorithmParms.parms.size(), 12u);
  EXPECT_TRUE(key.pubKey.key.empty());

  std::vector<BYTE> bytes;
  BlobReader br(wire);
  marshal_testing::FailAllocationsAfter(0);
  EXPECT_EQ(UnloadBlob_BYTES(br, 4, &bytes), TCS_E_OUTOFMEMORY);
  marshal_testing::FailAllocationsAfter(-1);
  EXPECT_EQ(br.offset(), 0);
}

TEST(MarshalTest, AFailingNestedFieldStopsTheWalkAndKeepsWhatCameBefore) {
  // The input ends inside pubKey, a nested structure whose size claims 4 bytes where 2 remain.
  const std::vector<BYTE> wire = Hex(kSampleKeyHex);
  const std::vector<BYTE> cut(wire.begin(), wire.begin() + 45);
  TPM_KEY key;
  key.pubKey = {1, Hex("aa")};
  key.encSize = 1;
  key.encData = Hex("bb");
  BlobReader r(cut);
  EXPECT_EQ(UnloadBlob(r, &key), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(key.keyUsage, 0x0011);
  EXPECT_EQ(ToHex(key.algorithmParms.parms), "000008000000000200000000");
  EXPECT_EQ(key.pubKey.keyLength, 1u);
  EXPECT_EQ(ToHex(key.pubKey.key), "aa");
  EXPECT_EQ(ToHex(key.encData), "bb");
  EXPECT_EQ(r.offset(), 43);  // past the size field that lied, and no further

  // Writing stops before the first part that does not fit, with everything before it in place.
  std::vector<BYTE> small(45);
  BlobWriter w(small);
  EXPECT_EQ(LoadBlob(w, SampleKey()), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(w.offset(), 39);
  EXPECT_EQ(ToHex(w.written()), ToHex(std::span(wire).first(39)));
}

TEST(MarshalTest, LyingLengthsAreRefusedBeforeAllocating) {
  // Each size field claims more bytes than remain; no allocation is even attempted.
  const std::string cases[] = {
      "ffffffff aabb",                     // TPM_STORE_PUBKEY
      "00000001 0003 0001 00000010 0102",  // TPM_KEY_PARMS
      "0100 01",                           // TPM_PCR_SELECTION inside a composite
      "0002 00000001",                     // TPM_KEY_HANDLE_LIST
  };
  marshal_testing::FailAllocationsAfter(0);
  const std::vector<BYTE> store = Hex(cases[0]);
  BlobReader r0(store);
  EXPECT_EQ(UnloadBlob(r0, static_cast<TPM_STORE_PUBKEY*>(nullptr)), TCS_E_BAD_PARAMETER);
  const std::vector<BYTE> parms = Hex(cases[1]);
  BlobReader r1(parms);
  TPM_KEY_PARMS kp;
  EXPECT_EQ(UnloadBlob(r1, &kp), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(kp.parmSize, 0u);
  const std::vector<BYTE> composite = Hex(cases[2]);
  BlobReader r2(composite);
  EXPECT_EQ(UnloadBlob(r2, static_cast<TPM_PCR_COMPOSITE*>(nullptr)), TCS_E_BAD_PARAMETER);
  const std::vector<BYTE> handles = Hex(cases[3]);
  BlobReader r3(handles);
  EXPECT_EQ(UnloadBlob(r3, static_cast<TPM_KEY_HANDLE_LIST*>(nullptr)), TCS_E_BAD_PARAMETER);
  std::vector<BYTE> bytes;
  BlobReader r4(handles);
  EXPECT_EQ(UnloadBlob_BYTES(r4, 7, &bytes), TCS_E_BAD_PARAMETER);
  marshal_testing::FailAllocationsAfter(-1);

  // A structure whose vector is shorter than its size field is not marshalled.
  TPM_STORE_PUBKEY store_pub{8, Hex("0102")};
  std::array<BYTE, 64> out{};
  BlobWriter w(out);
  EXPECT_EQ(LoadBlob(w, store_pub), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(w.offset(), 0);
}

}  // namespace
}  // namespace kesttcs
