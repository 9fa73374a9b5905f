// The delegation operations: managing delegation families, creating key and owner delegations,
// loading owner delegations into the TPM's delegate table, keeping their verification counts
// current, checking a delegation and reading both tables. Each follows the pattern of the other
// authorised commands (command_exchange.h): the caller's session passes through untouched, and
// outputs land in the context's memory. Structures the TPM reads without a size in front
// (TPM_DELEGATE_PUBLIC) must be exactly one structure, else TCS_E_BAD_PARAMETER.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_Delegate_Manage (0xD2): opFlag on family familyID with its operation data; the owner's
// session optional (a TPM without owner takes none). The TPM's answer bytes go to
// (*retDataSize, *retData).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_Manage_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TPM_FAMILY_ID familyID,
                                                        TPM_FAMILY_OPERATION opFlag,
                                                        UINT32 opDataSize, const BYTE* opData,
                                                        TPM_AUTH* ownerAuth, UINT32* retDataSize,
                                                        BYTE** retData);

// TPM_Delegate_CreateKeyDelegation (0xD4) for the key hKey: publicInfo (one TPM_DELEGATE_PUBLIC)
// and the delegation's secret encrypted by ADIP, under the key's OSAP or DSAP session (required).
// The TPM_DELEGATE_KEY_BLOB goes to (*blobSize, *blob).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_CreateKeyDelegation_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey, UINT32 publicInfoSize, const BYTE* publicInfo,
    const TPM_ENCAUTH& encDelAuth, TPM_AUTH* keyAuth, UINT32* blobSize, BYTE** blob);

// TPM_Delegate_CreateOwnerDelegation (0xD5): as for a key, under the owner's OSAP session
// (required); `increment` first opens a new verification count in the family. The
// TPM_DELEGATE_OWNER_BLOB goes to (*blobSize, *blob).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_CreateOwnerDelegation_Internal(
    TCS_CONTEXT_HANDLE hContext, TSS_BOOL increment, UINT32 publicInfoSize, const BYTE* publicInfo,
    const TPM_ENCAUTH& encDelAuth, TPM_AUTH* ownerAuth, UINT32* blobSize, BYTE** blob);

// TPM_Delegate_LoadOwnerDelegation (0xD8): the owner blob into row `index` of the delegate table;
// the owner's session optional (a TPM without owner takes none).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_LoadOwnerDelegation_Internal(TCS_CONTEXT_HANDLE hContext,
                                                                     TPM_DELEGATE_INDEX index,
                                                                     UINT32 blobSize,
                                                                     const BYTE* blob,
                                                                     TPM_AUTH* ownerAuth);

// TPM_Delegate_UpdateVerification (0xD1): `input` is a delegate blob or a 4-byte row index; the
// owner's session required. The updated blob (nothing for a row) goes to (*outputSize, *output).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_UpdateVerificationCount_Internal(
    TCS_CONTEXT_HANDLE hContext, UINT32 inputSize, const BYTE* input, TPM_AUTH* ownerAuth,
    UINT32* outputSize, BYTE** output);

// TPM_Delegate_VerifyDelegation (0xD6): whether the delegate blob is still valid (the TPM's
// answer is the result).
[[nodiscard]] TSS_RESULT Tcsip_Delegate_VerifyDelegation_Internal(TCS_CONTEXT_HANDLE hContext,
                                                                  UINT32 delegateSize,
                                                                  const BYTE* delegate);

// TPM_Delegate_ReadTable (0xDB): the family table and the delegate table's public parts, each as
// the TPM lists them, to (*pulFamilyTableSize, *ppFamilyTable) and
// (*pulDelegateTableSize, *ppDelegateTable); both or neither.
[[nodiscard]] TSS_RESULT Tcsip_Delegate_ReadTable_Internal(TCS_CONTEXT_HANDLE hContext,
                                                           UINT32* pulFamilyTableSize,
                                                           BYTE** ppFamilyTable,
                                                           UINT32* pulDelegateTableSize,
                                                           BYTE** ppDelegateTable);

}  // namespace kesttcs
