#include "commands/tcsip_key_control.h"

#include <optional>
#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "keys/mem_cache.h"
#include "keys/owner_ctrl_keys.h"
#include "storage/owner_held_keys.h"
#include "storage/ps_format.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

// Header, keyHandle, bitName, bitValue, the session trailer.
constexpr UINT32 kKeyControlOwnerFixedBytes = kTpmHeaderSize + 4 + 4 + 1 + kAuthRequestTrailerSize;

bool IsOnePubKey(std::span<const BYTE> bytes) {
  TPM_PUBKEY pub;
  BlobReader reader(bytes);
  return UnloadBlob(reader, &pub) == TSS_SUCCESS && reader.remaining() == 0;
}

TSS_UUID ListedUuidOf(TPM_KEY_HANDLE slot) {
  for (const OwnerHeldKey& key : owner_keys_list()) {
    if (key.tpmHandle == slot) return key.uuid;
  }
  return kNullUuid;
}

}  // namespace

TSS_RESULT Tcsip_KeyControlOwner_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hTcsKey,
                                          UINT32 ulPubKeyLength, const BYTE* rgbPubKey,
                                          UINT32 attribName, TSS_BOOL attribValue,
                                          TPM_AUTH* pOwnerAuth, TSS_UUID* pUuidData) {
  if (pUuidData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_KeyControlOwner);
  if (TSS_RESULT rc = command.Check(kKeyControlOwnerFixedBytes, ulPubKeyLength, rgbPubKey)) {
    return rc;
  }
  const std::span<const BYTE> pubKey(rgbPubKey, ulPubKeyLength);
  if (pOwnerAuth == nullptr || !IsOnePubKey(pubKey)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hTcsKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pOwnerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, pubKey, attribName, BYTE{attribValue})) {
    return rc;
  }
  *pUuidData = kNullUuid;
  if (attribName != TPM_KEY_CONTROL_OWNER_EVICT) return TSS_SUCCESS;
  // The slot the command was sent with, also when a TPM restart made the exchange reload the key.
  slot = getSlotByHandle(hTcsKey);
  if (attribValue) return HoldKeyForOwner(hTcsKey, slot, pUuidData);
  *pUuidData = ListedUuidOf(slot);
  return ReleaseKeyFromOwner(hTcsKey, slot);
}

}  // namespace kesttcs
