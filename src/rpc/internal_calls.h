// The internal functions behind the operations, bound by opnum in one table: a call's slots
// (rpc/stubs.h) become the typed arguments of the operation's `..._Internal` function. The
// binding is checked against the operation table when it is compiled: parameter count, and for
// every parameter how it is passed and the size of what it points to.
#pragma once

#include <cstdint>

#include <kesttcs/tcs_types.h>

#include "rpc/stubs.h"

namespace kesttcs {

// Calls the internal function of `opnum` with the arguments of `frame`, writes its outputs back
// into the frame (output blocks are copied and released from the context's memory table), and
// returns its result; TCS_E_NOTIMPL when the operation has none yet.
[[nodiscard]] TSS_RESULT CallInternalFunction(uint16_t opnum, rpc::CallFrame& frame);

}  // namespace kesttcs
