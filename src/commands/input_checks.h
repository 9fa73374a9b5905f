// Checks of a command's caller-supplied inputs before anything is marshalled: variable parts that
// must be present and fit the command buffer together, and structures that the TPM reads without
// a size field in front of them (a TPM_PUBKEY, a TPM_KEY12, ...), so the caller's bytes must hold
// exactly one of them (HoldsExactlyOne, beside TpmCommand) or the TPM would read the next parameter
// from the wrong place.
#pragma once

#include <initializer_list>
#include <span>

#include <kesttcs/tcs_types.h>

#include "commands/command_exchange.h"
#include "tpm12/marshal.h"

namespace kesttcs {

// One variable-length input: `size` bytes at `data`.
struct InputPart {
  UINT32 size;
  const void* data;
};

// True when every part with bytes has them (a null pointer with a size is refused) and all the
// parts together with `fixedBytes` fit the command buffer.
inline bool PartsFit(UINT32 fixedBytes, std::initializer_list<InputPart> parts) noexcept {
  UINT64 total = 0;
  for (const InputPart& part : parts) {
    if (part.size != 0 && part.data == nullptr) return false;
    total += part.size;
  }
  return FitsCommandBuffer(total, fixedBytes);
}

// The bytes of one variable-length input as a span (empty for size 0, whatever the pointer).
inline std::span<const BYTE> Bytes(UINT32 size, const BYTE* data) noexcept {
  return size == 0 ? std::span<const BYTE>() : std::span<const BYTE>(data, size);
}

}  // namespace kesttcs
