// The TCS operations on the TPM's non-volatile storage: defining and releasing a space, and
// writing and reading it with the owner's session, the space's own session, or none.
//
// Every function checks the context (its result on failure), pointers and the size bound
// (TCS_E_BAD_PARAMETER, nothing sent) and that each session is the caller's (TCS_E_INTERNAL_ERROR,
// nothing sent), then sends the command with req_mgr_submit and returns the request manager's
// failure or the TPM's return code mapped as 0xE0280000 | code. A failure releases the session; a
// success frees a session sent with continue 0 in the table and reads the response trailer back
// into the caller's TPM_AUTH for the caller to verify. Data read goes to a new block of the
// context's memory (TCS_E_OUTOFMEMORY when it cannot be allocated), written only on success.
//
// Locks: the auth mutex (and the TPM lock after it, to end a session), the TPM lock, and briefly
// the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_NV_DefineSpace (0xCC): the TPM_NV_DATA_PUBLIC bytes as the caller gives them and the space's
// encrypted secret. A public area whose data size is 0 releases the space instead. With the
// owner's session (tag 0x00C2) or without one (0x00C1: an unowned TPM, or physical presence).
// Bound: cPubInfoSize + 30 (+ 45 with a session) <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_NV_DefineOrReleaseSpace_Internal(TCS_CONTEXT_HANDLE hContext,
                                                                UINT32 cPubInfoSize,
                                                                const BYTE* pPubInfo,
                                                                const TPM_ENCAUTH& encAuth,
                                                                TPM_AUTH* pAuth);

// TPM_NV_WriteValue (0xCD): ulDataLength bytes at `offset` of the space hNVStore, with the
// owner's session or none. Bound: ulDataLength + 22 (+ 45) <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_NV_WriteValue_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      TSS_NV_INDEX hNVStore, UINT32 offset,
                                                      UINT32 ulDataLength,
                                                      const BYTE* rgbDataToWrite,
                                                      TPM_AUTH* privAuth);

// TPM_NV_WriteValueAuth (0xCE): as above with the space's own session, required.
[[nodiscard]] TSS_RESULT Tcsip_NV_WriteValueAuth_Internal(TCS_CONTEXT_HANDLE hContext,
                                                          TSS_NV_INDEX hNVStore, UINT32 offset,
                                                          UINT32 ulDataLength,
                                                          const BYTE* rgbDataToWrite,
                                                          TPM_AUTH* NVAuth);

// TPM_NV_ReadValue (0xCF): *pulDataLength bytes wanted from `offset` of hNVStore; on success
// *pulDataLength is the number read and *rgbDataRead holds them. With the owner's session or none.
[[nodiscard]] TSS_RESULT Tcsip_NV_ReadValue_Internal(TCS_CONTEXT_HANDLE hContext,
                                                     TSS_NV_INDEX hNVStore, UINT32 offset,
                                                     UINT32* pulDataLength, TPM_AUTH* privAuth,
                                                     BYTE** rgbDataRead);

// TPM_NV_ReadValueAuth (0xD0): as above with the space's own session, required.
[[nodiscard]] TSS_RESULT Tcsip_NV_ReadValueAuth_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         TSS_NV_INDEX hNVStore, UINT32 offset,
                                                         UINT32* pulDataLength, TPM_AUTH* NVAuth,
                                                         BYTE** rgbDataRead);

}  // namespace kesttcs
