#include "commands/tcsip_keys.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Header, parentHandle, the two secrets, the session trailer.
constexpr UINT32 kCreateWrapKeyFixedBytes =
    kTpmHeaderSize + 4 + 2 * sizeof(TPM_ENCAUTH) + kAuthRequestTrailerSize;

}  // namespace

TSS_RESULT Tcsip_CreateWrapKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hWrappingKey,
                                        const TPM_ENCAUTH& KeyUsageAuth,
                                        const TPM_ENCAUTH& KeyMigrationAuth, UINT32 keyInfoSize,
                                        const BYTE* keyInfo, TPM_AUTH* pAuth, UINT32* keyDataSize,
                                        BYTE** keyData) {
  if (keyDataSize == nullptr || keyData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CreateWrapKey);
  if (TSS_RESULT rc = command.Check(kCreateWrapKeyFixedBytes, keyInfoSize, keyInfo)) return rc;
  const std::span<const BYTE> info(keyInfo, keyInfoSize);
  if (pAuth == nullptr || !HoldsExactlyOne<TPM_KEY>(info)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hWrappingKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, KeyUsageAuth, KeyMigrationAuth, info)) return rc;
  return command.UnloadStructure<TPM_KEY>(keyDataSize, keyData);
}

TSS_RESULT Tcsip_GetPubKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey,
                                    TPM_AUTH* pAuth, UINT32* pcPubKeySize, BYTE** prgbPubKey) {
  if (pcPubKeySize == nullptr || prgbPubKey == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_GetPubKey);
  if (TSS_RESULT rc = command.Check()) return rc;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot)) return rc;
  return command.UnloadStructure<TPM_PUBKEY>(pcPubKeySize, prgbPubKey);
}

}  // namespace kesttcs
