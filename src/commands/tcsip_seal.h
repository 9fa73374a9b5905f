// The TCS operations that protect data with a TPM storage or binding key: sealing data to a key
// (and optionally to PCR values), unsealing it, and unbinding data encrypted to a bind key. Each
// makes its key resident first (a key that cannot be loaded gives TCS_E_INVALID_KEY, nothing is
// sent) and passes the caller's sessions through untouched: the client computes and checks their
// HMACs.
//
// Results as every TCS operation: the context's failure, TCS_E_BAD_PARAMETER for a missing output
// pointer, inputs that do not fit the 4096-byte command buffer or a malformed answer (nothing
// handed out), the request manager's failure, or the TPM's return code mapped as
// 0xE0280000 | code. Outputs are written only on success, as new blocks of the context's memory.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_Seal (0x17) under keyHandle: the data secret encrypted by ADIP (encAuth), the PCR info the
// data is bound to (may be empty), the data; the key's OSAP session (null: sent without, which the
// TPM refuses). The TPM_STORED_DATA bytes go to (*SealedDataSize, *SealedData).
[[nodiscard]] TSS_RESULT Tcsip_Seal_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                             const TPM_ENCAUTH& encAuth, UINT32 pcrInfoSize,
                                             const BYTE* PcrInfo, UINT32 inDataSize,
                                             const BYTE* inData, TPM_AUTH* pubAuth,
                                             UINT32* SealedDataSize, BYTE** SealedData);

// TPM_Sealx (0x3D): as Tcsip_Seal, the PCR info a TPM_PCR_INFO_LONG.
[[nodiscard]] TSS_RESULT Tcsip_Sealx_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                              const TPM_ENCAUTH& encAuth, UINT32 pcrInfoSize,
                                              const BYTE* PcrInfo, UINT32 inDataSize,
                                              const BYTE* inData, TPM_AUTH* pubAuth,
                                              UINT32* SealedDataSize, BYTE** SealedData);

// TPM_Unseal (0x18) of SealedData (exactly one TPM_STORED_DATA, else TCS_E_BAD_PARAMETER) under
// parentHandle. Zero, one or two sessions: the parent key's (null for a key that needs none),
// then the data's. The unsealed secret goes to (*DataSize, *Data).
[[nodiscard]] TSS_RESULT Tcsip_UnSeal_Internal(TCS_CONTEXT_HANDLE hContext,
                                               TCS_KEY_HANDLE parentHandle, UINT32 SealedDataSize,
                                               const BYTE* SealedData, TPM_AUTH* parentAuth,
                                               TPM_AUTH* dataAuth, UINT32* DataSize, BYTE** Data);

// TPM_UnBind (0x1E) of inData with keyHandle, the key's session optional: the decrypted data goes
// to (*outDataSize, *outData). A key that cannot be loaded is logged
// ("Tcsip_UnBind_Internal:ensureKeyIsLoaded:...").
[[nodiscard]] TSS_RESULT Tcsip_Unbind_Internal(TCS_CONTEXT_HANDLE hContext,
                                               TCS_KEY_HANDLE keyHandle, UINT32 inDataSize,
                                               const BYTE* inData, TPM_AUTH* privAuth,
                                               UINT32* outDataSize, BYTE** outData);

}  // namespace kesttcs
