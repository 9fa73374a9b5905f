#include "storage/ps_format.h"

#include <cstring>

namespace kesttcs {
namespace {

// Little-endian field writer and reader over a fixed buffer.
class LeWriter {
 public:
  explicit LeWriter(std::span<BYTE> out) : out_(out) {}
  void Put(UINT32 value, int width) {
    for (int i = 0; i < width; ++i) out_[at_++] = static_cast<BYTE>(value >> (8 * i));
  }
  void Put(const TSS_UUID& uuid) {
    Put(uuid.ulTimeLow, 4);
    Put(uuid.usTimeMid, 2);
    Put(uuid.usTimeHigh, 2);
    Put(uuid.bClockSeqHigh, 1);
    Put(uuid.bClockSeqLow, 1);
    for (BYTE b : uuid.rgbNode) Put(b, 1);
  }

 private:
  std::span<BYTE> out_;
  std::size_t at_ = 0;
};

class LeReader {
 public:
  explicit LeReader(std::span<const BYTE> in) : in_(in) {}
  UINT32 Get(int width) {
    UINT32 value = 0;
    for (int i = 0; i < width; ++i) value |= UINT32{in_[at_++]} << (8 * i);
    return value;
  }
  UINT16 Get16() { return static_cast<UINT16>(Get(2)); }
  BYTE Get8() { return static_cast<BYTE>(Get(1)); }
  TSS_UUID GetUuid() {
    TSS_UUID uuid{};
    uuid.ulTimeLow = Get(4);
    uuid.usTimeMid = Get16();
    uuid.usTimeHigh = Get16();
    uuid.bClockSeqHigh = Get8();
    uuid.bClockSeqLow = Get8();
    for (BYTE& b : uuid.rgbNode) b = Get8();
    return uuid;
  }

 private:
  std::span<const BYTE> in_;
  std::size_t at_ = 0;
};

}  // namespace

bool SameUuid(const TSS_UUID& a, const TSS_UUID& b) {
  static_assert(sizeof(TSS_UUID) == 16, "TSS_UUID has no padding");
  return std::memcmp(&a, &b, sizeof(TSS_UUID)) == 0;
}

PsRecordHeaderBytes EncodeRecordHeader(const PsRecordHeader& header) {
  PsRecordHeaderBytes bytes{};
  LeWriter w(bytes);
  w.Put(header.uuid);
  w.Put(header.parentUuid);
  w.Put(header.pubDataSize, 2);
  w.Put(header.blobSize, 2);
  w.Put(header.flags, 2);
  return bytes;
}

PsRecordHeader DecodeRecordHeader(std::span<const BYTE, kPsRecordHeaderSize> bytes) {
  LeReader r(bytes);
  PsRecordHeader header;
  header.uuid = r.GetUuid();
  header.parentUuid = r.GetUuid();
  header.pubDataSize = r.Get16();
  header.blobSize = r.Get16();
  header.flags = r.Get16();
  return header;
}

std::array<BYTE, 4> EncodeLe32(UINT32 value) {
  std::array<BYTE, 4> bytes{};
  LeWriter(bytes).Put(value, 4);
  return bytes;
}

UINT32 DecodeLe32(std::span<const BYTE, 4> bytes) { return LeReader(bytes).Get(4); }

std::array<BYTE, 16> EncodeUuid(const TSS_UUID& uuid) {
  std::array<BYTE, 16> bytes{};
  LeWriter(bytes).Put(uuid);
  return bytes;
}

TSS_UUID DecodeUuid(std::span<const BYTE, 16> bytes) { return LeReader(bytes).GetUuid(); }

}  // namespace kesttcs
