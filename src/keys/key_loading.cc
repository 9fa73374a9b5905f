#include "keys/key_loading.h"

#include <array>
#include <span>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "keys/key_commands.h"
#include "keys/key_eviction.h"
#include "keys/key_swapping.h"
#include "keys/mem_cache.h"
#include "keys/srk_auth.h"
#include "storage/persistent_storage.h"
#include "storage/ps_format.h"
#include "tpm/driver.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Swaps tried before a load gives up (the counter is compared before it is incremented, so one
// more eviction is tried than this number says).
constexpr int kMaxEvictionRounds = 3;

// What differs between the two load commands.
struct LoadForm {
  TPM_COMMAND_CODE ordinal;
  // A parent that has a slot is made resident first (LoadKey2) or used as it stands (LoadKey).
  bool ensureParent;
  // The service authorises the SRK's children itself when the client sent no session.
  bool srkSession;
  const char* firstQuestion;
  const char* eviction;  // null: not traced
  const char* nextQuestion;
  const char* giveUp;  // null: not traced
};

constexpr LoadForm kLoadKey2{
    TPM_ORD_LoadKey2,
    true,
    true,
    " tcskcm:tcsip_LoadKey2ByBlob_Internal:CanILoadThisKey first.hContext=0x%.8x",
    " tcskcm:tcsip_LoadKey2ByBlob_internal:evictFirstKey second.hContext=0x%.8x.",
    " tcskcm:tcsip_LoadKey2ByBlob_internal:CanILoadThisKey second.hContext=0x%.8x.",
    " tcskcm:tcsip_LoadKey2ByBlob_internal:CanILoadThisKey has exec 3 times,fail."};

constexpr LoadForm kLoadKey{
    TPM_ORD_LoadKey, false,
    false,           " tcskcm:tcsip_LoadKeyByBlob_internal:CanILoadThisKey fir.",
    nullptr,         " tcskcm:tcsip_LoadKeyByBlob_internal:CanILoadThisKey sec.",
    nullptr};

bool IsVersion12() { return TpmIsVersion12(); }

bool IsSrkUuid(const TSS_UUID& uuid) { return SameUuid(uuid, kSrkUuid); }

// The context's reference to a key it loaded; the internal context keeps no references.
TSS_RESULT AddReference(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE tcsKeyHandle) {
  if (hContext == kInternalContextHandle) return TSS_SUCCESS;
  return ctx_AddKeyReference(hContext, tcsKeyHandle) == TSS_SUCCESS ? TSS_SUCCESS
                                                                    : TCS_E_INTERNAL_ERROR;
}

// The parent's slot, per the form (see LoadForm::ensureParent).
TSS_RESULT ParentSlot(const LoadForm& form, TCS_CONTEXT_HANDLE hContext,
                      TCS_KEY_HANDLE hUnwrappingKey, TPM_KEY_HANDLE* parentSlot) {
  *parentSlot = getSlotByHandle(hUnwrappingKey);
  TcsTracef("LoadKey2ByBlob:getKeyBySlot parentKeySlot=0x%08x", *parentSlot);
  if (*parentSlot != kNoTpmHandle) {
    if (!form.ensureParent) return TSS_SUCCESS;
    if (ensureKeyIsLoaded(hContext, hUnwrappingKey, parentSlot) != TSS_SUCCESS) {
      TcsTracef("EnsureParentKeyisLoaded fail");
      return TCS_E_INVALID_KEY;
    }
    return TSS_SUCCESS;
  }
  // The parent's TCS handle is looked up as a slot: a parent without a slot is found only when a
  // client names it by the slot it had.
  const std::optional<TPM_KEY> parentKey = getKeyBySlot(hUnwrappingKey);
  TcsTracef("LoadKey2ByBlob:getKeyBySlot parentKey=0x%08x", parentKey ? hUnwrappingKey : 0u);
  if (!parentKey) return TCS_E_INVALID_KEY;
  if (LoadKeyShim_New(hContext, *parentKey, std::nullopt, parentSlot) != TSS_SUCCESS) {
    return TCS_E_INVALID_KEY;
  }
  return TSS_SUCCESS;
}

