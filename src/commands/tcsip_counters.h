// The TCS operations on the TPM's monotonic counters that need authorisation: creating one under
// the owner's session, incrementing and releasing one under its own session, and releasing one
// with the owner's session. (Reading a counter needs none: Tcsip_ReadCounter_Internal.)
//
// Every function checks the context, its pointers and that the session is given and the caller's
// (TCS_E_BAD_PARAMETER or TCS_E_INTERNAL_ERROR, nothing sent), sends the command with
// req_mgr_submit and returns the request manager's failure or the TPM's return code mapped as
// 0xE0280000 | code. A failure releases the session; a success frees a session sent with continue
// 0 in the table and reads the response trailer back into the caller's TPM_AUTH. Outputs are
// written only on success.
//
// Locks: the auth mutex (and the TPM lock after it, to end a session), the TPM lock, and briefly
// the context list.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_CreateCounter (0xDC): the new counter's encrypted secret and its 4-byte label (LabelSize must
// be 4), owner session required. The new counter's id and its starting value.
[[nodiscard]] TSS_RESULT Tcsip_CreateCounter_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 LabelSize,
                                                      const BYTE* pLabel,
                                                      const TPM_ENCAUTH& CounterAuth,
                                                      TPM_AUTH* pOwnerAuth,
                                                      TSS_COUNTER_ID* idCounter,
                                                      TPM_COUNTER_VALUE* counterValue);

// TPM_IncrementCounter (0xDD) under the counter's session: the value after the increment.
[[nodiscard]] TSS_RESULT Tcsip_IncrementCounter_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         TSS_COUNTER_ID idCounter,
                                                         TPM_AUTH* pCounterAuth,
                                                         TPM_COUNTER_VALUE* counterValue);

// TPM_ReleaseCounter (0xDF) under the counter's session.
[[nodiscard]] TSS_RESULT Tcsip_ReleaseCounter_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TSS_COUNTER_ID idCounter,
                                                       TPM_AUTH* pCounterAuth);

// Releases a counter with the owner's session. Sends the ordinal of TPM_ReleaseCounter (0xDF),
// tag 0x00C2, not TPM_ReleaseCounterOwner's: the service's defined behaviour, kept on purpose. The
// TPM therefore checks the caller's HMAC over 0xDF with the counter's secret.
[[nodiscard]] TSS_RESULT Tcsip_ReleaseCounterOwner_Internal(TCS_CONTEXT_HANDLE hContext,
                                                            TSS_COUNTER_ID idCounter,
                                                            TPM_AUTH* pOwnerAuth);

}  // namespace kesttcs
