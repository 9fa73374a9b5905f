// Variable-size parts of a TCS operation's command and answer. A structure the caller passes is
// checked to be exactly one well-formed structure before it is sent. An answer with more than one
// variable-size part is read out of the response first and then copied into the context's memory
// all together, so a client never gets some of the parts and a failure leaves none behind.
#pragma once

#include <initializer_list>
#include <span>

#include <kesttcs/tcs_types.h>

#include "tpm12/blob_cursor.h"
#include "tpm12/marshal.h"

namespace kesttcs {

// A key slot of 0 names no key: a keyed command that is given one fails with TCS_E_FAIL.
inline constexpr TPM_KEY_HANDLE kNoKeySlot = 0;

// One part to hand out: its bytes (still in the response buffer) and where the client's size and
// pointer go.
struct OutputPart {
  std::span<const BYTE> bytes;
  UINT32* size;
  BYTE** data;
};

// Reads a UINT32 size and that many bytes from `reader` into *bytes (a view of the response).
// TCS_E_BAD_PARAMETER when the response is shorter; the reader then stays where it was.
[[nodiscard]] TSS_RESULT TakeSized(BlobReader& reader, std::span<const BYTE>* bytes) noexcept;

// Copies every part into a new block of hContext's memory and writes each part's size and pointer
// (no block and a null pointer for an empty part). TCS_E_OUTOFMEMORY when a block cannot be
// allocated: the blocks made before it are released and nothing is written.
[[nodiscard]] TSS_RESULT HandOutAll(TCS_CONTEXT_HANDLE hContext,
                                    std::initializer_list<OutputPart> parts) noexcept;

// Reads two sized outputs in a row from `reader` and hands both to the client or neither.
[[nodiscard]] TSS_RESULT UnloadTwoSized(BlobReader& reader, TCS_CONTEXT_HANDLE hContext,
                                        UINT32* firstSize, BYTE** first, UINT32* secondSize,
                                        BYTE** second) noexcept;

}  // namespace kesttcs