// Asks the TPM for room and swaps keys out (never the parent) until it has some.
TSS_RESULT MakeRoom(const LoadForm& form, TCS_CONTEXT_HANDLE hContext, const TPM_KEY& key,
                    TCS_KEY_HANDLE hUnwrappingKey) {
  bool canLoad = false;
  TcsTracef(form.firstQuestion, hContext);
  if (TSS_RESULT rc = canILoadThisKey(key.algorithmParms, &canLoad)) return rc;
  int rounds = 0;
  while (!canLoad) {
    if (form.eviction != nullptr) TcsTracef(form.eviction, hContext);
    static_cast<void>(evictFirstKey(hUnwrappingKey));
    TcsTracef(form.nextQuestion, hContext);
    if (TSS_RESULT rc = canILoadThisKey(key.algorithmParms, &canLoad)) return rc;
    if (canLoad) break;
    if (rounds == kMaxEvictionRounds) {
      if (form.giveUp != nullptr) TcsTracef("%s", form.giveUp);
      return TCS_E_INVALID_KEY;
    }
    ++rounds;
  }
  return TSS_SUCCESS;
}

// Sends the load command: with the client's session, with the service's own SRK session, or
// without authorisation. Writes the new slot.
TSS_RESULT SendLoad(const LoadForm& form, TPM_KEY_HANDLE parentSlot, std::span<const BYTE> blob,
                    TPM_AUTH* pAuth, TPM_KEY_HANDLE* slot) {
  KeyCommand command(form.ordinal);
  if (pAuth != nullptr) {
    if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_AUTH1_COMMAND, parentSlot, blob, *pAuth)) return rc;
    if (TSS_RESULT rc = command.Unload(slot, pAuth)) return rc;
    if (!pAuth->fContinueAuthSession) auth_mgr_forget(pAuth->AuthHandle);
    return TSS_SUCCESS;
  }
  if (form.srkSession && parentSlot == kSrkKeyHandle && SrkSecretKnown()) {
    TcsTracef(" tcskcm:tcsip_LoadKey2ByBlob_internal:Create_OIAP_Session_For_UseSRK Start");
    SrkSession session;
    TPM_AUTH auth{};
    if (session.Open() == TSS_SUCCESS &&
        session.Authorize(form.ordinal, blob, &auth) == TSS_SUCCESS) {
      TcsTracef(" tcskcm:tcsip_LoadKey2ByBlob_internal:Create_OIAP_Session_For_UseSRK End");
      TSS_RESULT result = command.Run(TPM_TAG_RQU_AUTH1_COMMAND, parentSlot, blob, auth);
      if (result == TSS_SUCCESS) result = command.Unload(slot);
      session.Finish(result);
      return result;
    }
  }
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, parentSlot, blob)) return rc;
  return command.Unload(slot);
}

// Enters the key just loaded into the cache (or moves its cached entry to the new slot) and
// references it from the context.
TSS_RESULT RecordKey(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hUnwrappingKey, const TPM_KEY& key,
                     std::span<const BYTE> blob, bool authorised, TPM_KEY_HANDLE slot,
                     TCS_KEY_HANDLE* tcsKeyHandle) {
  TCS_KEY_HANDLE handle = getHandleByKey(key);
  if (handle != kNoTcsKeyHandle) {
    if (TSS_RESULT rc = AddReference(hContext, handle)) return rc;
    if (TSS_RESULT rc = setResidentByHandle(handle, slot)) return rc;
    *tcsKeyHandle = handle;
    return TSS_SUCCESS;
  }
  handle = nextTcsKeyHandle();
  const std::optional<TSS_UUID> uuid = getUUIDByPub(key.pubKey.key);
  if (TSS_RESULT rc = add_mem_cache_entry(handle, slot, key, uuid, hUnwrappingKey, blob)) return rc;
  if (TSS_RESULT rc = AddReference(hContext, handle)) return rc;
  if (!authorised) static_cast<void>(setParentByHandle(handle, hUnwrappingKey));
  *tcsKeyHandle = handle;
  return TSS_SUCCESS;
}

