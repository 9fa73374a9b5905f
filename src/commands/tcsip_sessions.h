// The TCS operations that open and end authorisation sessions: TPM_OIAP, TPM_OSAP and TPM_DSAP
// record the session they open in the session table (auth_mgr.h) under the calling context;
// Tcsip_TerminateHandle ends one of the caller's sessions.
//
// Before opening a session the table is asked whether the context may hold one more
// (auth_mgr_req_new); a refusal goes to auth_mgr_swap_out, which makes no room and succeeds, so
// the session is still opened. A TPM refusal is returned mapped (0xE0280000 | code) and adds
// nothing. When the TPM opened the session but the table has no free entry, the call returns
// TCS_E_INTERNAL_ERROR and the session stays open in the TPM.
//
// Locks: the auth mutex (never across the TPM exchange), the TPM lock, and briefly the context
// list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_OIAP (0x0A). Traces " Tcsip_OIAP_Internal:auth_mgr_req_new:..." when the table refuses the
// context one more session and " Tcsip_OIAP_Internal:auth_mgr_add:..." once the TPM answered.
[[nodiscard]] TSS_RESULT Tcsip_OIAP_Internal(TCS_CONTEXT_HANDLE hContext,
                                             TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonce0);

// TPM_OSAP (0x0B). For a key entity (entityType 1 or 5) entityValue is a TCS key handle, loaded
// with ensureKeyIsLoaded and sent as its TPM slot (TCS_E_FAIL when it cannot be loaded); for every
// other entity the value sent is 0. Traces " Tcsip_OSAP_Internal:auth_mgr_add:...".
[[nodiscard]] TSS_RESULT Tcsip_OSAP_Internal(TCS_CONTEXT_HANDLE hContext,
                                             TPM_ENTITY_TYPE entityType, UINT32 entityValue,
                                             const TPM_NONCE& nonceOddOSAP,
                                             TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven,
                                             TPM_NONCE* nonceEvenOSAP);

// TPM_DSAP (0x11). entityType must be 7 (owner delegation blob), 8 (delegation table row) or 9
// (key delegation blob), else TCS_E_BAD_PARAMETER; for 9 keyHandle is loaded and its TPM slot
// sent (TCS_E_FAIL when it cannot be), for 7 and 8 the key handle sent is 0. Bound:
// entityValueSize + 40 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_DSAP_Internal(TCS_CONTEXT_HANDLE hContext,
                                             TPM_ENTITY_TYPE entityType, TCS_KEY_HANDLE keyHandle,
                                             const TPM_NONCE& nonceOddDSAP, UINT32 entityValueSize,
                                             const BYTE* entityValue, TCS_AUTHHANDLE* authHandle,
                                             TPM_NONCE* nonceEven, TPM_NONCE* nonceEvenDSAP);

// Ends the caller's session `handle` in the TPM and frees its entry. TCS_E_INTERNAL_ERROR, with
// nothing sent, when the session is not the caller's.
[[nodiscard]] TSS_RESULT Tcsip_TerminateHandle_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TCS_AUTHHANDLE handle);

}  // namespace kesttcs
