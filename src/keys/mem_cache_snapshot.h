// A read-only view of the key cache for administrators' tools: one row per cached key, and how
// many times keys were swapped out of the TPM and back in since the cache was opened.
#pragma once

#include <cstdint>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "storage/persistent_storage.h"

namespace kesttcs {

// One cached key as the tools see it.
struct KeyCacheRow {
  TCS_KEY_HANDLE tcsKeyHandle = 0;
  // The key's slot while it is resident; the slot it was saved from while swapped out.
  TPM_KEY_HANDLE tpmHandle = kNoTpmHandle;
  bool inTpm = false;
  // A saved context is held (the key is swapped out, or kept after a TPM 1.1 swap-in).
  bool contextSaved = false;
  // 0xFFFFFFFF for none.
  TCS_KEY_HANDLE parentTcsHandle = kNoTpmHandle;
  std::int32_t refCount = 0;
  // The UUID the cache recorded for the key (the NULL UUID when none).
  TSS_UUID uuid{};
  // The public key's bytes, to find the key in persistent storage.
  std::vector<BYTE> modulus;
};

// The cache's entries, newest first, copied under the cache mutex.
std::vector<KeyCacheRow> mem_cache_snapshot();

// Swaps since mem_cache_init: keys saved and evicted by saveKeyContext, and keys brought back by
// internal_LoadContext. Lock-free counters; the swap paths bump them after each success.
struct KeySwapCounts {
  std::uint64_t swapOuts = 0;
  std::uint64_t swapIns = 0;
};
KeySwapCounts keySwapCounts();
void countKeySwapOut();
void countKeySwapIn();
// Back to zero; mem_cache_init calls it.
void resetKeySwapCounts();

}  // namespace kesttcs