TSS_RESULT LoadBlob(const LoadForm& form, TCS_CONTEXT_HANDLE hContext,
                    TCS_KEY_HANDLE hUnwrappingKey, std::span<const BYTE> blob, TPM_AUTH* pAuth,
                    TCS_KEY_HANDLE* tcsKeyHandle, TPM_KEY_HANDLE* slot) {
  TPM_KEY key;
  BlobReader reader(blob);
  if (TSS_RESULT rc = UnloadBlob(reader, &key)) return rc;
  const std::span<const BYTE> keyBytes = blob.first(reader.offset());
  // A sleep restarts the TPM between the steps below: the parent's slot and the service's own SRK
  // session of a load that straddles it are gone, so such a load is made once more. The client's
  // own session went too, and that is the client's to open again.
  for (int attempt = 0;; ++attempt) {
    const UINT64 startups = TpmStartupCount();
    TPM_KEY_HANDLE parentSlot = kNoTpmHandle;
    if (TSS_RESULT rc = ParentSlot(form, hContext, hUnwrappingKey, &parentSlot)) return rc;
    if (pAuth == nullptr) {
      const TCS_KEY_HANDLE cached = getHandleByKey(key);
      const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(cached);
      if (entry && entry->tpmHandle != kNoTpmHandle && entry->inTpm &&
          isKeyLoaded(entry->tpmHandle)) {
        if (TSS_RESULT rc = AddReference(hContext, cached)) return rc;
        *tcsKeyHandle = cached;
        *slot = entry->tpmHandle;
        return TSS_SUCCESS;
      }
    }
    if (TSS_RESULT rc = MakeRoom(form, hContext, key, hUnwrappingKey)) return rc;
    const TSS_RESULT sent = SendLoad(form, parentSlot, keyBytes, pAuth, slot);
    if (sent == TSS_SUCCESS) {
      return RecordKey(hContext, hUnwrappingKey, key, keyBytes, pAuth != nullptr, *slot,
                       tcsKeyHandle);
    }
    if (pAuth != nullptr || attempt > 0 || TpmStartupCount() == startups) return sent;
  }
}

// The blob-loading operations' common frame: the context and session checks, and the release of
// the client's session on any later failure.
TSS_RESULT LoadBlobChecked(const LoadForm& form, TCS_CONTEXT_HANDLE hContext,
                           TCS_KEY_HANDLE hUnwrappingKey, UINT32 size, const BYTE* data,
                           TPM_AUTH* pAuth, TCS_KEY_HANDLE* tcsKeyHandle, TPM_KEY_HANDLE* slot) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  if (tcsKeyHandle == nullptr || (size != 0 && data == nullptr)) return TCS_E_BAD_PARAMETER;
  if (pAuth != nullptr && auth_mgr_check_auth(hContext, pAuth) != TSS_SUCCESS) {
    return TCS_E_INTERNAL_ERROR;
  }
  TPM_KEY_HANDLE loadedSlot = kNoTpmHandle;
  const TSS_RESULT result = LoadBlob(form, hContext, hUnwrappingKey, std::span(data, size), pAuth,
                                     tcsKeyHandle, &loadedSlot);
  if (result != TSS_SUCCESS && pAuth != nullptr) auth_mgr_release(pAuth->AuthHandle);
  if (slot != nullptr) *slot = loadedSlot;
  return result;
}

