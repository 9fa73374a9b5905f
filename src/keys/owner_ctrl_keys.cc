#include "keys/owner_ctrl_keys.h"

#include <algorithm>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "keys/key_commands.h"
#include "keys/mem_cache.h"
#include "storage/key_blob.h"
#include "storage/owner_held_keys.h"
#include "storage/ps_format.h"

namespace kesttcs {
namespace {

// The TSS's owner-evict UUIDs are {0,0,0,0,0,{0,0,0,0,1,n}}.
constexpr BYTE kOwnerEvictUuidMark = 1;

TSS_UUID OwnerEvictUuid(BYTE n) {
  return TSS_UUID{0, 0, 0, 0, 0, {0, 0, 0, 0, kOwnerEvictUuidMark, n}};
}

std::optional<TSS_UUID> FreeOwnerEvictUuid(const std::vector<OwnerHeldKey>& held) {
  for (unsigned n = 0; n <= 0xFF; ++n) {
    const TSS_UUID uuid = OwnerEvictUuid(static_cast<BYTE>(n));
    if (std::none_of(held.begin(), held.end(),
                     [&](const OwnerHeldKey& k) { return SameUuid(k.uuid, uuid); })) {
      return uuid;
    }
  }
  return std::nullopt;
}

// The list's reference on a key it entered: taken once, whatever the cache started the entry with.
TSS_RESULT TakeListReference(TCS_KEY_HANDLE tcsKeyHandle) {
  const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(tcsKeyHandle);
  if (!entry) return TCS_E_FAIL;
  return entry->refCount > 0 ? TSS_SUCCESS : incKeyRefCount(tcsKeyHandle);
}

// Enters the loaded key of `record` into the cache, unless a cached key has its slot already.
TSS_RESULT EnterIntoCache(const OwnerHeldKey& record) {
  if (getHandleBySlot(record.tpmHandle) != kNoTcsKeyHandle) return TSS_SUCCESS;
  TPM_KEY key;
  if (!ParseKeyBlob(record.blob, &key)) return TCS_E_INVALID_KEY;
  const TCS_KEY_HANDLE handle = nextTcsKeyHandle();
  if (TSS_RESULT r = add_mem_cache_entry(handle, record.tpmHandle, key, record.uuid,
                                         kNoTcsKeyHandle, record.blob)) {
    return r;
  }
  return TakeListReference(handle);
}

}  // namespace

TSS_RESULT InitOwnerCtrlKey(const std::string& file) {
  if (TSS_RESULT r = owner_keys_open(file)) return r;
  const std::vector<OwnerHeldKey> records = owner_keys_list();
  if (records.empty()) return TSS_SUCCESS;
  std::vector<TPM_KEY_HANDLE> loaded;
  if (TSS_RESULT r = GetLoadedKeyHandles(&loaded)) return r;
  std::vector<bool> keep;
  bool matched = false;  // not cleared between records: a later stale record stays listed
  for (const OwnerHeldKey& record : records) {
    const bool isLoaded = std::find(loaded.begin(), loaded.end(), record.tpmHandle) != loaded.end();
    if (isLoaded) {
      matched = true;
      if (TSS_RESULT r = EnterIntoCache(record)) return r;
    }
    keep.push_back(isLoaded || matched);
  }
  return owner_keys_keep(keep);
}

TSS_RESULT HoldKeyForOwner(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE slot, TSS_UUID* uuid) {
  const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(tcsKeyHandle);
  if (!entry) return TCS_E_INVALID_KEY;
  OwnerHeldKey record;
  record.tpmHandle = slot;
  if (!entry->keyBlob.empty()) {
    record.blob = entry->keyBlob;
  } else if (std::optional<std::vector<BYTE>> blob =
                 MarshalKeyBlob(entry->key, kOwnerHeldMaxBlobSize)) {
    record.blob = std::move(*blob);
  } else {
    return TCS_E_INVALID_KEY;
  }
  const std::vector<OwnerHeldKey> held = owner_keys_list();
  const auto same = std::find_if(held.begin(), held.end(),
                                 [&](const OwnerHeldKey& k) { return k.tpmHandle == slot; });
  if (same != held.end()) {
    record.uuid = same->uuid;
  } else if (!SameUuid(entry->uuid, kNullUuid)) {
    record.uuid = entry->uuid;
  } else if (const std::optional<TSS_UUID> free = FreeOwnerEvictUuid(held)) {
    record.uuid = *free;
  } else {
    return TCS_E_FAIL;
  }
  const TSS_UUID listedAs = record.uuid;
  if (TSS_RESULT r = owner_keys_add(std::move(record))) return r;
  if (same == held.end()) {
    if (TSS_RESULT r = incKeyRefCount(tcsKeyHandle)) return r;
  }
  *uuid = listedAs;
  return TSS_SUCCESS;
}

TSS_RESULT ReleaseKeyFromOwner(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE slot) {
  if (!owner_keys_holds(slot)) return TSS_SUCCESS;
  if (TSS_RESULT r = owner_keys_remove(slot)) return r;
  // The key may have left the cache meanwhile; the record was what mattered.
  static_cast<void>(decKeyRefCount(tcsKeyHandle));
  return TSS_SUCCESS;
}

TSS_RESULT ReleaseAllOwnerHeldKeys() {
  const std::vector<OwnerHeldKey> records = owner_keys_list();
  if (TSS_RESULT r = owner_keys_keep(std::vector<bool>(records.size(), false))) return r;
  for (const OwnerHeldKey& record : records) {
    const TCS_KEY_HANDLE handle = getHandleBySlot(record.tpmHandle);
    if (handle == kNoTcsKeyHandle) continue;
    static_cast<void>(setSlotBySlot(record.tpmHandle, kNoTpmHandle));
    static_cast<void>(decKeyRefCount(handle));
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
