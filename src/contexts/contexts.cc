#include "contexts/contexts.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "base/mutex.h"

namespace kesttcs {
namespace {

constexpr UINT32 kFirstHandleCounter = 0xA0000000;
constexpr UINT32 kSeedMask = 0x00FF0000;
constexpr UINT32 kRandomPartMask = 0x00FFF000;

// The keys one context references, each at most once, oldest first.
using KeyReferences = std::vector<TCS_KEY_HANDLE>;

struct ContextList {
  // The context-list mutex: before the key cache lock, never with the memory-table mutex.
  Mutex mu;
  // Open contexts by handle: a client may hold many, and every call looks its context up.
  std::unordered_map<TCS_CONTEXT_HANDLE, KeyReferences> records GUARDED_BY(mu);
  UINT32 counter GUARDED_BY(mu) = kFirstHandleCounter;
  bool notSeeded GUARDED_BY(mu) = true;
  // Replaced as a whole on registration, so a caller can keep using its snapshot without the mutex.
  std::shared_ptr<const ContextHooks> hooks GUARDED_BY(mu);
};

// Created by ctx_init, destroyed by ctx_final; other functions run between the two.
std::unique_ptr<ContextList> g_contexts;

ContextHooks DefaultHooks() {
  return ContextHooks{
      .addKeyReference = [](TCS_KEY_HANDLE) { return TSS_SUCCESS; },
      .dropKeyReference = [](TCS_KEY_HANDLE) {},
      .releaseUnreferencedKeys = [] {},
      .releaseContextSessions = [](TCS_CONTEXT_HANDLE) {},
      .endExclusiveTransport = [](TCS_CONTEXT_HANDLE) {},
  };
}

template <typename F>
void ReplaceIfSet(F& target, F& source) {
  if (source) target = std::move(source);
}

unsigned SecondsNow() { return static_cast<unsigned>(std::time(nullptr)); }

// Makes a context handle: a counter with a random part. The first call seeds bits 16..23 of the
// counter; every handle ORs in bits 12..23 of a value drawn from the generator seeded with the next
// second, so handles made within one second differ only by their counter part.
TCS_CONTEXT_HANDLE TCSMakehContext(ContextList& list) REQUIRES(list.mu) {
  if (list.notSeeded) {
    std::srand(SecondsNow());
    list.counter |= (static_cast<UINT32>(std::rand()) << 16) & kSeedMask;
    list.notSeeded = false;
  }
  std::srand(SecondsNow() + 1);
  const UINT32 randomPart = (static_cast<UINT32>(std::rand()) << 8) & kRandomPartMask;
  if (list.counter == 0) ++list.counter;  // only after wrap-around
  return list.counter++ | randomPart;
}

bool HandleInUse(ContextList& list, TCS_CONTEXT_HANDLE hContext) REQUIRES(list.mu) {
  return hContext == kInternalContextHandle || list.records.contains(hContext);
}

std::shared_ptr<const ContextHooks> Hooks(ContextList& list) EXCLUDES(list.mu) {
  MutexLock lock(list.mu);
  return list.hooks;
}

}  // namespace

TSS_RESULT ctx_init() {
  ctx_final();
  try {
    auto list = std::make_unique<ContextList>();
    {
      MutexLock lock(list->mu);
      list->hooks = std::make_shared<const ContextHooks>(DefaultHooks());
    }
    if (!context_memory_init()) return TCS_E_OUTOFMEMORY;
    g_contexts = std::move(list);
  } catch (const std::bad_alloc&) {
    context_memory_final();
    return TCS_E_OUTOFMEMORY;
  }
  return TSS_SUCCESS;
}

void ctx_final() {
  g_contexts.reset();
  context_memory_final();
}

void ctx_RegisterHooks(ContextHooks hooks) {
  if (g_contexts == nullptr) return;
  ContextList& list = *g_contexts;
  MutexLock lock(list.mu);
  try {
    auto merged = std::make_shared<ContextHooks>(*list.hooks);
    ReplaceIfSet(merged->addKeyReference, hooks.addKeyReference);
    ReplaceIfSet(merged->dropKeyReference, hooks.dropKeyReference);
    ReplaceIfSet(merged->releaseUnreferencedKeys, hooks.releaseUnreferencedKeys);
    ReplaceIfSet(merged->releaseContextSessions, hooks.releaseContextSessions);
    ReplaceIfSet(merged->endExclusiveTransport, hooks.endExclusiveTransport);
    list.hooks = std::move(merged);
  } catch (const std::bad_alloc&) {
    // Registration runs at start-up; keeping the previous hooks is all that can be done.
  }
}

TSS_RESULT Tcsi_OpenContext_Internal(TCS_CONTEXT_HANDLE* hContext) {
  TcsTrace("Tcsi_OpenContext_Internal", nullptr);
  if (hContext == nullptr) return TCS_E_BAD_PARAMETER;
  *hContext = 0;
  if (g_contexts == nullptr) return TCS_E_FAIL;
  ContextList& list = *g_contexts;
  MutexLock lock(list.mu);
  TCS_CONTEXT_HANDLE handle;
  do {
    handle = TCSMakehContext(list);
  } while (HandleInUse(list, handle));
  try {
    list.records.emplace(handle, KeyReferences());
  } catch (const std::bad_alloc&) {
    return TCS_E_FAIL;  // the handle is skipped, as the counter has moved on
  }
  *hContext = handle;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_CloseContext_Internal(TCS_CONTEXT_HANDLE hContext) {
  if (ctx_ValidateContext(hContext) != TSS_SUCCESS) return TCS_E_INVALID_CONTEXT;
  if (g_contexts == nullptr) return TSS_SUCCESS;  // the internal context, nothing to release yet
  ContextList& list = *g_contexts;
  const std::shared_ptr<const ContextHooks> hooks = Hooks(list);
  hooks->releaseContextSessions(hContext);
  {
    MutexLock lock(list.mu);
    auto record = list.records.find(hContext);
    if (record != list.records.end()) {
      const KeyReferences& keys = record->second;
      std::for_each(keys.rbegin(), keys.rend(),
                    [&](TCS_KEY_HANDLE k) { hooks->dropKeyReference(k); });
      list.records.erase(record);
    }
  }
  TcsTracef("tcscm:Tcsi_CloseContext_Internal:key_mgr_ref_count hcontext=0x%.8X", hContext);
  hooks->releaseUnreferencedKeys();
  hooks->endExclusiveTransport(hContext);
  ctx_FreeContextMemory(hContext);
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_FreeMemory_Internal(TCS_CONTEXT_HANDLE hContext, BYTE* pMemory) {
  if (ctx_ValidateContext(hContext) != TSS_SUCCESS) return TCS_E_INVALID_CONTEXT;
  if (pMemory == nullptr) {
    ctx_FreeContextMemory(hContext);
  } else {
    // A pointer the context does not own is not the client's error to hear about.
    (void)ctx_ReleaseMemory(hContext, pMemory);
  }
  return TSS_SUCCESS;
}

TSS_RESULT ctx_ValidateContext(TCS_CONTEXT_HANDLE hContext) {
  if (hContext == kInternalContextHandle) return TSS_SUCCESS;
  if (g_contexts == nullptr) return TCS_E_INVALID_CONTEXT;
  ContextList& list = *g_contexts;
  MutexLock lock(list.mu);
  return list.records.contains(hContext) ? TSS_SUCCESS : TCS_E_INVALID_CONTEXT;
}

TSS_RESULT ctx_AddKeyReference(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle) {
  if (g_contexts == nullptr) return TCS_E_FAIL;
  ContextList& list = *g_contexts;
  MutexLock lock(list.mu);
  auto record = list.records.find(hContext);
  if (record == list.records.end()) return TCS_E_FAIL;
  KeyReferences& keys = record->second;
  if (std::find(keys.begin(), keys.end(), keyHandle) != keys.end()) return TSS_SUCCESS;
  try {
    keys.push_back(keyHandle);
  } catch (const std::bad_alloc&) {
    return TCS_E_OUTOFMEMORY;
  }
  return list.hooks->addKeyReference(keyHandle);
}

UINT32 ctx_CountContexts() {
  if (g_contexts == nullptr) return 0;
  ContextList& list = *g_contexts;
  MutexLock lock(list.mu);
  return static_cast<UINT32>(list.records.size());
}

}  // namespace kesttcs