// The exact bytes the cached key was loaded from, or the key packed again when they are unknown.
TSS_RESULT BlobOf(const TPM_KEY& key, std::vector<BYTE>* blob) {
  if (std::optional<std::vector<BYTE>> exact = getKeyBlobByHandle(getHandleByKey(key))) {
    *blob = std::move(*exact);
    return TSS_SUCCESS;
  }
  std::array<BYTE, kTpmBlobSize> packed{};
  BlobWriter writer(packed);
  if (TSS_RESULT rc = LoadBlob(writer, key)) return rc;
  blob->assign(packed.begin(), packed.begin() + writer.offset());
  return TSS_SUCCESS;
}

// The stored blob of the key registered as `uuid`; the SRK's is made from the TPM's SRK when
// storage has none.
TSS_RESULT RegisteredKey(const TSS_UUID& uuid, std::vector<BYTE>* blob, TPM_KEY* key) {
  std::array<BYTE, kTpmBlobSize> stored{};
  UINT16 size = 0;
  if (getKeyBlobByUUID(uuid, stored, &size) == TSS_SUCCESS) {
    blob->assign(stored.begin(), stored.begin() + size);
    BlobReader reader(*blob);
    return UnloadBlob(reader, key);
  }
  if (!IsSrkUuid(uuid)) return TCS_E_KEY_NOT_REGISTERED;
  if (TSS_RESULT rc = ReadSrkKey(key)) return rc;
  blob->clear();
  return TSS_SUCCESS;
}

}  // namespace

TSS_RESULT ensureKeyIsLoaded(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                             TPM_KEY_HANDLE* slot) {
  TcsTracef("ensureKeyIsLoaded: keyHandle=0x%08x", keyHandle);
  *slot = getSlotByHandle(keyHandle);
  TcsTracef("ensureKeyIsLoaded: *keySlot=0x%08x", *slot);
  if (*slot == kNoTpmHandle) {
    const std::optional<TPM_KEY> key = getKeyByHandle(keyHandle);
    TcsTracef("ensureKeyIsLoaded: myKey=0x%08x", key ? keyHandle : 0u);
    if (!key) return TCS_E_INVALID_KEY;
    const TSS_RESULT result = LoadKeyShim_New(hContext, *key, std::nullopt, slot);
    TcsTracef("ensureKeyIsLoaded: LoadKeyShim_New: keySlot=0x%08x", *slot);
    if (result != TSS_SUCCESS || *slot == kNoTpmHandle) return TCS_E_INVALID_KEY;
  } else if (!driver_is_tbs() && *slot != kSrkKeyHandle) {
    const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(keyHandle);
    const bool resident = entry && entry->inTpm && isKeyLoaded(*slot);
    if (!resident) {
      TPM_KEY_HANDLE newSlot = kNoTpmHandle;
      if (internal_LoadContext(TPM_RT_KEY, *slot, &newSlot) == TSS_SUCCESS) {
        if (setSlotByHandle(keyHandle, newSlot) != TSS_SUCCESS) return TCS_E_INVALID_KEY;
        *slot = newSlot;
      } else {
        TcsTracef("ensureKeyIsLoaded: internal_LoadContext fail");
        // The saved context is gone (the TPM restarted): load the key again from its blob.
        if (!entry || setSlotByHandle(keyHandle, kNoTpmHandle) != TSS_SUCCESS ||
            LoadKeyShim_New(hContext, entry->key, std::nullopt, slot) != TSS_SUCCESS) {
          return TCS_E_INVALID_KEY;
        }
      }
    }
  }
  static_cast<void>(touchSlot(*slot));
  return TSS_SUCCESS;
}

