#include "storage/ps_checksum.h"

#include <array>

#include "storage/ps_format.h"

namespace kesttcs {
namespace {

constexpr UINT32 kPolynomial = 0x1021;
constexpr UINT32 kTopBit = 0x8000;

}  // namespace

void PsChecksum::Update(std::span<const BYTE> bytes) {
  for (BYTE b : bytes) {
    UINT32 d = UINT32{b} << 8;
    for (int bit = 0; bit < 8; ++bit) {
      accumulator_ = ((accumulator_ ^ d) & kTopBit) != 0 ? (accumulator_ << 1) ^ kPolynomial
                                                         : accumulator_ << 1;
      d <<= 1;
    }
  }
}

std::optional<UINT32> ComputeFileChecksum(StorageFile& file) {
  PsChecksum checksum;
  std::array<BYTE, kPsChecksumChunkSize> chunk;
  for (std::uint64_t offset = kPsCountOffset;;) {
    const std::optional<std::size_t> n = file.Read(offset, chunk);
    if (!n) return std::nullopt;
    if (*n == 0) return checksum.value();
    checksum.Update(std::span(chunk).first(*n));
    offset += *n;
  }
}

std::optional<UINT32> ReadStoredChecksum(StorageFile& file) {
  std::array<BYTE, 4> stored;
  const std::optional<std::size_t> n = file.Read(0, stored);
  if (!n || *n < stored.size()) return std::nullopt;
  return DecodeLe32(stored);
}

}  // namespace kesttcs
