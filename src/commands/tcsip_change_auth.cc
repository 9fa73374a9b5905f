#include "commands/tcsip_change_auth.h"

#include <optional>
#include <span>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "commands/command_exchange.h"
#include "keys/mem_cache.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

constexpr UINT32 kHandleBytes = 4;
// The low byte of an entity type names the entity; the high byte the secret's encryption scheme.
constexpr TPM_ENTITY_TYPE kEntityMask = 0x00FF;

// Header, parentHandle, protocolID, newAuth, entityType, encDataSize, two trailers.
constexpr UINT32 kChangeAuthFixedBytes =
    kTpmHeaderSize + kHandleBytes + 2 + sizeof(TPM_ENCAUTH) + 2 + 4 + 2 * kAuthRequestTrailerSize;
// Header, idHandle, antiReplay, the trailer.
constexpr UINT32 kAsymStartFixedBytes =
    kTpmHeaderSize + kHandleBytes + sizeof(TPM_NONCE) + kAuthRequestTrailerSize;
// Header, parentHandle, ephHandle, entityType, newAuthLink, the two sizes, the trailer.
constexpr UINT32 kAsymFinishFixedBytes =
    kTpmHeaderSize + 2 * kHandleBytes + 2 + sizeof(TPM_HMAC) + 2 * 4 + kAuthRequestTrailerSize;

// A key's secret changed from the encData `oldEncData` to `newEncData`: the key cache's copy, and
// the stored blob of a registered key, follow. The TPM has made the change, so a failure here is
// traced and does not fail the operation: the caller holds the new encData.
void FollowChangedKey(TPM_ENTITY_TYPE entityType, std::span<const BYTE> oldEncData,
                      std::span<const BYTE> newEncData) {
  if ((entityType & kEntityMask) != TPM_ET_KEY) return;
  TSS_RESULT result = TSS_SUCCESS;
  if (const std::optional<TSS_UUID> uuid = getUuidByEncData(oldEncData)) {
    result = updateRegisteredEncData(*uuid, oldEncData, newEncData);
  } else if (getHandleByEncData(oldEncData) != 0) {
    result = replaceEncData(oldEncData, newEncData);
  }
  if (result != TSS_SUCCESS)
    TcsTrace("ChangeAuth: the changed key's copies stay as they were", &result);
}

// Reads the new encData (a size, then the bytes) of a changed entity.
TSS_RESULT TakeSized(TpmCommand& command, std::span<const BYTE>* bytes) {
  UINT32 size = 0;
  if (TSS_RESULT rc = command.Unload(&size)) return rc;
  return command.Outputs().Take(size, *bytes);
}

}  // namespace

TSS_RESULT Tcsip_ChangeAuth_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle,
                                     TPM_PROTOCOL_ID protocolID, const TPM_ENCAUTH& newAuth,
                                     TPM_ENTITY_TYPE entityType, UINT32 encDataSize,
                                     const BYTE* encData, TPM_AUTH* ownerAuth, TPM_AUTH* entityAuth,
                                     UINT32* outDataSize, BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_ChangeAuth);
  if (TSS_RESULT rc = command.Check(kChangeAuthFixedBytes, encDataSize, encData)) return rc;
  if (ownerAuth == nullptr || entityAuth == nullptr) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth, entityAuth)) return rc;
  const std::span<const BYTE> oldEncData(encData, encDataSize);
  if (TSS_RESULT rc = command.RunAuthorised(slot, UINT16{protocolID}, newAuth, UINT16{entityType},
                                            encDataSize, oldEncData)) {
    return rc;
  }
  std::span<const BYTE> newEncData;
  if (TSS_RESULT rc = TakeSized(command, &newEncData)) return rc;
  FollowChangedKey(entityType, oldEncData, newEncData);
  return command.HandOut(newEncData, outDataSize, outData);
}

TSS_RESULT Tcsip_ChangeAuthAsymStart_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE idHandle,
                                              const TPM_NONCE& antiReplay, UINT32 KeySizeIn,
                                              const BYTE* KeyDataIn, TPM_AUTH* pAuth,
                                              UINT32* KeySizeOut, BYTE** KeyDataOut,
                                              UINT32* CertifyInfoSize, BYTE** CertifyInfo,
                                              UINT32* sigSize, BYTE** sig,
                                              TCS_KEY_HANDLE* ephHandle) {
  if (KeySizeOut == nullptr || KeyDataOut == nullptr || CertifyInfoSize == nullptr ||
      CertifyInfo == nullptr || sigSize == nullptr || sig == nullptr || ephHandle == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_ChangeAuthAsymStart);
  if (TSS_RESULT rc = command.Check(kAsymStartFixedBytes, KeySizeIn, KeyDataIn)) return rc;
  const std::span<const BYTE> tempKey(KeyDataIn, KeySizeIn);
  if (!HoldsExactlyOne<TPM_KEY_PARMS>(tempKey)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(idHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, antiReplay, tempKey)) return rc;
  std::span<const BYTE> certifyInfo;
  std::span<const BYTE> signature;
  if (TSS_RESULT rc = command.TakeStructure<TPM_CERTIFY_INFO>(&certifyInfo)) return rc;
  if (TSS_RESULT rc = TakeSized(command, &signature)) return rc;
  TPM_KEY_HANDLE ephemeral = kNoTpmHandle;
  if (TSS_RESULT rc = command.Unload(&ephemeral)) return rc;
  if (TSS_RESULT rc = command.UnloadStructure<TPM_KEY>(KeySizeOut, KeyDataOut)) return rc;
  if (TSS_RESULT rc = command.HandOut(certifyInfo, CertifyInfoSize, CertifyInfo)) return rc;
  if (TSS_RESULT rc = command.HandOut(signature, sigSize, sig)) return rc;
  *ephHandle = ephemeral;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_ChangeAuthAsymFinish_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TCS_KEY_HANDLE ephHandle,
    TPM_ENTITY_TYPE entityType, const TPM_HMAC& newAuthLink, UINT32 newAuthSize,
    const BYTE* encNewAuth, UINT32 encDataSizeIn, const BYTE* encDataIn, TPM_AUTH* ownerAuth,
    UINT32* encDataSizeOut, BYTE** encDataOut, TPM_NONCE* saltNonce, TPM_DIGEST* changeProof) {
  if (encDataSizeOut == nullptr || encDataOut == nullptr || saltNonce == nullptr ||
      changeProof == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_ChangeAuthAsymFinish);
  if (TSS_RESULT rc = command.Check(kAsymFinishFixedBytes, newAuthSize, encNewAuth)) return rc;
  if (encDataSizeIn != 0 && encDataIn == nullptr) return TCS_E_BAD_PARAMETER;
  if (!FitsCommandBuffer(UINT64{newAuthSize} + encDataSizeIn, kAsymFinishFixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  const std::span<const BYTE> oldEncData(encDataIn, encDataSizeIn);
  if (TSS_RESULT rc = command.RunAuthorised(
          slot, UINT32{ephHandle}, UINT16{entityType}, newAuthLink, newAuthSize,
          std::span(encNewAuth, newAuthSize), encDataSizeIn, oldEncData)) {
    return rc;
  }
  std::span<const BYTE> newEncData;
  if (TSS_RESULT rc = TakeSized(command, &newEncData)) return rc;
  if (TSS_RESULT rc = command.Unload(saltNonce, changeProof)) return rc;
  FollowChangedKey(entityType, oldEncData, newEncData);
  return command.HandOut(newEncData, encDataSizeOut, encDataOut);
}

}  // namespace kesttcs