TSS_RESULT LoadKeyShim_New(TCS_CONTEXT_HANDLE hContext, const TPM_KEY& key,
                           std::optional<TSS_UUID> parentUuid, TPM_KEY_HANDLE* slot) {
  TcsTracef("cache:LoadKeyShim_New start!");
  const TPM_KEY_HANDLE current = getSlotByKey(key);
  TcsTracef("LoadKeyShim_New: KeySlot= 0x%08X", current);
  if (current != kNoTpmHandle) {
    const bool loaded = isKeyLoaded(current);
    TcsTracef("LoadKeyShim_New: isKeyLoad= 0x%X", loaded ? 1u : 0u);
    if (loaded) {
      *slot = current;
      return TSS_SUCCESS;
    }
  }
  std::optional<TPM_KEY> parentKey = getParentKeyByKey(key);
  TcsTracef("LoadKeyShim_New: parentKey= 0x%08X", parentKey ? getHandleByKey(*parentKey) : 0u);
  TPM_KEY_HANDLE parentSlot = kNoTpmHandle;
  if (!parentKey) {
    if (!parentUuid) return TCS_E_INVALID_KEY;
    TCS_KEY_HANDLE parentHandle = kNoTcsKeyHandle;
    if (Tcsip_LoadKeyByUUID_Internal(hContext, *parentUuid, nullptr, &parentHandle) !=
        TSS_SUCCESS) {
      return TCS_E_INVALID_KEY;
    }
    parentKey = getKeyByHandle(parentHandle);
    if (!parentKey) return TCS_E_INVALID_KEY;
  } else if (getHandleByKey(*parentKey) != kSrkKeyHandle && parentKey->authDataUsage != 0) {
    // The service cannot authorise another parent's use: the client must load such keys itself.
    TcsTracef("Parent key need auth,LoadKeyShim_New Fail");
    return TCS_E_INVALID_KEY;
  } else if (LoadKeyShim_New(hContext, *parentKey, std::nullopt, &parentSlot) != TSS_SUCCESS) {
    return TCS_E_INVALID_KEY;
  }
  const TCS_KEY_HANDLE parentHandle = getHandleByKey(*parentKey);
  if (parentHandle == kNoTcsKeyHandle || parentHandle == 0) return TCS_E_INVALID_KEY;
  std::vector<BYTE> blob;
  if (TSS_RESULT rc = BlobOf(key, &blob)) return rc;
  TCS_KEY_HANDLE tcsKeyHandle = kNoTcsKeyHandle;
  return loadKeyByBlob(hContext, parentHandle, static_cast<UINT32>(blob.size()), blob.data(),
                       nullptr, &tcsKeyHandle, slot);
}

TSS_RESULT Tcsip_LoadKey2ByBlob_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hUnwrappingKey,
                                         UINT32 cWrappedKeyBlobSize, const BYTE* rgbWrappedKeyBlob,
                                         TPM_AUTH* pAuth, TCS_KEY_HANDLE* phKeyTCSI) {
  return LoadBlobChecked(kLoadKey2, hContext, hUnwrappingKey, cWrappedKeyBlobSize,
                         rgbWrappedKeyBlob, pAuth, phKeyTCSI, nullptr);
}

TSS_RESULT Tcsip_LoadKeyByBlob_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hUnwrappingKey,
                                        UINT32 cWrappedKeyBlobSize, const BYTE* rgbWrappedKeyBlob,
                                        TPM_AUTH* pAuth, TCS_KEY_HANDLE* phKeyTCSI,
                                        TCS_KEY_HANDLE* phKeyHMAC) {
  if (phKeyHMAC == nullptr) return TCS_E_BAD_PARAMETER;
  return LoadBlobChecked(kLoadKey, hContext, hUnwrappingKey, cWrappedKeyBlobSize, rgbWrappedKeyBlob,
                         pAuth, phKeyTCSI, phKeyHMAC);
}

TSS_RESULT loadKeyByBlob(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hUnwrappingKey,
                         UINT32 cWrappedKeyBlobSize, const BYTE* rgbWrappedKeyBlob, TPM_AUTH* pAuth,
                         TCS_KEY_HANDLE* phKeyTCSI, TPM_KEY_HANDLE* phKeySlot) {
  return LoadBlobChecked(IsVersion12() ? kLoadKey2 : kLoadKey, hContext, hUnwrappingKey,
                         cWrappedKeyBlobSize, rgbWrappedKeyBlob, pAuth, phKeyTCSI, phKeySlot);
}

