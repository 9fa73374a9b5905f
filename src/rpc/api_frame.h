// The entry frame every operation runs in, as the operation table's Frame describes it: the
// start trace line, the API serialisation lock where the frame takes it, the operation's internal
// function, the result trace line. Trace texts are the operation's standard texts unless the
// operation has texts of its own (api_frame.cc lists them); nothing is formatted while needLog is
// off.
//
// Lock: the API serialisation mutex, process-wide, held only around the internal call
// (ApiLock::kAroundCall) or across both trace lines (ApiLock::kAcrossTraceLines). It comes before
// every other lock of the service.
#pragma once

#include <functional>

#include <kesttcs/tcs_types.h>

#include "base/mutex.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"

namespace kesttcs {

// The API serialisation mutex. Tcsi_CloseContext_Internal and anything that closes contexts on a
// client's behalf run under it.
Mutex& ApiSerialisationLock();

// Runs `op`'s frame around `internal` (which calls the internal function with `frame`) and
// returns its result unchanged. Trace values are read from `frame`: inputs before the call,
// outputs after it (printed even when the call failed). Operations without a handler are not run
// through here.
[[nodiscard]] TSS_RESULT RunApiFrame(const rpc::Operation& op, const rpc::CallFrame& frame,
                                     const std::function<TSS_RESULT()>& internal);

// Checks that every trace text of an operation names only parameters the operation has; returns
// the first operation name that does not, or an empty view. For tests.
std::string_view FirstBadTraceText();

}  // namespace kesttcs
