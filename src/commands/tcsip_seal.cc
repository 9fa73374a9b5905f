#include "commands/tcsip_seal.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "commands/command_exchange.h"
#include "commands/command_parts.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Header, keyHandle, encAuth, the two sizes and the session trailer, with room to spare.
constexpr UINT32 kSealFixedBytes = 110;
// Header, parentHandle, two session trailers.
constexpr UINT32 kUnSealFixedBytes = kTpmHeaderSize + 4 + 2 * kAuthRequestTrailerSize;
// Header, keyHandle, inDataSize, the session trailer.
constexpr UINT32 kUnbindFixedBytes = kTpmHeaderSize + 4 + 4 + kAuthRequestTrailerSize;

TSS_RESULT SealWith(TPM_COMMAND_CODE ordinal, TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                    const TPM_ENCAUTH& encAuth, UINT32 pcrInfoSize, const BYTE* pcrInfo,
                    UINT32 inDataSize, const BYTE* inData, TPM_AUTH* pubAuth,
                    UINT32* sealedDataSize, BYTE** sealedData) {
  if (sealedDataSize == nullptr || sealedData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check(kSealFixedBytes, inDataSize, inData)) return rc;
  if ((pcrInfoSize != 0 && pcrInfo == nullptr) ||
      !FitsCommandBuffer(UINT64{pcrInfoSize} + inDataSize, kSealFixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = command.UseSessions(pubAuth)) return rc;
  TPM_KEY_HANDLE keySlot = kNoKeySlot;
  if (TSS_RESULT rc = command.UseKey(keyHandle, &keySlot)) return rc;
  if (keySlot == kNoKeySlot) return TCS_E_FAIL;
  if (TSS_RESULT rc =
          command.RunAuthorised(keySlot, encAuth, pcrInfoSize, std::span(pcrInfo, pcrInfoSize),
                                inDataSize, std::span(inData, inDataSize))) {
    return rc;
  }
  return command.UnloadStructure<TPM_STORED_DATA>(sealedDataSize, sealedData);
}

}  // namespace

TSS_RESULT Tcsip_Seal_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                               const TPM_ENCAUTH& encAuth, UINT32 pcrInfoSize, const BYTE* PcrInfo,
                               UINT32 inDataSize, const BYTE* inData, TPM_AUTH* pubAuth,
                               UINT32* SealedDataSize, BYTE** SealedData) {
  return SealWith(TPM_ORD_Seal, hContext, keyHandle, encAuth, pcrInfoSize, PcrInfo, inDataSize,
                  inData, pubAuth, SealedDataSize, SealedData);
}

TSS_RESULT Tcsip_Sealx_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                const TPM_ENCAUTH& encAuth, UINT32 pcrInfoSize, const BYTE* PcrInfo,
                                UINT32 inDataSize, const BYTE* inData, TPM_AUTH* pubAuth,
                                UINT32* SealedDataSize, BYTE** SealedData) {
  return SealWith(TPM_ORD_Sealx, hContext, keyHandle, encAuth, pcrInfoSize, PcrInfo, inDataSize,
                  inData, pubAuth, SealedDataSize, SealedData);
}

TSS_RESULT Tcsip_UnSeal_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle,
                                 UINT32 SealedDataSize, const BYTE* SealedData,
                                 TPM_AUTH* parentAuth, TPM_AUTH* dataAuth, UINT32* DataSize,
                                 BYTE** Data) {
  if (DataSize == nullptr || Data == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_Unseal);
  if (TSS_RESULT rc = command.Check(kUnSealFixedBytes, SealedDataSize, SealedData)) return rc;
  // The TPM reads the stored data as a structure, with no size in front of it.
  const std::span<const BYTE> sealed(SealedData, SealedDataSize);
  if (!HoldsExactlyOne<TPM_STORED_DATA>(sealed)) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(parentAuth, dataAuth)) return rc;
  TPM_KEY_HANDLE parentSlot = kNoKeySlot;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &parentSlot)) return rc;
  if (parentSlot == kNoKeySlot) return TCS_E_FAIL;
  if (TSS_RESULT rc = command.RunAuthorised(parentSlot, sealed)) return rc;
  return command.UnloadSized(DataSize, Data);
}

TSS_RESULT Tcsip_Unbind_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                 UINT32 inDataSize, const BYTE* inData, TPM_AUTH* privAuth,
                                 UINT32* outDataSize, BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_UnBind);
  if (TSS_RESULT rc = command.Check(kUnbindFixedBytes, inDataSize, inData)) return rc;
  if (TSS_RESULT rc = command.UseSessions(privAuth)) return rc;
  TPM_KEY_HANDLE keySlot = kNoKeySlot;
  if (TSS_RESULT rc = command.UseKey(keyHandle, &keySlot)) {
    TcsTracef("Tcsip_UnBind_Internal:ensureKeyIsLoaded:result=0x%.8X,keyHandle=0x%.8X,keySlot=0",
              rc, keyHandle);
    return rc;
  }
  if (keySlot == kNoKeySlot) return TCS_E_FAIL;
  if (TSS_RESULT rc = command.RunAuthorised(keySlot, inDataSize, std::span(inData, inDataSize))) {
    return rc;
  }
  return command.UnloadSized(outDataSize, outData);
}

}  // namespace kesttcs
