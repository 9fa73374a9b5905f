// The internal functions behind the operations, bound in one table: a call's slots (rpc/stubs.h)
// become the typed arguments of the operation's `..._Internal` function. A binding names only the
// function; its operation is the one the function is named after. The binding is checked against
// the operation table when it is compiled: parameter count, and for every parameter how it is
// passed and the size of what it points to.
#pragma once

#include <cstdint>

#include <kesttcs/tcs_types.h>

#include "rpc/stubs.h"

namespace kesttcs {

// Whether the operation `opnum` has an internal function (is implemented); the list of operations
// (docs/operations.md) calls those working.
[[nodiscard]] bool HasInternalFunction(uint16_t opnum);

// Calls the internal function of `opnum` with the arguments of `frame`, writes its outputs back
// into the frame (output blocks are copied and released from the context's memory table), and
// returns its result; TCS_E_NOTIMPL when the operation has none yet.
[[nodiscard]] TSS_RESULT CallInternalFunction(uint16_t opnum, rpc::CallFrame& frame);

}  // namespace kesttcs
