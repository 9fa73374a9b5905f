#include "commands/tcsip_delegation.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "commands/command_parts.h"
#include "commands/input_checks.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

namespace {

constexpr UINT32 kUint32Bytes = 4;
// Header, familyID, opFlag, opDataSize, the session trailer.
constexpr UINT32 kManageFixedBytes = kTpmHeaderSize + 3 * kUint32Bytes + kAuthRequestTrailerSize;
// Header, keyHandle or increment, delAuth, the session trailer.
constexpr UINT32 kCreateDelegationFixedBytes =
    kTpmHeaderSize + kUint32Bytes + sizeof(TPM_ENCAUTH) + kAuthRequestTrailerSize;
// Header, index, blobSize, the session trailer.
constexpr UINT32 kLoadOwnerDelegationFixedBytes =
    kTpmHeaderSize + 2 * kUint32Bytes + kAuthRequestTrailerSize;
// Header, inputSize, the session trailer.
constexpr UINT32 kUpdateVerificationFixedBytes =
    kTpmHeaderSize + kUint32Bytes + kAuthRequestTrailerSize;
// Header, delegateSize.
constexpr UINT32 kVerifyDelegationFixedBytes = kTpmHeaderSize + kUint32Bytes;

// The checks both kinds of delegation share: the outputs, the context, the size bound, the
// required session and exactly one TPM_DELEGATE_PUBLIC, which *pub is set to.
TSS_RESULT CheckDelegationRequest(const TpmCommand& command, UINT32 publicInfoSize,
                                  const BYTE* publicInfo, const TPM_AUTH* auth,
                                  const UINT32* blobSize, BYTE* const* blob,
                                  std::span<const BYTE>* pub) {
  if (blobSize == nullptr || blob == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.Check(kCreateDelegationFixedBytes, publicInfoSize, publicInfo)) {
    return rc;
  }
  *pub = Bytes(publicInfoSize, publicInfo);
  if (auth == nullptr || !HoldsExactlyOne<TPM_DELEGATE_PUBLIC>(*pub)) return TCS_E_BAD_PARAMETER;
  return TSS_SUCCESS;
}

}  // namespace

TSS_RESULT Tcsip_Delegate_Manage_Internal(TCS_CONTEXT_HANDLE hContext, TPM_FAMILY_ID familyID,
                                          TPM_FAMILY_OPERATION opFlag, UINT32 opDataSize,
                                          const BYTE* opData, TPM_AUTH* ownerAuth,
                                          UINT32* retDataSize, BYTE** retData) {
  if (retDataSize == nullptr || retData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_Delegate_Manage);
  if (TSS_RESULT rc = command.Check(kManageFixedBytes, opDataSize, opData)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc =
          command.RunAuthorised(familyID, opFlag, opDataSize, Bytes(opDataSize, opData))) {
    return rc;
  }
  return command.UnloadSized(retDataSize, retData);
}

TSS_RESULT Tcsip_Delegate_CreateKeyDelegation_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey, UINT32 publicInfoSize, const BYTE* publicInfo,
    const TPM_ENCAUTH& encDelAuth, TPM_AUTH* keyAuth, UINT32* blobSize, BYTE** blob) {
  TpmCommand command(hContext, TPM_ORD_Delegate_CreateKeyDelegat);
  std::span<const BYTE> pub;
  if (TSS_RESULT rc = CheckDelegationRequest(command, publicInfoSize, publicInfo, keyAuth, blobSize,
                                             blob, &pub)) {
    return rc;
  }
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(keyAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, pub, encDelAuth)) return rc;
  return command.UnloadSized(blobSize, blob);
}

TSS_RESULT Tcsip_Delegate_CreateOwnerDelegation_Internal(
    TCS_CONTEXT_HANDLE hContext, TSS_BOOL increment, UINT32 publicInfoSize, const BYTE* publicInfo,
    const TPM_ENCAUTH& encDelAuth, TPM_AUTH* ownerAuth, UINT32* blobSize, BYTE** blob) {
  TpmCommand command(hContext, TPM_ORD_Delegate_CreateOwnerDele);
  std::span<const BYTE> pub;
  if (TSS_RESULT rc = CheckDelegationRequest(command, publicInfoSize, publicInfo, ownerAuth,
                                             blobSize, blob, &pub)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(BYTE{increment}, pub, encDelAuth)) return rc;
  return command.UnloadSized(blobSize, blob);
}

TSS_RESULT Tcsip_Delegate_LoadOwnerDelegation_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TPM_DELEGATE_INDEX index, UINT32 blobSize,
                                                       const BYTE* blob, TPM_AUTH* ownerAuth) {
  TpmCommand command(hContext, TPM_ORD_Delegate_LoadOwnerDelega);
  if (TSS_RESULT rc = command.Check(kLoadOwnerDelegationFixedBytes, blobSize, blob)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  return command.RunAuthorised(index, blobSize, Bytes(blobSize, blob));
}

TSS_RESULT Tcsip_Delegate_UpdateVerificationCount_Internal(TCS_CONTEXT_HANDLE hContext,
                                                           UINT32 inputSize, const BYTE* input,
                                                           TPM_AUTH* ownerAuth, UINT32* outputSize,
                                                           BYTE** output) {
  if (outputSize == nullptr || output == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_Delegate_UpdateVerification);
  if (TSS_RESULT rc = command.Check(kUpdateVerificationFixedBytes, inputSize, input)) return rc;
  if (ownerAuth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(inputSize, Bytes(inputSize, input))) return rc;
  return command.UnloadSized(outputSize, output);
}

TSS_RESULT Tcsip_Delegate_VerifyDelegation_Internal(TCS_CONTEXT_HANDLE hContext,
                                                    UINT32 delegateSize, const BYTE* delegate) {
  TpmCommand command(hContext, TPM_ORD_Delegate_VerifyDelegation);
  if (TSS_RESULT rc = command.Check(kVerifyDelegationFixedBytes, delegateSize, delegate)) {
    return rc;
  }
  return command.Run(TPM_TAG_RQU_COMMAND, delegateSize, Bytes(delegateSize, delegate));
}

TSS_RESULT Tcsip_Delegate_ReadTable_Internal(TCS_CONTEXT_HANDLE hContext,
                                             UINT32* pulFamilyTableSize, BYTE** ppFamilyTable,
                                             UINT32* pulDelegateTableSize, BYTE** ppDelegateTable) {
  if (pulFamilyTableSize == nullptr || ppFamilyTable == nullptr ||
      pulDelegateTableSize == nullptr || ppDelegateTable == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_Delegate_ReadTable);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND)) return rc;
  return UnloadTwoSized(command.Outputs(), hContext, pulFamilyTableSize, ppFamilyTable,
                        pulDelegateTableSize, ppDelegateTable);
}

}  // namespace kesttcs
