#include "commands/tcsip_endorsement.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// The header, antiReplay, generateReset and inputEKreset.
constexpr UINT32 kCreateRevocableEkFixedBytes =
    kTpmHeaderSize + TPM_SHA1_160_HASH_LEN + 1 + TPM_SHA1_160_HASH_LEN;

}  // namespace

TSS_RESULT Tcsip_CreateRevocableEndorsementKeyPair_Internal(
    TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay, UINT32 endorsementKeyInfoSize,
    const BYTE* endorsementKeyInfo, TSS_BOOL genResetAuth, TPM_DIGEST* eKResetAuth,
    UINT32* endorsementKeySize, BYTE** endorsementKey, TPM_DIGEST* checksum) {
  if (eKResetAuth == nullptr || endorsementKeySize == nullptr || endorsementKey == nullptr ||
      checksum == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CreateRevocableEK);
  if (TSS_RESULT rc =
          command.Check(kCreateRevocableEkFixedBytes, endorsementKeyInfoSize, endorsementKeyInfo)) {
    return rc;
  }
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, antiReplay,
                                  std::span<const BYTE>(endorsementKeyInfo, endorsementKeyInfoSize),
                                  BYTE{genResetAuth}, *eKResetAuth)) {
    return rc;
  }
  // Every output is read before any is handed out, so a short response writes nothing.
  std::span<const BYTE> pubkey;
  TPM_DIGEST digest{};
  TPM_DIGEST resetAuth{};
  if (TSS_RESULT rc = command.TakeStructure<TPM_PUBKEY>(&pubkey)) return rc;
  if (TSS_RESULT rc = command.Unload(&digest, &resetAuth)) return rc;
  if (TSS_RESULT rc = command.HandOut(pubkey, endorsementKeySize, endorsementKey)) return rc;
  *checksum = digest;
  *eKResetAuth = resetAuth;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_RevokeEndorsementKeyPair_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   const TPM_DIGEST& EKResetAuth) {
  TpmCommand command(hContext, TPM_ORD_RevokeTrust);
  if (TSS_RESULT rc = command.Check()) return rc;
  return command.Run(TPM_TAG_RQU_COMMAND, EKResetAuth);
}

}  // namespace kesttcs