TSS_RESULT Tcsip_LoadKeyByUUID_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& KeyUUID,
                                        TCS_LOADKEY_INFO* /*pLoadKeyInfo*/,
                                        TCS_KEY_HANDLE* phKeyTCSI) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  if (phKeyTCSI == nullptr) return TCS_E_BAD_PARAMETER;
  if (IsSrkUuid(KeyUUID) && getSlotByHandle(kSrkKeyHandle) != kNoTpmHandle) {
    // Cached since ownership was taken or the SRK was first asked for: the TPM need not be asked
    // for its public part, which the owner may keep unreadable.
    if (AddReference(hContext, kSrkKeyHandle) != TSS_SUCCESS) return TCS_E_INTERNAL_ERROR;
    *phKeyTCSI = kSrkKeyHandle;
    return TSS_SUCCESS;
  }
  std::vector<BYTE> blob;
  TPM_KEY key;
  if (TSS_RESULT rc = RegisteredKey(KeyUUID, &blob, &key)) return rc;
  TCS_KEY_HANDLE handle = getHandleByKey(key);
  if (IsSrkUuid(KeyUUID)) {
    // The SRK is always resident under its own handle.
    if (handle == kNoTcsKeyHandle) {
      static_cast<void>(
          add_mem_cache_entry(kSrkKeyHandle, kSrkKeyHandle, key, kSrkUuid, kNoTcsKeyHandle, blob));
    }
    handle = kSrkKeyHandle;
  }
  if (handle != kNoTcsKeyHandle && getSlotByHandle(handle) != kNoTpmHandle) {
    if (AddReference(hContext, handle) != TSS_SUCCESS) return TCS_E_INTERNAL_ERROR;
    *phKeyTCSI = handle;
    return TSS_SUCCESS;
  }
  TSS_UUID parentUuid{};
  if (getParentUUIDByUUID(KeyUUID, &parentUuid) != TSS_SUCCESS) {
    TcsTracef("Loadkeybyuuid_New:getParentUUIDByUUID,result=0x%.8X", TCS_E_INVALID_KEY);
    return TCS_E_INVALID_KEY;
  }
  TCS_KEY_HANDLE parentHandle = kNoTcsKeyHandle;
  TPM_KEY parentKey;
  if (getKeyByUuid(parentUuid, &parentKey) == TSS_SUCCESS) {
    TPM_KEY_HANDLE parentSlot = kNoTpmHandle;
    if (TSS_RESULT rc = LoadKeyShim_New(hContext, parentKey, parentUuid, &parentSlot)) {
      TcsTracef("Loadkeybyuuid_New:LoadKeyShim_New,result=0x%.8X", rc);
      return rc;
    }
    parentHandle = getHandleBySlot(parentSlot);
  } else if (TSS_RESULT rc =
                 Tcsip_LoadKeyByUUID_Internal(hContext, parentUuid, nullptr, &parentHandle)) {
    TcsTracef("Loadkeybyuuid_New:Tcsip_LoadKeyByUUID_Internal_New,result=0x%.8X", rc);
    return rc;
  }
  const auto size = static_cast<UINT32>(blob.size());
  if (IsVersion12()) {
    const TSS_RESULT result = Tcsip_LoadKey2ByBlob_Internal(hContext, parentHandle, size,
                                                            blob.data(), nullptr, phKeyTCSI);
    if (result != TSS_SUCCESS) {
      TcsTracef("Loadkeybyuuid_New:Tcsip_LoadKey2ByBlob_Internal,result=0x%.8X", result);
    }
    return result;
  }
  TCS_KEY_HANDLE slot = kNoTpmHandle;
  const TSS_RESULT result = Tcsip_LoadKeyByBlob_Internal(hContext, parentHandle, size, blob.data(),
                                                         nullptr, phKeyTCSI, &slot);
  if (result != TSS_SUCCESS) {
    TcsTracef("Loadkeybyuuid_New:Tcsip_LoadKeyByBlob_Internal,result=0x%.8X", result);
  }
  return result;
}

}  // namespace kesttcs
