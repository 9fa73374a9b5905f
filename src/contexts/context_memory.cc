#include "contexts/context_memory.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"

namespace kesttcs {
namespace {

// max_align_t elements give every block the alignment of any scalar the callers may store in it.
using Block = std::unique_ptr<std::max_align_t[]>;

struct MemoryTable {
  Mutex mu;  // the memory-table mutex: a leaf lock
  // Blocks of each context, oldest first.
  std::unordered_map<TCS_CONTEXT_HANDLE, std::vector<Block>> entries GUARDED_BY(mu);
};

// Created by context_memory_init, destroyed by context_memory_final; callers run between the two.
std::unique_ptr<MemoryTable> g_table;

Block AllocateBlock(UINT32 size) {
  const std::size_t units = std::max<std::size_t>(
      1, (std::size_t{size} + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t));
  return Block(new (std::nothrow) std::max_align_t[units]);
}

}  // namespace

void* getSomeMemory(TCS_CONTEXT_HANDLE hContext, UINT32 size) {
  if (g_table == nullptr) return nullptr;
  Block block = AllocateBlock(size);
  if (block == nullptr) return nullptr;
  void* p = block.get();
  MutexLock lock(g_table->mu);
  try {
    g_table->entries[hContext].push_back(std::move(block));
  } catch (const std::bad_alloc&) {
    return nullptr;  // `block` still owns the memory and frees it here
  }
  return p;
}

TSS_RESULT ctx_ReleaseMemory(TCS_CONTEXT_HANDLE hContext, const void* pMemory) {
  if (g_table == nullptr) return TCS_E_MEMORY_NOT_OWNED;
  MutexLock lock(g_table->mu);
  auto entry = g_table->entries.find(hContext);
  if (entry == g_table->entries.end()) return TCS_E_MEMORY_NOT_OWNED;
  std::vector<Block>& blocks = entry->second;
  // Searched newest first: outputs go back soon after they were made, and the newest block is
  // also the cheapest to erase.
  auto it = std::find_if(blocks.rbegin(), blocks.rend(),
                         [pMemory](const Block& b) { return b.get() == pMemory; });
  if (it == blocks.rend()) return TCS_E_INTERNAL_ERROR;
  blocks.erase(std::next(it).base());
  if (blocks.empty()) g_table->entries.erase(entry);
  return TSS_SUCCESS;
}

void ctx_FreeContextMemory(TCS_CONTEXT_HANDLE hContext) {
  if (g_table == nullptr) return;
  std::vector<Block> doomed;  // freed after the lock is released
  MutexLock lock(g_table->mu);
  auto entry = g_table->entries.find(hContext);
  if (entry == g_table->entries.end()) return;
  doomed = std::move(entry->second);
  g_table->entries.erase(entry);
}

std::size_t ctx_CountMemoryBlocks(TCS_CONTEXT_HANDLE hContext) {
  if (g_table == nullptr) return 0;
  MutexLock lock(g_table->mu);
  auto entry = g_table->entries.find(hContext);
  return entry == g_table->entries.end() ? 0 : entry->second.size();
}

std::size_t ctx_CountAllMemoryBlocks() {
  if (g_table == nullptr) return 0;
  MutexLock lock(g_table->mu);
  std::size_t total = 0;
  for (const auto& [hContext, blocks] : g_table->entries) total += blocks.size();
  return total;
}

bool context_memory_init() {
  g_table.reset(new (std::nothrow) MemoryTable);
  return g_table != nullptr;
}

void context_memory_final() { g_table.reset(); }

}  // namespace kesttcs
