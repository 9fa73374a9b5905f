// The key cache's updates of one entry: its slot and stamp, its parent, its wrapped private part.
#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "keys/key_equality.h"
#include "keys/mem_cache.h"
#include "keys/mem_cache_table.h"
#include "storage/key_blob.h"
#include "storage/ps_format.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

// The encData field closes a TPM_KEY: its 4-byte big-endian size, then the bytes.
constexpr std::size_t kEncSizeBytes = 4;

// Runs `update` on the first entry that `matches` under the cache mutex. TCS_E_FAIL when none,
// TCS_E_OUTOFMEMORY when a copy cannot be made.
template <class Match, class Change>
TSS_RESULT Update(Match matches, Change update) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, matches);
  if (entry == nullptr) return TCS_E_FAIL;
  try {
    update(*entry);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  return TSS_SUCCESS;
}

void MoveToSlot(mem_cache_entry& entry, TPM_KEY_HANDLE newTpmHandle) {
  entry.loadStamp = newTpmHandle == kNoTpmHandle ? 0 : nextLoadStamp();
  entry.tpmHandle = newTpmHandle;
}

// Gives the entry new encData; its exact bytes keep everything before the encData field. Both
// are built aside first, so an allocation failure leaves the entry as it was.
void SetEncData(mem_cache_entry& entry, std::span<const BYTE> encData) {
  std::vector<BYTE> newEncData(encData.begin(), encData.end());
  std::vector<BYTE> newBlob;
  const std::size_t oldTail = kEncSizeBytes + entry.key.encData.size();
  if (entry.keyBlob.size() >= oldTail) {
    newBlob.reserve(entry.keyBlob.size() - oldTail + kEncSizeBytes + encData.size());
    newBlob.assign(entry.keyBlob.begin(), entry.keyBlob.end() - oldTail);
    const auto size = static_cast<UINT32>(encData.size());
    for (int shift = 24; shift >= 0; shift -= 8) newBlob.push_back(BYTE(size >> shift));
    newBlob.insert(newBlob.end(), encData.begin(), encData.end());
  }
  entry.key.encSize = static_cast<UINT32>(encData.size());
  entry.key.encData = std::move(newEncData);
  entry.keyBlob = std::move(newBlob);
}

bool SameBytes(const std::vector<BYTE>& a, std::span<const BYTE> b) {
  return std::ranges::equal(a, b);
}

}  // namespace

TSS_RESULT setSlotBySlot(TPM_KEY_HANDLE oldTpmHandle, TPM_KEY_HANDLE newTpmHandle) {
  return Update(BySlot(oldTpmHandle), [&](mem_cache_entry& e) {
    if (newTpmHandle == kNoTpmHandle) e.inTpm = false;
    MoveToSlot(e, newTpmHandle);
  });
}

TSS_RESULT setSlotByHandle(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE newTpmHandle) {
  return Update(ByTcsHandle(tcsKeyHandle),
                [&](mem_cache_entry& e) { MoveToSlot(e, newTpmHandle); });
}

TSS_RESULT touchSlot(TPM_KEY_HANDLE tpmHandle) {
  return Update(BySlot(tpmHandle), [](mem_cache_entry& e) { e.loadStamp = nextLoadStamp(); });
}

TSS_RESULT setParentByHandle(TCS_KEY_HANDLE childTcsHandle, TCS_KEY_HANDLE parentTcsHandle) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* child = FindEntry(table, ByTcsHandle(childTcsHandle));
  if (child == nullptr || FindEntry(table, ByTcsHandle(parentTcsHandle)) == nullptr) {
    return TCS_E_FAIL;
  }
  child->parentTcsHandle = parentTcsHandle;
  return TSS_SUCCESS;
}

TSS_RESULT setEncDataByHandle(TCS_KEY_HANDLE tcsKeyHandle, std::span<const BYTE> encData) {
  return Update(ByTcsHandle(tcsKeyHandle), [&](mem_cache_entry& e) { SetEncData(e, encData); });
}

TSS_RESULT replaceEncData(std::span<const BYTE> oldEncData, std::span<const BYTE> newEncData) {
  if (oldEncData.size() != newEncData.size()) return TCS_E_BAD_PARAMETER;
  const TSS_RESULT r =
      Update([&](const mem_cache_entry& e) { return SameBytes(e.key.encData, oldEncData); },
             [&](mem_cache_entry& e) { SetEncData(e, newEncData); });
  return r == TSS_SUCCESS ? r : TCS_E_INTERNAL_ERROR;
}

TSS_RESULT updateRegisteredEncData(const TSS_UUID& uuid, std::span<const BYTE> oldEncData,
                                   std::span<const BYTE> newEncData) {
  if (oldEncData.size() != newEncData.size()) return TCS_E_BAD_PARAMETER;
  std::optional<std::vector<BYTE>> blob;
  {
    MemCacheTable& table = CacheTable();
    MutexLock lock(table.mu);
    mem_cache_entry* entry =
        FindEntry(table, [&](const mem_cache_entry& e) { return SameUuid(e.uuid, uuid); });
    if (entry == nullptr || !SameBytes(entry->key.encData, oldEncData)) return TCS_E_FAIL;
    SetEncData(*entry, newEncData);
    blob = entry->keyBlob.empty() ? MarshalKeyBlob(entry->key, kTpmBlobSize)
                                  : std::optional(entry->keyBlob);
  }
  if (!blob) return TCS_E_FAIL;
  return updateKeyBlob(uuid, *blob);
}

}  // namespace kesttcs
