// The key cache's lifecycle, its entries' creation and removal, reference counts and counters,
// and the hooks through which contexts and storage reach it.
#include "keys/mem_cache.h"

#include <algorithm>
#include <new>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "keys/key_eviction.h"
#include "keys/mem_cache_snapshot.h"
#include "keys/mem_cache_table.h"
#include "storage/ps_format.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

struct Counters {
  // Leaf mutexes: nothing else is taken while either is held.
  Mutex handleMu;
  TCS_KEY_HANDLE nextHandle GUARDED_BY(handleMu) = kFirstTcsKeyHandle;
  Mutex stampMu;
  UINT32 nextStamp GUARDED_BY(stampMu) = kFirstLoadStamp;
};

Counters& TheCounters() {
  static Counters counters;
  return counters;
}

// A fresh resident entry; a stamp is taken when `tpmHandle` is a slot.
mem_cache_entry MakeEntry(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle, const TPM_KEY& key,
                          const TSS_UUID& uuid, std::span<const BYTE> blob) {
  mem_cache_entry entry;
  entry.tcsKeyHandle = tcsKeyHandle;
  if (tpmHandle != kNoTpmHandle) entry.loadStamp = nextLoadStamp();
  entry.tpmHandle = tpmHandle;
  entry.key = key;
  entry.uuid = uuid;
  entry.keyBlob.assign(blob.begin(), blob.end());
  entry.inTpm = true;
  return entry;
}

// Removes the entries `release` selects, evicting from the TPM those still resident in a slot.
// The cache mutex stays held across the evictions so that no look-up sees a key the TPM dropped.
// When there is something to evict, the TPM lock is taken before the cache mutex: a resume after a
// sleep takes the cache mutex while it holds the TPM, so waiting for the TPM under the cache mutex
// would deadlock against it.
template <class Select>
void RemoveKeys(Select release) {
  MemCacheTable& table = CacheTable();
  auto resident = [&](const mem_cache_entry& entry) {
    return release(entry) && entry.tpmHandle != kNoTpmHandle && entry.inTpm;
  };
  {
    MutexLock lock(table.mu);
    if (std::none_of(table.entries.begin(), table.entries.end(), resident)) {
      std::erase_if(table.entries, release);
      return;
    }
  }
  TpmLockGuard tpm(TpmIsVersion12() ? TPM_ORD_FlushSpecific : TPM_ORD_EvictKey);
  MutexLock lock(table.mu);
  std::erase_if(table.entries, [&](const mem_cache_entry& entry) {
    if (!release(entry)) return false;
    if (resident(entry)) {
      // A key the TPM would not drop is forgotten all the same: no context can name it any more.
      static_cast<void>(EvictTpmKey(entry.tpmHandle));
    }
    return true;
  });
}

void RegisterHooks() {
  ctx_RegisterHooks(ContextHooks{
      .addKeyReference = incKeyRefCount,
      .dropKeyReference = [](TCS_KEY_HANDLE k) { static_cast<void>(decKeyRefCount(k)); },
      .releaseUnreferencedKeys = removeUnreferencedKeys,
  });
  ps_RegisterHooks(StorageHooks{
      .addSrkToKeyCache =
          [](const TPM_KEY& srk) {
            // An SRK already cached keeps its entry: the handle is the same either way.
            static_cast<void>(
                add_mem_cache_entry(kSrkKeyHandle, kSrkKeyHandle, srk, kSrkUuid, kNoTcsKeyHandle));
          },
      .findCachedKey = [](const TSS_UUID& uuid) -> std::optional<CachedKeyFacts> {
        return LookUp([&](const mem_cache_entry& e) { return SameUuid(e.uuid, uuid); },
                      [](const mem_cache_entry& e) {
                        const TPM_STRUCT_VER& v = e.key.ver;
                        return CachedKeyFacts{.version = {v.major, v.minor, v.revMajor, v.revMinor},
                                              .authDataUsage = e.key.authDataUsage,
                                              .tpmHandle = e.tpmHandle};
                      },
                      std::optional<CachedKeyFacts>());
      },
  });
}

