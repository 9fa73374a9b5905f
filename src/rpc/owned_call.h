// One call of an operation on behalf of the client that makes it, the same on every host: the
// ownership check of the context it presents, the entry frame with the internal function, and the
// owner map's bookkeeping of opens and closes. The host's server turns its wire form into the
// frame and back.
#pragma once

#include <kesttcs/tcs_types.h>

#include "rpc/context_owners.h"
#include "rpc/operations.h"
#include "rpc/stubs.h"

namespace kesttcs {

// Runs `op`'s frame; the internal call is refused (TCS_E_INVALID_CONTEXT) when `owner` does not
// own the context it presents, and an open (TCS_E_FAIL, as a failed open answers) when the owner
// holds its limit of contexts. The call's TPM commands count for the owner when clients take turns
// at the TPM. `op` must have a handler.
[[nodiscard]] TSS_RESULT RunOwnedCall(const rpc::Operation& op, rpc::CallFrame& frame,
                                      const ContextOwner& owner);

}  // namespace kesttcs
