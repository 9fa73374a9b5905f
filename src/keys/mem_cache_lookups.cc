// The key cache's look-ups: each finds the first matching entry from the newest under the cache
// mutex and answers with a copy.
#include <kesttcs/tcs_results.h>

#include "keys/key_equality.h"
#include "keys/mem_cache.h"
#include "keys/mem_cache_table.h"
#include "storage/ps_format.h"

namespace kesttcs {
namespace {

auto ByPubKey(const TPM_STORE_PUBKEY& pubKey) {
  return [&pubKey](const mem_cache_entry& e) { return pubKeysEqual(e.key.pubKey, pubKey); };
}
auto ByUuid(const TSS_UUID& uuid) {
  return [&uuid](const mem_cache_entry& e) { return SameUuid(e.uuid, uuid); };
}
auto ByKey(const TPM_KEY& key) {
  return [&key](const mem_cache_entry& e) { return keysEqual(e.key, key); };
}
auto ByEncData(std::span<const BYTE> encData) {
  return [encData](const mem_cache_entry& e) { return holdsEncData(e.key, encData); };
}

TPM_KEY_HANDLE SlotOf(const mem_cache_entry& e) { return e.tpmHandle; }
TCS_KEY_HANDLE HandleOf(const mem_cache_entry& e) { return e.tcsKeyHandle; }
TPM_KEY KeyOf(const mem_cache_entry& e) { return e.key; }
TPM_STORE_PUBKEY PubKeyOf(const mem_cache_entry& e) { return e.key.pubKey; }

// The parent's `answer`; `absent` without a match, a parent, or a parent still cached.
template <class Match, class Answer, class Result>
Result LookUpParent(Match matches, Answer answer, Result absent) {
  const TCS_KEY_HANDLE parent = LookUp(
      matches, [](const mem_cache_entry& e) { return e.parentTcsHandle; }, kNoTcsKeyHandle);
  if (parent == kNoTcsKeyHandle) return absent;
  return LookUp(ByTcsHandle(parent), answer, absent);
}

}  // namespace

TPM_KEY_HANDLE getSlotByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  if (tcsKeyHandle == kSrkKeyHandle) return kSrkKeyHandle;
  return LookUp(ByTcsHandle(tcsKeyHandle), SlotOf, kNoTpmHandle);
}

TCS_KEY_HANDLE getHandleBySlot(TPM_KEY_HANDLE tpmHandle) {
  return LookUp(BySlot(tpmHandle), HandleOf, kNoTcsKeyHandle);
}

std::optional<mem_cache_entry> getKeyEntryByKeyHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return LookUp(
      ByTcsHandle(tcsKeyHandle), [](const mem_cache_entry& e) { return e; },
      std::optional<mem_cache_entry>());
}

std::optional<TPM_KEY> getKeyBySlot(TPM_KEY_HANDLE tpmHandle) {
  if (tpmHandle == kNoTpmHandle) return std::nullopt;
  return LookUp(BySlot(tpmHandle), KeyOf, std::optional<TPM_KEY>());
}

std::optional<TPM_STORE_PUBKEY> getPubKeyBySlot(TPM_KEY_HANDLE tpmHandle) {
  return LookUp(BySlot(tpmHandle), PubKeyOf, std::optional<TPM_STORE_PUBKEY>());
}

std::optional<TPM_KEY> getKeyByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return LookUp(ByTcsHandle(tcsKeyHandle), KeyOf, std::optional<TPM_KEY>());
}

std::optional<TPM_STORE_PUBKEY> getPubKeyByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return LookUp(ByTcsHandle(tcsKeyHandle), PubKeyOf, std::optional<TPM_STORE_PUBKEY>());
}

std::optional<TPM_PUBKEY> getKeyParmsAndPubByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return LookUp(
      ByTcsHandle(tcsKeyHandle),
      [](const mem_cache_entry& e) {
        return TPM_PUBKEY{e.key.algorithmParms, e.key.pubKey};
      },
      std::optional<TPM_PUBKEY>());
}

std::optional<std::vector<BYTE>> getKeyBlobByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return LookUp(
      ByTcsHandle(tcsKeyHandle),
      [](const mem_cache_entry& e) {
        return e.keyBlob.empty() ? std::nullopt : std::optional(e.keyBlob);
      },
      std::optional<std::vector<BYTE>>());
}

std::optional<TSS_UUID> getUuidByPubKey(const TPM_STORE_PUBKEY& pubKey) {
  return LookUp(
      ByPubKey(pubKey), [](const mem_cache_entry& e) { return e.uuid; }, std::optional<TSS_UUID>());
}

std::optional<TSS_UUID> getUuidByEncData(std::span<const BYTE> encData) {
  return LookUp(
      ByEncData(encData),
      [](const mem_cache_entry& e) {
        return SameUuid(e.uuid, kNullUuid) ? std::nullopt : std::optional(e.uuid);
      },
      std::optional<TSS_UUID>());
}

TCS_KEY_HANDLE getHandleByEncData(std::span<const BYTE> encData) {
  return LookUp(ByEncData(encData), HandleOf, TCS_KEY_HANDLE{0});
}

TSS_RESULT getKeyByUuid(const TSS_UUID& uuid, TPM_KEY* key) {
  std::optional<TPM_KEY> found = LookUp(ByUuid(uuid), KeyOf, std::optional<TPM_KEY>());
  if (!found) return TCS_E_FAIL;
  *key = std::move(*found);
  return TSS_SUCCESS;
}

std::optional<TPM_STORE_PUBKEY> getPubKeyByUuid(const TSS_UUID& uuid) {
  return LookUp(ByUuid(uuid), PubKeyOf, std::optional<TPM_STORE_PUBKEY>());
}

TPM_KEY_HANDLE getSlotByPubKey(const TPM_STORE_PUBKEY& pubKey) {
  return LookUp(ByPubKey(pubKey), SlotOf, kNoTpmHandle);
}

TCS_KEY_HANDLE getHandleByPubKey(const TPM_STORE_PUBKEY& pubKey) {
  return LookUp(ByPubKey(pubKey), HandleOf, kNoTcsKeyHandle);
}

std::optional<TPM_STORE_PUBKEY> getParentPubKeyByPubKey(const TPM_STORE_PUBKEY& pubKey) {
  return LookUpParent(ByPubKey(pubKey), PubKeyOf, std::optional<TPM_STORE_PUBKEY>());
}

TPM_KEY_HANDLE getSlotByKey(const TPM_KEY& key) { return LookUp(ByKey(key), SlotOf, kNoTpmHandle); }

TCS_KEY_HANDLE getHandleByKey(const TPM_KEY& key) {
  return LookUp(ByKey(key), HandleOf, kNoTcsKeyHandle);
}

std::optional<TPM_KEY> getParentKeyByKey(const TPM_KEY& key) {
  return LookUpParent(ByPubKey(key.pubKey), KeyOf, std::optional<TPM_KEY>());
}

bool isKeyInCache(const TPM_KEY& key) {
  return LookUp(
      [&](const mem_cache_entry& e) {
        return pubKeysEqual(e.key.pubKey, key.pubKey) && e.key.encSize == key.encSize &&
               e.key.encData == key.encData;
      },
      [](const mem_cache_entry&) { return true; }, false);
}

}  // namespace kesttcs