void EmptyTable() {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  table.entries.clear();
}

}  // namespace

MemCacheTable& CacheTable() {
  static MemCacheTable table;
  return table;
}

TSS_RESULT mem_cache_init(const std::string& dataFile, bool tpmHasOwner) {
  EmptyTable();
  Counters& counters = TheCounters();
  {
    MutexLock lock(counters.handleMu);
    counters.nextHandle = kFirstTcsKeyHandle;
  }
  {
    MutexLock lock(counters.stampMu);
    counters.nextStamp = kFirstLoadStamp;
  }
  resetKeySwapCounts();
  RegisterHooks();
  return ps_init(dataFile, tpmHasOwner);
}

void mem_cache_final() {
  ps_close();
  EmptyTable();
}

TSS_RESULT add_mem_cache_entry(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle,
                               const TPM_KEY& key, std::optional<TSS_UUID> uuid,
                               TCS_KEY_HANDLE parentTcsHandle, std::span<const BYTE> blob) {
  TcsTrace("add_mem_cache_entry start", nullptr);
  TcsTracef("add_mem_cache_entry: parent_handle = 0x%08X", parentTcsHandle);
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  const mem_cache_entry* parent = nullptr;
  if (parentTcsHandle != kNoTcsKeyHandle) {
    TcsTrace("add_mem_cache_entry call getKeyEntryByKeyHandle", nullptr);
    parent = FindEntry(table, ByTcsHandle(parentTcsHandle));
    TcsTracef("add_mem_cache_entry: parent =0x%08x", parent ? parent->tcsKeyHandle : 0);
    if (parent == nullptr) return TCS_E_FAIL;
  }
  if (FindEntry(table, ByTcsHandle(tcsKeyHandle)) != nullptr) return TSS_SUCCESS;
  try {
    mem_cache_entry entry = MakeEntry(tcsKeyHandle, tpmHandle, key, uuid.value_or(kNullUuid), blob);
    if (parent != nullptr) {
      entry.parentTcsHandle = parent->tcsKeyHandle;
      entry.parentUuid = parent->uuid;
    }
    entry.refCount = table.entries.empty() ? 1 : 0;
    table.entries.push_front(std::move(entry));
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  TcsTrace("add_mem_cache_entry end", nullptr);
  return TSS_SUCCESS;
}

TSS_RESULT replaceEntry(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle, const TPM_KEY& key) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  try {
    mem_cache_entry entry = MakeEntry(tcsKeyHandle, tpmHandle, key, kSrkUuid, {});
    entry.refCount = 1;
    std::erase_if(table.entries, ByTcsHandle(tcsKeyHandle));
    table.entries.push_front(std::move(entry));
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  return TSS_SUCCESS;
}

TSS_RESULT removeEntryByHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  return std::erase_if(table.entries, ByTcsHandle(tcsKeyHandle)) != 0 ? TSS_SUCCESS : TCS_E_FAIL;
}

void removeUnreferencedKeys() {
  RemoveKeys([](const mem_cache_entry& entry) { return entry.refCount == 0; });
}

void removeAllKeys() {
  RemoveKeys([](const mem_cache_entry&) { return true; });
}

TSS_RESULT incKeyRefCount(TCS_KEY_HANDLE tcsKeyHandle) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, ByTcsHandle(tcsKeyHandle));
  if (entry == nullptr) return TCS_E_FAIL;
  ++entry->refCount;
  return TSS_SUCCESS;
}

TSS_RESULT decKeyRefCount(TCS_KEY_HANDLE tcsKeyHandle) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, ByTcsHandle(tcsKeyHandle));
  if (entry == nullptr) return TCS_E_FAIL;
  if (entry->refCount > 0) --entry->refCount;
  return TSS_SUCCESS;
}

TCS_KEY_HANDLE nextTcsKeyHandle() {
  Counters& counters = TheCounters();
  MutexLock lock(counters.handleMu);
  return counters.nextHandle++;
}

UINT32 nextLoadStamp() {
  Counters& counters = TheCounters();
  MutexLock lock(counters.stampMu);
  return counters.nextStamp++;
}

}  // namespace kesttcs
