#include "commands/tcsip_counters.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/authorised_command.h"
#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

constexpr UINT32 kCounterLabelSize = 4;

// TPM_ReleaseCounter for idCounter under `auth`, whichever secret the caller keyed it with.
TSS_RESULT ReleaseCounter(TCS_CONTEXT_HANDLE hContext, TSS_COUNTER_ID idCounter, TPM_AUTH* auth) {
  TpmCommand command(hContext, TPM_ORD_ReleaseCounter);
  return RunWithRequiredSession(command, auth, idCounter);
}

}  // namespace

TSS_RESULT Tcsip_CreateCounter_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 LabelSize,
                                        const BYTE* pLabel, const TPM_ENCAUTH& CounterAuth,
                                        TPM_AUTH* pOwnerAuth, TSS_COUNTER_ID* idCounter,
                                        TPM_COUNTER_VALUE* counterValue) {
  if (idCounter == nullptr || counterValue == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CreateCounter);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (LabelSize != kCounterLabelSize || pLabel == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = RunWithRequiredSession(command, pOwnerAuth, CounterAuth,
                                             std::span<const BYTE>(pLabel, kCounterLabelSize))) {
    return rc;
  }
  TSS_COUNTER_ID id = 0;
  TPM_COUNTER_VALUE value{};
  if (TSS_RESULT rc = command.Unload(&id, &value)) return rc;
  *idCounter = id;
  *counterValue = value;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_IncrementCounter_Internal(TCS_CONTEXT_HANDLE hContext, TSS_COUNTER_ID idCounter,
                                           TPM_AUTH* pCounterAuth,
                                           TPM_COUNTER_VALUE* counterValue) {
  if (counterValue == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_IncrementCounter);
  if (TSS_RESULT rc = RunWithRequiredSession(command, pCounterAuth, idCounter)) return rc;
  TPM_COUNTER_VALUE value{};
  if (TSS_RESULT rc = command.Unload(&value)) return rc;
  *counterValue = value;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_ReleaseCounter_Internal(TCS_CONTEXT_HANDLE hContext, TSS_COUNTER_ID idCounter,
                                         TPM_AUTH* pCounterAuth) {
  return ReleaseCounter(hContext, idCounter, pCounterAuth);
}

TSS_RESULT Tcsip_ReleaseCounterOwner_Internal(TCS_CONTEXT_HANDLE hContext, TSS_COUNTER_ID idCounter,
                                              TPM_AUTH* pOwnerAuth) {
  return ReleaseCounter(hContext, idCounter, pOwnerAuth);
}

}  // namespace kesttcs
