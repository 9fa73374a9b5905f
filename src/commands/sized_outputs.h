// Commands that answer two sized outputs in a row (a random pad and the data it hides, the family
// table and the delegate table) hand both to the client or neither.
#pragma once

#include <kesttcs/tcs_types.h>

#include "commands/command_exchange.h"
#include "contexts/context_memory.h"

namespace kesttcs {

// UnloadSized twice; when the second fails, the first block goes back to the context's memory and
// *firstSize and *first are left as they were.
[[nodiscard]] inline TSS_RESULT UnloadTwoSized(TpmCommand& command, TCS_CONTEXT_HANDLE hContext,
                                               UINT32* firstSize, BYTE** first, UINT32* secondSize,
                                               BYTE** second) noexcept {
  UINT32 size = 0;
  BYTE* data = nullptr;
  if (TSS_RESULT rc = command.UnloadSized(&size, &data)) return rc;
  if (TSS_RESULT rc = command.UnloadSized(secondSize, second)) {
    if (data != nullptr) static_cast<void>(ctx_ReleaseMemory(hContext, data));
    return rc;
  }
  *firstSize = size;
  *first = data;
  return TSS_SUCCESS;
}

}  // namespace kesttcs
