// Reading big-endian integers at fixed offsets of a TPM command or response the request manager
// peeks into without walking it with a cursor.
#pragma once

#include <cstddef>
#include <span>

#include "tpm12/marshal.h"

namespace kesttcs {

// The UINT32 / UINT16 at `offset`. The caller has checked that offset + 4 (or + 2) <= bytes.size().
inline UINT32 PeekUINT32(std::span<const BYTE> bytes, std::size_t offset) {
  return ArrayToUINT32(bytes.subspan(offset).first<4>());
}
inline UINT16 PeekUINT16(std::span<const BYTE> bytes, std::size_t offset) {
  return ArrayToUINT16(bytes.subspan(offset).first<2>());
}

}  // namespace kesttcs
