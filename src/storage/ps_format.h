// The layout of the registered-key file "KestData.dat" (docs/formats.md): an 8-byte header
// (checksum, record count) and record slots of a 38-byte header followed by the public data and
// the key blob. Header and record-header fields are little-endian, as the values lie in memory;
// TSS_UUID fields keep their memory layout too (ulTimeLow, usTimeMid and usTimeHigh little-endian,
// then the eight bytes). The key structures inside the records are big-endian TPM structures.
#pragma once

#include <array>
#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr UINT32 kPsCountOffset = 4;
inline constexpr UINT32 kPsFirstRecordOffset = 8;
inline constexpr UINT32 kPsRecordHeaderSize = 38;
// Limits a record must keep; loading ends at a record beyond them.
inline constexpr UINT16 kPsMaxPubDataSize = 2048;
inline constexpr UINT16 kPsMaxBlobSize = 4096;
// Record flags. A deleted slot has neither.
inline constexpr UINT16 kPsFlagValid = 0x1;
inline constexpr UINT16 kPsFlagParentInSystemPs = 0x2;
// Storage types getParentPSTypeByUUID answers.
inline constexpr int kPsTypeUser = 1;
inline constexpr int kPsTypeSystem = 2;
inline constexpr int kPsTypeAbsent = -2;

// The SRK's UUID (15 zero bytes, then 1) and the NULL UUID (the SRK's parent).
inline constexpr TSS_UUID kSrkUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
inline constexpr TSS_UUID kNullUuid = {};

// UUIDs are compared as their 16 raw bytes.
bool SameUuid(const TSS_UUID& a, const TSS_UUID& b);

// One record slot's header.
struct PsRecordHeader {
  TSS_UUID uuid{};
  TSS_UUID parentUuid{};
  UINT16 pubDataSize = 0;
  UINT16 blobSize = 0;
  UINT16 flags = 0;
};

using PsRecordHeaderBytes = std::array<BYTE, kPsRecordHeaderSize>;
PsRecordHeaderBytes EncodeRecordHeader(const PsRecordHeader& header);
PsRecordHeader DecodeRecordHeader(std::span<const BYTE, kPsRecordHeaderSize> bytes);

std::array<BYTE, 4> EncodeLe32(UINT32 value);
// A TSS_UUID in its memory layout, as the storage files keep it.
std::array<BYTE, 16> EncodeUuid(const TSS_UUID& uuid);
TSS_UUID DecodeUuid(std::span<const BYTE, 16> bytes);
UINT32 DecodeLe32(std::span<const BYTE, 4> bytes);

}  // namespace kesttcs
