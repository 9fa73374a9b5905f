#include "keys/mem_cache_snapshot.h"

#include <atomic>

#include "keys/mem_cache_table.h"

namespace kesttcs {
namespace {

struct SwapCounters {
  std::atomic<std::uint64_t> swapOuts{0};
  std::atomic<std::uint64_t> swapIns{0};
};

SwapCounters& TheSwapCounters() {
  static SwapCounters counters;
  return counters;
}

}  // namespace

std::vector<KeyCacheRow> mem_cache_snapshot() {
  std::vector<KeyCacheRow> rows;
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  rows.reserve(table.entries.size());
  for (const mem_cache_entry& e : table.entries) {
    rows.push_back({e.tcsKeyHandle, e.tpmHandle, e.inTpm, e.contextSize != 0, e.parentTcsHandle,
                    e.refCount, e.uuid, e.key.pubKey.key});
  }
  return rows;
}

KeySwapCounts keySwapCounts() {
  const SwapCounters& c = TheSwapCounters();
  return {c.swapOuts.load(std::memory_order_relaxed), c.swapIns.load(std::memory_order_relaxed)};
}

void countKeySwapOut() { TheSwapCounters().swapOuts.fetch_add(1, std::memory_order_relaxed); }

void countKeySwapIn() { TheSwapCounters().swapIns.fetch_add(1, std::memory_order_relaxed); }

void resetKeySwapCounts() {
  SwapCounters& c = TheSwapCounters();
  c.swapOuts.store(0, std::memory_order_relaxed);
  c.swapIns.store(0, std::memory_order_relaxed);
}

}  // namespace kesttcs
