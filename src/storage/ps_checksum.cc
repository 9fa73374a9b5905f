#include "storage/ps_checksum.h"

#include <array>

#include "storage/ps_format.h"

namespace kesttcs {
namespace {

constexpr UINT32 kPolynomial = 0x1021;
constexpr UINT32 kTopBit = 0x8000;

// One byte through the bit-at-a-time CRC.
constexpr UINT32 UpdateBitwise(UINT32 accumulator, BYTE b) {
  UINT32 d = UINT32{b} << 8;
  for (int bit = 0; bit < 8; ++bit) {
    accumulator =
        ((accumulator ^ d) & kTopBit) != 0 ? (accumulator << 1) ^ kPolynomial : accumulator << 1;
    d <<= 1;
  }
  return accumulator;
}

// The CRC is linear, and the bits it tests while taking in a byte are bits 15..8 of the
// accumulator XORed with the byte, so a byte's eight steps come to one shift and one XOR with the
// value that byte index gives from zero. The accumulator is never cut to 16 bits, so the entries
// keep their bits above bit 15.
constexpr std::array<UINT32, 256> MakeByteTable() {
  std::array<UINT32, 256> table{};
  for (UINT32 i = 0; i < 256; ++i) table[i] = UpdateBitwise(0, static_cast<BYTE>(i));
  return table;
}

constexpr std::array<UINT32, 256> kByteTable = MakeByteTable();

constexpr UINT32 UpdateByTable(UINT32 accumulator, BYTE b) {
  return (accumulator << 8) ^ kByteTable[((accumulator >> 8) ^ b) & 0xFF];
}

// The table step agrees with the bit-at-a-time one for every byte, high accumulator bits included.
constexpr bool TableStepMatchesBitwise() {
  for (UINT32 accumulator : {0x00000000u, 0x0000FFFFu, 0x12345678u, 0xFFFFFFFFu, 0x80008000u}) {
    for (UINT32 b = 0; b < 256; ++b) {
      if (UpdateByTable(accumulator, BYTE(b)) != UpdateBitwise(accumulator, BYTE(b))) return false;
    }
  }
  return true;
}
static_assert(TableStepMatchesBitwise());

}  // namespace

void PsChecksum::Update(std::span<const BYTE> bytes) {
  // The file is checksummed whole on every change; a byte a step keeps that cheap.
  for (BYTE b : bytes) {
    accumulator_ = UpdateByTable(accumulator_, b);
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
