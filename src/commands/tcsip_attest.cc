#include "commands/tcsip_attest.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "commands/command_parts.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

constexpr UINT32 kHandleBytes = 4;
constexpr UINT32 kSizeBytes = 4;
constexpr UINT32 kNonceBytes = sizeof(TPM_NONCE);
// Header, keyHandle, a size and the session trailer (Sign).
constexpr UINT32 kSignFixedBytes =
    kTpmHeaderSize + kHandleBytes + kSizeBytes + kAuthRequestTrailerSize;
// Header, keyHandle, the nonce, addVersion and the session trailer (Quote, Quote2).
constexpr UINT32 kQuoteFixedBytes =
    kTpmHeaderSize + kHandleBytes + kNonceBytes + 1 + kAuthRequestTrailerSize;
// Header, keyHandle, the nonce, capArea, subCapSize and the session trailer.
constexpr UINT32 kCapabilitySignedFixedBytes =
    kTpmHeaderSize + kHandleBytes + kNonceBytes + 4 + kSizeBytes + kAuthRequestTrailerSize;

// The steps before a command that uses one key: the context and the size bound, the caller's
// session, the key made resident (its slot to *slot, sent as the first parameter).
TSS_RESULT PrepareKeyed(TpmCommand& command, UINT32 fixedBytes, UINT32 inSize, const void* inData,
                        TPM_AUTH* auth, TCS_KEY_HANDLE key, TPM_KEY_HANDLE* slot) {
  if (TSS_RESULT rc = command.Check(fixedBytes, inSize, inData)) return rc;
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  if (TSS_RESULT rc = command.UseKey(key, slot)) return rc;
  return *slot == kNoKeySlot ? TCS_E_FAIL : TSS_SUCCESS;
}

// The steps before a command that uses two keys, `first` sent as the first parameter and `second`
// as the next; the sessions in the order of their trailers.
TSS_RESULT PrepareTwoKeys(TpmCommand& command, TPM_AUTH* firstAuth, TPM_AUTH* secondAuth,
                          TCS_KEY_HANDLE first, TPM_KEY_HANDLE* firstSlot, TCS_KEY_HANDLE second,
                          TPM_KEY_HANDLE* secondSlot) {
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.UseSessions(firstAuth, secondAuth)) return rc;
  if (TSS_RESULT rc = command.UseKey(first, firstSlot, 0)) return rc;
  if (TSS_RESULT rc = command.UseKey(second, secondSlot, kHandleBytes)) return rc;
  return *firstSlot == kNoKeySlot || *secondSlot == kNoKeySlot ? TCS_E_FAIL : TSS_SUCCESS;
}

// PrepareKeyed for a quote, whose PCR selection must be exactly one TPM_PCR_SELECTION.
TSS_RESULT PrepareQuote(TpmCommand& command, std::span<const BYTE> selection, TPM_AUTH* auth,
                        TCS_KEY_HANDLE key, TPM_KEY_HANDLE* slot) {
  if (TSS_RESULT rc = PrepareKeyed(command, kQuoteFixedBytes, UINT32(selection.size()),
                                   selection.data(), auth, key, slot)) {
    return rc;
  }
  return HoldsExactlyOne<TPM_PCR_SELECTION>(selection) ? TSS_SUCCESS : TCS_E_BAD_PARAMETER;
}

// The answer of TPM_CertifyKey: the certify info, then the signature.
TSS_RESULT HandOutCertifyInfo(TCS_CONTEXT_HANDLE hContext, TpmCommand& command, UINT32* infoSize,
                              BYTE** info, UINT32* sigSize, BYTE** sig) {
  std::span<const BYTE> infoBytes, sigBytes;
  if (TSS_RESULT rc = command.TakeStructure<TPM_CERTIFY_INFO>(&infoBytes)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &sigBytes)) return rc;
  return HandOutAll(hContext, {{infoBytes, infoSize, info}, {sigBytes, sigSize, sig}});
}

}  // namespace

