// The TCS operations in which a TPM key signs: signing data, quoting PCR values, certifying one
// key with another, the signed capability and self-test answers, and time-stamping a digest. Each
// makes its keys resident first (a key that cannot be loaded gives TCS_E_INVALID_KEY, nothing is
// sent) and passes the caller's sessions through untouched: the client computes and checks their
// HMACs, and checks the signatures against the key's public part.
//
// Results as every TCS operation: the context's failure, TCS_E_BAD_PARAMETER for a missing output
// pointer, inputs that do not fit the 4096-byte command buffer, a malformed input structure or a
// malformed answer (nothing handed out), the request manager's failure, or the TPM's return code
// mapped as 0xE0280000 | code (a TPM 1.2 answers the removed ordinals of GetCapabilitySigned and
// CertifySelfTest with TPM_BAD_ORDINAL, passed back as it is). Outputs are written only on
// success, all of them or none, as new blocks of the context's memory.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_Sign (0x3C) of areaToSign with keyHandle, the key's session optional: the signature goes to
// (*sigSize, *sig).
[[nodiscard]] TSS_RESULT Tcsip_Sign_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                             UINT32 areaToSignSize, const BYTE* areaToSign,
                                             TPM_AUTH* privAuth, UINT32* sigSize, BYTE** sig);

// TPM_Quote (0x16) of the PCRs that pcrTarget (exactly one TPM_PCR_SELECTION) selects, with the
// caller's nonce: the TPM_PCR_COMPOSITE to (*pcrDataSize, *pcrData), the signature over the
// TPM_QUOTE_INFO to (*sigSize, *sig).
[[nodiscard]] TSS_RESULT Tcsip_Quote_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                              const TPM_NONCE& antiReplay, UINT32 pcrTargetSize,
                                              const BYTE* pcrTarget, TPM_AUTH* privAuth,
                                              UINT32* pcrDataSize, BYTE** pcrData, UINT32* sigSize,
                                              BYTE** sig);

// TPM_Quote2 (0x3E): as Tcsip_Quote, the PCR data a TPM_PCR_INFO_SHORT; with addVersion the TPM's
// TPM_CAP_VERSION_INFO to (*versionInfoSize, *versionInfo), which stays empty without it.
[[nodiscard]] TSS_RESULT Tcsip_Quote2_Internal(TCS_CONTEXT_HANDLE hContext,
                                               TCS_KEY_HANDLE keyHandle,
                                               const TPM_NONCE& antiReplay, UINT32 pcrTargetSize,
                                               const BYTE* pcrTarget, TSS_BOOL addVersion,
                                               TPM_AUTH* privAuth, UINT32* pcrDataSize,
                                               BYTE** pcrData, UINT32* versionInfoSize,
                                               BYTE** versionInfo, UINT32* sigSize, BYTE** sig);

// TPM_CertifyKey (0x32): certHandle signs keyHandle's TPM_CERTIFY_INFO (to (*CertifyInfoSize,
// *CertifyInfo)), the signature to (*outDataSize, *outData). Each key's session optional, the
// certifying key's first.
[[nodiscard]] TSS_RESULT Tcsip_CertifyKey_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE certHandle, TCS_KEY_HANDLE keyHandle,
    const TPM_NONCE& antiReplay, TPM_AUTH* certAuth, TPM_AUTH* keyAuth, UINT32* CertifyInfoSize,
    BYTE** CertifyInfo, UINT32* outDataSize, BYTE** outData);

// Sent with the ordinal of TPM_CertifyKey (0x32), by design, but with the parameters of
// TPM_CertifyKey2: the certified key's slot, the certifying key's slot, MSAdigest, the nonce, then
// the certified key's session and the certifying key's (each optional). The TPM_CERTIFY_INFO to
// (*pCertifyInfoSize, *ppCertifyInfo), the signature to (*pSigSize, *ppSig).
[[nodiscard]] TSS_RESULT Tcsip_CertifyKey2_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle, TCS_KEY_HANDLE certHandle,
    const TPM_DIGEST& MSAdigest, const TPM_NONCE& antiReplay, TPM_AUTH* pKeyAuth,
    TPM_AUTH* pCertAuth, UINT32* pCertifyInfoSize, BYTE** ppCertifyInfo, UINT32* pSigSize,
    BYTE** ppSig);

// TPM_GetCapabilitySigned (0x64): the capability answer signed with keyHandle. The TPM's version
// to *Version, the answer to (*respSize, *resp), the signature to (*sigSize, *sig).
[[nodiscard]] TSS_RESULT Tcsip_GetCapabilitySigned_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle, const TPM_NONCE& antiReplay,
    TPM_CAPABILITY_AREA capArea, UINT32 subCapSize, const BYTE* subCap, TPM_AUTH* privAuth,
    TPM_VERSION* Version, UINT32* respSize, BYTE** resp, UINT32* sigSize, BYTE** sig);

// TPM_CertifySelfTest (0x52): the self-test result signed with keyHandle, to (*sigSize, *sig).
[[nodiscard]] TSS_RESULT Tcsip_CertifySelfTest_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TCS_KEY_HANDLE keyHandle,
                                                        const TPM_NONCE& antiReplay,
                                                        TPM_AUTH* privAuth, UINT32* sigSize,
                                                        BYTE** sig);

// TPM_TickStampBlob (0xF2): digestToStamp signed with hKey together with the TPM's ticks. The
// outputs in this order, not the TPM's: the signature to (*pulSignatureLength, *prgbSignature),
// then the TPM_CURRENT_TICKS to (*pulTickCountLength, *prgbTickCount).
[[nodiscard]] TSS_RESULT Tcsip_TickStampBlob_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey, const TPM_NONCE& antiReplay,
    const TPM_DIGEST& digestToStamp, TPM_AUTH* privAuth, UINT32* pulSignatureLength,
    BYTE** prgbSignature, UINT32* pulTickCountLength, BYTE** prgbTickCount);

}  // namespace kesttcs
