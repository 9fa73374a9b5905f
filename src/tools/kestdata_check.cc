#include "tools/kestdata_check.h"

#include <cstdio>
#include <set>
#include <string_view>

#include "tools/key_format.h"

namespace kesttcs::cli {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kRecordHeaderSize = 38;
constexpr unsigned kMaxPubDataSize = 2048;
constexpr unsigned kMaxBlobSize = 4096;
constexpr unsigned kValid = 0x1;
constexpr unsigned kKnownFlags = 0x3;

// Little-endian fields, as the header and the record headers hold them.
UINT32 Le(std::span<const BYTE> bytes) {
  UINT32 value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) value = (value << 8) | bytes[i];
  return value;
}

// The UUID as it lies in a record: its integers little-endian.
TSS_UUID UuidAt(std::span<const BYTE> b) {
  TSS_UUID uuid{};
  uuid.ulTimeLow = Le(b.first(4));
  uuid.usTimeMid = static_cast<UINT16>(Le(b.subspan(4, 2)));
  uuid.usTimeHigh = static_cast<UINT16>(Le(b.subspan(6, 2)));
  uuid.bClockSeqHigh = b[8];
  uuid.bClockSeqLow = b[9];
  for (std::size_t i = 0; i < 6; ++i) uuid.rgbNode[i] = b[10 + i];
  return uuid;
}

// CRC-16/XMODEM in a 32-bit accumulator whose bits above bit 15 are kept. The data byte is
// compared with bit 15 without being folded into the accumulator, which changes the kept bits.
UINT32 Checksum(std::span<const BYTE> bytes) {
  UINT32 sum = 0;
  for (BYTE b : bytes) {
    for (UINT32 d = UINT32{b} << 8, bit = 0; bit < 8; ++bit, d <<= 1) {
      sum = ((sum ^ d) & 0x8000) != 0 ? (sum << 1) ^ 0x1021 : sum << 1;
    }
  }
  return sum;
}

bool AllZero(std::span<const BYTE> bytes) {
  for (BYTE b : bytes) {
    if (b != 0) return false;
  }
  return true;
}

class Checker {
 public:
  Checker(std::span<const BYTE> file, KestDataReport& report) : file_(file), report_(report) {}

  // Checks slot `index` at `offset`; returns the next slot's offset, or nothing when the walk ends.
  std::optional<std::size_t> Slot(UINT32 index, std::size_t offset) {
    index_ = index;
    offset_ = offset;
    if (file_.size() - offset < kRecordHeaderSize)
      return Problem("header beyond the end of the file");
    const std::span<const BYTE> header = file_.subspan(offset, kRecordHeaderSize);
    const unsigned pubSize = Le(header.subspan(32, 2));
    const unsigned blobSize = Le(header.subspan(34, 2));
    const unsigned flags = Le(header.subspan(36, 2));
    if (pubSize > kMaxPubDataSize) return Problem("public data size " + std::to_string(pubSize));
    if (blobSize > kMaxBlobSize) return Problem("blob size " + std::to_string(blobSize));
    const std::size_t end = offset + kRecordHeaderSize + pubSize + blobSize;
    if (end > file_.size()) return Problem("data beyond the end of the file");
    const std::span<const BYTE> uuids = header.first(32);
    const std::span<const BYTE> data =
        file_.subspan(offset + kRecordHeaderSize, pubSize + blobSize);
    if ((flags & ~kKnownFlags) != 0) Problem("unknown flags " + std::to_string(flags));
    if ((flags & kValid) == 0) {
      ++report_.deletedRecords;
      if (!AllZero(uuids) || flags != 0 || !AllZero(data)) Problem("deleted slot not wiped");
    } else {
      ++report_.validRecords;
      CheckValid(UuidAt(header.first(16)), data.first(pubSize));
    }
    return end;
  }

 private:
  void CheckValid(const TSS_UUID& uuid, std::span<const BYTE> pubData) {
    if (AllZero(std::span(reinterpret_cast<const BYTE*>(&uuid), sizeof(uuid)))) {
      Problem("valid record without a UUID");
    }
    if (!seen_.insert(UuidText(uuid)).second) Problem("UUID " + UuidText(uuid) + " twice");
    const bool lengthFits =
        pubData.size() >= 4 && (UINT32{pubData[0]} << 24 | UINT32{pubData[1]} << 16 |
                                UINT32{pubData[2]} << 8 | pubData[3]) == pubData.size() - 4;
    if (!lengthFits) Problem("public data length does not match its size");
  }

  std::nullopt_t Problem(const std::string& what) {
    char where[64];
    std::snprintf(where, sizeof(where), "record %u at offset %zu: ", index_, offset_);
    report_.problems.push_back(where + what);
    return std::nullopt;
  }

  std::span<const BYTE> file_;
  KestDataReport& report_;
  std::set<std::string> seen_;
  UINT32 index_ = 0;
  std::size_t offset_ = 0;
};

}  // namespace

KestDataReport CheckKestData(std::span<const BYTE> file) {
  KestDataReport report;
  if (file.empty()) {
    report.empty = true;
    return report;
  }
  if (file.size() < kHeaderSize) {
    report.problems.push_back("file of " + std::to_string(file.size()) + " bytes: no header");
    return report;
  }
  report.storedChecksum = Le(file.first(4));
  report.computedChecksum = Checksum(file.subspan(4));
  report.recordCount = Le(file.subspan(4, 4));
  Checker checker(file, report);
  std::optional<std::size_t> offset = kHeaderSize;
  for (UINT32 i = 0; i < report.recordCount && offset; ++i) offset = checker.Slot(i, *offset);
  if (offset && *offset != file.size()) {
    report.problems.push_back(std::to_string(file.size() - *offset) +
                              " bytes after the last record");
  }
  return report;
}

}  // namespace kesttcs::cli
