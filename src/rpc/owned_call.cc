#include "rpc/owned_call.h"

#include <kesttcs/tcs_results.h>

#include "rpc/api_frame.h"
#include "rpc/internal_calls.h"
#include "tpm/tpm_turns.h"

namespace kesttcs {
namespace {

constexpr uint16_t kOpenContext = rpc::OpnumOf("Tcsi_OpenContext");
constexpr uint16_t kCloseContext = rpc::OpnumOf("Tcsi_CloseContext");

// The client a call's TPM commands count for: the owner of its contexts. The three kinds of owner
// get keys of their own ranges; 0 stays the service's.
uint64_t TpmClientOf(const ContextOwner& owner) {
  if (owner.is_process) return uint64_t{1} << 62 | static_cast<uint32_t>(owner.pid);
  if (owner.assoc_group != 0) return uint64_t{2} << 62 | owner.assoc_group;
  return uint64_t{3} << 62 | owner.connection_id;
}

}  // namespace

// A call holds its context open until its outputs have left the context's memory; a close first
// waits, outside the API lock, for the context's other calls to end. Successful opens and closes
// update the owner map.
TSS_RESULT RunOwnedCall(const rpc::Operation& op, rpc::CallFrame& frame,
                        const ContextOwner& owner) {
  const TpmClientScope client(TpmClientOf(owner));
  const bool takes_context = op.params[0].is_input();
  const bool closes = op.opnum == kCloseContext;
  const bool opens = op.opnum == kOpenContext;
  const TCS_CONTEXT_HANDLE hContext = takes_context ? frame.u32(0) : 0;
  const bool admitted = takes_context && (closes ? owners_BeginClose(owner, hContext)
                                                 : owners_BeginCall(owner, hContext));
  TSS_RESULT refusal = TSS_SUCCESS;
  if (takes_context && !admitted) refusal = TCS_E_INVALID_CONTEXT;
  if (opens && !owners_BeginOpen(owner)) refusal = TCS_E_FAIL;
  // Three small captures: std::function keeps them in place, so dispatch allocates nothing here.
  const TSS_RESULT result =
      RunApiFrame(op, frame, [&frame, refusal, opnum = op.opnum]() -> TSS_RESULT {
        return refusal != TSS_SUCCESS ? refusal : CallInternalFunction(opnum, frame);
      });
  if (opens && refusal == TSS_SUCCESS) {
    owners_EndOpen(owner, result == TSS_SUCCESS ? frame.u32(0) : 0);
  }
  if (admitted) {
    if (closes) {
      owners_EndClose(hContext, result == TSS_SUCCESS);
    } else {
      owners_EndCall(hContext);
    }
  }
  return result;
}

}  // namespace kesttcs
