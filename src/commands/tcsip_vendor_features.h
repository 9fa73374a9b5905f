// The TCS operations on manufacturer-defined TPM features: field upgrade of the TPM's firmware and
// the redirection of a key's output to a redirection receiver.
//
// Failures as every command (tcsip_nv.h): context, pointers, key, size bound and session checks
// before anything is sent, then the request manager's failure or the TPM's mapped return code, with
// the session bookkeeping of RunAuthorised. Outputs go to a new block of the context's memory,
// written only on success.
//
// Locks: the key cache's (to load the key), the auth mutex (and the TPM lock after it, to end a
// session), the TPM lock, and briefly the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_FieldUpgrade (0xAA). Its parameters are the manufacturer's: dataIn is sent as the command's
// parameters, byte for byte, and dataOut is the response's parameters as the TPM returns them.
// With the owner's session (tag 0x00C2) or without one (0x00C1: an unowned TPM that allows the
// upgrade by deferred physical presence). Bound: dataInSize + 10 (+ 45) <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_FieldUpgrade_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 dataInSize,
                                                     const BYTE* dataIn, TPM_AUTH* ownerAuth,
                                                     UINT32* dataOutSize, BYTE** dataOut);

// TPM_SetRedirection (0x9A) in its TPM 1.2 form: the key (loaded first) that implements the
// redirection, the redirection command and its input data, with the owner's session, or without
// one when ownerAuth is null. Bound: inputDataSize + 22 (+ 45) <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_SetRedirection_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TCS_KEY_HANDLE keyHandle,
                                                       TPM_REDIR_COMMAND redirCmd,
                                                       UINT32 inputDataSize, const BYTE* inputData,
                                                       TPM_AUTH* ownerAuth);

}  // namespace kesttcs
