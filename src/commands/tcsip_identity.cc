#include "commands/tcsip_identity.h"

#include <span>
#include <tuple>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "storage/identity_credentials.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

constexpr UINT32 kHandleBytes = 4;
// Header, identityAuth, labelPrivCADigest, two trailers.
constexpr UINT32 kMakeIdentityFixedBytes =
    kTpmHeaderSize + sizeof(TPM_ENCAUTH) + sizeof(TPM_CHOSENID_HASH) + 2 * kAuthRequestTrailerSize;
// Header, idKeyHandle, blobSize, two trailers.
constexpr UINT32 kActivateIdentityFixedBytes =
    kTpmHeaderSize + kHandleBytes + 4 + 2 * kAuthRequestTrailerSize;

}  // namespace

TSS_RESULT Tcsip_MakeIdentity_Internal(
    TCS_CONTEXT_HANDLE hContext, const TPM_ENCAUTH& identityAuth,
    const TPM_CHOSENID_HASH& IDLabel_PrivCAHash, UINT32 idIdentityKeyInfoSize,
    const BYTE* idIdentityKeyInfo, TPM_AUTH* pSrkAuth, TPM_AUTH* pOwnerAuth,
    UINT32* idIdentityKeySize, BYTE** idIdentityKey, UINT32* pcIdentityBindingSize,
    BYTE** prgbIdentityBinding, UINT32* pcEndorsementCredentialSize,
    BYTE** prgbEndorsementCredential, UINT32* pcPlatformCredentialSize,
    BYTE** prgbPlatformCredential, UINT32* pcConformanceCredentialSize,
    BYTE** prgbConformanceCredential) {
  if (idIdentityKeySize == nullptr || idIdentityKey == nullptr ||
      pcIdentityBindingSize == nullptr || prgbIdentityBinding == nullptr ||
      pcEndorsementCredentialSize == nullptr || prgbEndorsementCredential == nullptr ||
      pcPlatformCredentialSize == nullptr || prgbPlatformCredential == nullptr ||
      pcConformanceCredentialSize == nullptr || prgbConformanceCredential == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_MakeIdentity);
  if (TSS_RESULT rc =
          command.Check(kMakeIdentityFixedBytes, idIdentityKeyInfoSize, idIdentityKeyInfo)) {
    return rc;
  }
  const std::span<const BYTE> keyInfo(idIdentityKeyInfo, idIdentityKeyInfoSize);
  if (pOwnerAuth == nullptr || !HoldsExactlyOne<TPM_KEY>(keyInfo)) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(pSrkAuth, pOwnerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(identityAuth, IDLabel_PrivCAHash, keyInfo)) return rc;
  if (TSS_RESULT rc = command.UnloadStructure<TPM_KEY>(idIdentityKeySize, idIdentityKey)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UnloadSized(pcIdentityBindingSize, prgbIdentityBinding)) return rc;

  IdentityCredentials credentials;
  const TSS_RESULT result = ReadIdentityCredentials(&credentials);
  for (auto [bytes, size, data] : {
           std::tuple{&credentials.endorsement, pcEndorsementCredentialSize,
                      prgbEndorsementCredential},
           std::tuple{&credentials.platform, pcPlatformCredentialSize, prgbPlatformCredential},
           std::tuple{&credentials.conformance, pcConformanceCredentialSize,
                      prgbConformanceCredential},
       }) {
    *size = 0;
    *data = nullptr;
    if (TSS_RESULT rc = command.HandOut(*bytes, size, data)) return rc;
  }
  return result;
}

TSS_RESULT Tcsip_ActivateTPMIdentity_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE idKey,
                                              UINT32 blobSize, const BYTE* blob,
                                              TPM_AUTH* idKeyAuth, TPM_AUTH* ownerAuth,
                                              UINT32* SymmetricKeySize, BYTE** SymmetricKey) {
  if (SymmetricKeySize == nullptr || SymmetricKey == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_ActivateIdentity);
  if (TSS_RESULT rc = command.Check(kActivateIdentityFixedBytes, blobSize, blob)) return rc;
  if (ownerAuth == nullptr) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(idKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(idKeyAuth, ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, blobSize, std::span(blob, blobSize))) return rc;
  return command.UnloadStructure<TPM_SYMMETRIC_KEY>(SymmetricKeySize, SymmetricKey);
}

}  // namespace kesttcs