TSS_RESULT Tcsip_Sign_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                               UINT32 areaToSignSize, const BYTE* areaToSign, TPM_AUTH* privAuth,
                               UINT32* sigSize, BYTE** sig) {
  if (sigSize == nullptr || sig == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_Sign);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  if (TSS_RESULT rc = PrepareKeyed(command, kSignFixedBytes, areaToSignSize, areaToSign, privAuth,
                                   keyHandle, &slot)) {
    return rc;
  }
  if (TSS_RESULT rc =
          command.RunAuthorised(slot, areaToSignSize, std::span(areaToSign, areaToSignSize))) {
    return rc;
  }
  return command.UnloadSized(sigSize, sig);
}

TSS_RESULT Tcsip_Quote_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                const TPM_NONCE& antiReplay, UINT32 pcrTargetSize,
                                const BYTE* pcrTarget, TPM_AUTH* privAuth, UINT32* pcrDataSize,
                                BYTE** pcrData, UINT32* sigSize, BYTE** sig) {
  if (pcrDataSize == nullptr || pcrData == nullptr || sigSize == nullptr || sig == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_Quote);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  const std::span<const BYTE> selection(pcrTarget, pcrTargetSize);
  if (TSS_RESULT rc = PrepareQuote(command, selection, privAuth, keyHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay, selection)) return rc;
  std::span<const BYTE> composite, signature;
  if (TSS_RESULT rc = command.TakeStructure<TPM_PCR_COMPOSITE>(&composite)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &signature)) return rc;
  return HandOutAll(hContext, {{composite, pcrDataSize, pcrData}, {signature, sigSize, sig}});
}

TSS_RESULT Tcsip_Quote2_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                 const TPM_NONCE& antiReplay, UINT32 pcrTargetSize,
                                 const BYTE* pcrTarget, TSS_BOOL addVersion, TPM_AUTH* privAuth,
                                 UINT32* pcrDataSize, BYTE** pcrData, UINT32* versionInfoSize,
                                 BYTE** versionInfo, UINT32* sigSize, BYTE** sig) {
  if (pcrDataSize == nullptr || pcrData == nullptr || versionInfoSize == nullptr ||
      versionInfo == nullptr || sigSize == nullptr || sig == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_Quote2);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  const std::span<const BYTE> selection(pcrTarget, pcrTargetSize);
  if (TSS_RESULT rc = PrepareQuote(command, selection, privAuth, keyHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay, selection, BYTE{addVersion})) {
    return rc;
  }
  std::span<const BYTE> info, version, signature;
  if (TSS_RESULT rc = command.TakeStructure<TPM_PCR_INFO_SHORT>(&info)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &version)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &signature)) return rc;
  if (!addVersion) version = {};
  return HandOutAll(hContext, {{info, pcrDataSize, pcrData},
                               {version, versionInfoSize, versionInfo},
                               {signature, sigSize, sig}});
}

TSS_RESULT Tcsip_CertifyKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE certHandle,
                                     TCS_KEY_HANDLE keyHandle, const TPM_NONCE& antiReplay,
                                     TPM_AUTH* certAuth, TPM_AUTH* keyAuth, UINT32* CertifyInfoSize,
                                     BYTE** CertifyInfo, UINT32* outDataSize, BYTE** outData) {
  if (CertifyInfoSize == nullptr || CertifyInfo == nullptr || outDataSize == nullptr ||
      outData == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CertifyKey);
  TPM_KEY_HANDLE certSlot = kNoKeySlot, keySlot = kNoKeySlot;
  if (TSS_RESULT rc =
          PrepareTwoKeys(command, certAuth, keyAuth, certHandle, &certSlot, keyHandle, &keySlot)) {
    return rc;
  }
  if (TSS_RESULT rc = command.RunAuthorised(certSlot, keySlot, antiReplay)) return rc;
  return HandOutCertifyInfo(hContext, command, CertifyInfoSize, CertifyInfo, outDataSize, outData);
}

