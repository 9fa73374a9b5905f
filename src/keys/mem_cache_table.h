// The key cache's table and counters, shared by the files that implement mem_cache.h; nothing
// outside src/keys/mem_cache*.cc includes this.
#pragma once

#include <list>
#include <new>

#include "base/mutex.h"
#include "keys/mem_cache.h"

namespace kesttcs {

struct MemCacheTable {
  // The cache mutex (mem_cache_lock): after the context-list and storage mutexes, before the TPM
  // lock, never while the session mutex is held.
  Mutex mu;
  // Newest first; the first match from the head answers every look-up.
  std::list<mem_cache_entry> entries GUARDED_BY(mu);
};

// The one table; mem_cache_init and mem_cache_final empty it.
MemCacheTable& CacheTable();

// The first entry from the head that `matches`, or null.
template <class Match>
mem_cache_entry* FindEntry(MemCacheTable& table, Match matches) REQUIRES(table.mu) {
  for (mem_cache_entry& entry : table.entries) {
    if (matches(entry)) return &entry;
  }
  return nullptr;
}

inline auto ByTcsHandle(TCS_KEY_HANDLE tcsKeyHandle) {
  return [tcsKeyHandle](const mem_cache_entry& e) { return e.tcsKeyHandle == tcsKeyHandle; };
}
inline auto BySlot(TPM_KEY_HANDLE tpmHandle) {
  return [tpmHandle](const mem_cache_entry& e) { return e.tpmHandle == tpmHandle; };
}

// What `answer` copies out of the first entry that `matches`, under the cache mutex; `absent` when
// none does or the copy cannot be made.
template <class Match, class Answer, class Result>
Result LookUp(Match matches, Answer answer, Result absent) {
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  const mem_cache_entry* entry = FindEntry(table, matches);
  if (entry == nullptr) return absent;
  try {
    return Result(answer(*entry));
  } catch (const std::bad_alloc&) {
    return absent;
  }
}

}  // namespace kesttcs
