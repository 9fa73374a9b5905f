// The checksum of "KestData.dat": a CRC-16/XMODEM (polynomial 0x1021, initial value 0, no
// reflection, no final XOR) run in a 32-bit accumulator that is never cut to 16 bits, so the bits
// shifted above bit 15 stay in the stored value; stored checksums are compared as whole 32-bit
// values. It covers every byte from offset 4 to the end of the file.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include <kesttcs/tcs_types.h>

#include "storage/file_system.h"

namespace kesttcs {

// Files are read for the checksum in chunks of this size.
inline constexpr std::size_t kPsChecksumChunkSize = 2048;

class PsChecksum {
 public:
  void Update(std::span<const BYTE> bytes);
  UINT32 value() const { return accumulator_; }

 private:
  UINT32 accumulator_ = 0;
};

// The checksum of `file` from offset 4 to its end; nothing when a read fails.
std::optional<UINT32> ComputeFileChecksum(StorageFile& file);

// The 4-byte checksum stored at offset 0; nothing when the file holds fewer than 4 bytes or the
// read fails.
std::optional<UINT32> ReadStoredChecksum(StorageFile& file);

}  // namespace kesttcs