TSS_RESULT Tcsip_CertifyKey2_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                      TCS_KEY_HANDLE certHandle, const TPM_DIGEST& MSAdigest,
                                      const TPM_NONCE& antiReplay, TPM_AUTH* pKeyAuth,
                                      TPM_AUTH* pCertAuth, UINT32* pCertifyInfoSize,
                                      BYTE** ppCertifyInfo, UINT32* pSigSize, BYTE** ppSig) {
  if (pCertifyInfoSize == nullptr || ppCertifyInfo == nullptr || pSigSize == nullptr ||
      ppSig == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CertifyKey);
  TPM_KEY_HANDLE keySlot = kNoKeySlot, certSlot = kNoKeySlot;
  if (TSS_RESULT rc = PrepareTwoKeys(command, pKeyAuth, pCertAuth, keyHandle, &keySlot, certHandle,
                                     &certSlot)) {
    return rc;
  }
  if (TSS_RESULT rc = command.RunAuthorised(keySlot, certSlot, MSAdigest, antiReplay)) return rc;
  return HandOutCertifyInfo(hContext, command, pCertifyInfoSize, ppCertifyInfo, pSigSize, ppSig);
}

TSS_RESULT Tcsip_GetCapabilitySigned_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                              const TPM_NONCE& antiReplay,
                                              TPM_CAPABILITY_AREA capArea, UINT32 subCapSize,
                                              const BYTE* subCap, TPM_AUTH* privAuth,
                                              TPM_VERSION* Version, UINT32* respSize, BYTE** resp,
                                              UINT32* sigSize, BYTE** sig) {
  if (Version == nullptr || respSize == nullptr || resp == nullptr || sigSize == nullptr ||
      sig == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_GetCapabilitySigned);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  if (TSS_RESULT rc = PrepareKeyed(command, kCapabilitySignedFixedBytes, subCapSize, subCap,
                                   privAuth, keyHandle, &slot)) {
    return rc;
  }
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay, UINT32{capArea}, subCapSize,
                                            std::span(subCap, subCapSize))) {
    return rc;
  }
  TPM_VERSION version{};
  std::span<const BYTE> answer, signature;
  if (TSS_RESULT rc = command.Unload(&version)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &answer)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &signature)) return rc;
  if (TSS_RESULT rc = HandOutAll(hContext, {{answer, respSize, resp}, {signature, sigSize, sig}})) {
    return rc;
  }
  *Version = version;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_CertifySelfTest_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                          const TPM_NONCE& antiReplay, TPM_AUTH* privAuth,
                                          UINT32* sigSize, BYTE** sig) {
  if (sigSize == nullptr || sig == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CertifySelfTest);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  if (TSS_RESULT rc =
          PrepareKeyed(command, kTpmHeaderSize, 0, nullptr, privAuth, keyHandle, &slot)) {
    return rc;
  }
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay)) return rc;
  return command.UnloadSized(sigSize, sig);
}

TSS_RESULT Tcsip_TickStampBlob_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey,
                                        const TPM_NONCE& antiReplay,
                                        const TPM_DIGEST& digestToStamp, TPM_AUTH* privAuth,
                                        UINT32* pulSignatureLength, BYTE** prgbSignature,
                                        UINT32* pulTickCountLength, BYTE** prgbTickCount) {
  if (pulSignatureLength == nullptr || prgbSignature == nullptr || pulTickCountLength == nullptr ||
      prgbTickCount == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_TickStampBlob);
  TPM_KEY_HANDLE slot = kNoKeySlot;
  if (TSS_RESULT rc = PrepareKeyed(command, kTpmHeaderSize, 0, nullptr, privAuth, hKey, &slot)) {
    return rc;
  }
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay, digestToStamp)) return rc;
  std::span<const BYTE> ticks, signature;
  if (TSS_RESULT rc = command.TakeStructure<TPM_CURRENT_TICKS>(&ticks)) return rc;
  if (TSS_RESULT rc = TakeSized(command.Outputs(), &signature)) return rc;
  return HandOutAll(hContext, {{signature, pulSignatureLength, prgbSignature},
                               {ticks, pulTickCountLength, prgbTickCount}});
}

}  // namespace kesttcs
