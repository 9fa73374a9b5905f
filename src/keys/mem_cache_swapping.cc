// Swapping keys out and in, and the resident flags: the key cache's side of key_swapping.h.
#include <algorithm>
#include <cstring>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "keys/key_commands.h"
#include "keys/key_eviction.h"
#include "keys/key_swapping.h"
#include "keys/mem_cache_snapshot.h"
#include "keys/mem_cache_table.h"
#include "storage/owner_held_keys.h"
#include "tpm/driver.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

constexpr std::array<BYTE, 16> kSaveContextLabel = {'f', 'o', 's', 'a', 'v', 'e', 'k', 'e',
                                                    'y', 'c', 'o', 'n', 't', 'e', 'x', 't'};
// The most a swap-in accepts; the swap-out never keeps more than kContextBlobSize.
constexpr UINT32 kMaxLoadableContext = 4096;

// The saved context: TPM_SaveContext on a new-style TPM, TPM_SaveKeyContext otherwise.
TSS_RESULT SaveContextOf(TPM_KEY_HANDLE tpmHandle, std::vector<BYTE>* context) {
  const bool newStyle = TpmIsVersion12();
  KeyCommand command(newStyle ? TPM_ORD_SaveContext : TPM_ORD_SaveKeyContext);
  const TSS_RESULT sent =
      newStyle ? command.Run(TPM_TAG_RQU_COMMAND, tpmHandle, TPM_RT_KEY, kSaveContextLabel)
               : command.Run(TPM_TAG_RQU_COMMAND, tpmHandle);
  if (sent != TSS_SUCCESS) return sent;
  UINT32 size = 0;
  if (TSS_RESULT rc = command.Unload(&size)) return rc;
  return UnloadBlob_BYTES(command.Outputs(), size, context);
}

TSS_RESULT LoadContextOf(TPM_KEY_HANDLE hint, std::span<const BYTE> context,
                         TPM_KEY_HANDLE* newHandle) {
  const bool newStyle = TpmIsVersion12();
  KeyCommand command(newStyle ? TPM_ORD_LoadContext : TPM_ORD_LoadKeyContext);
  const auto size = static_cast<UINT32>(context.size());
  const TSS_RESULT sent = newStyle ? command.Run(TPM_TAG_RQU_COMMAND, hint, BYTE{1}, size, context)
                                   : command.Run(TPM_TAG_RQU_COMMAND, size, context);
  if (sent != TSS_SUCCESS) return sent;
  return command.Unload(newHandle);
}

// The entry swapped out of `tpmHandle`: a resident key that the TPM gave the same slot since is
// not it.
auto SwappedOutOf(TPM_KEY_HANDLE tpmHandle) {
  return [tpmHandle](const mem_cache_entry& e) { return e.tpmHandle == tpmHandle && !e.inTpm; };
}

}  // namespace

TSS_RESULT evictFirstKey(TCS_KEY_HANDLE protectTcsHandle) {
  if (driver_is_tbs()) return TSS_SUCCESS;
  if (TSS_RESULT rc = clearUnknownKeys(kInternalContextHandle)) return rc;
  TPM_KEY_HANDLE victim = kNoTpmHandle;
  {
    MemCacheTable& table = CacheTable();
    MutexLock lock(table.mu);
    const mem_cache_entry* oldest = nullptr;
    for (const mem_cache_entry& e : table.entries) {
      // The TPM refuses to save or flush an owner-evict key.
      if (e.tpmHandle == kNoTpmHandle || e.tpmHandle == kSrkKeyHandle || !e.inTpm ||
          e.tcsKeyHandle == protectTcsHandle || owner_keys_holds(e.tpmHandle)) {
        continue;
      }
      if (oldest == nullptr || e.loadStamp < oldest->loadStamp) oldest = &e;
    }
    if (oldest != nullptr) victim = oldest->tpmHandle;
  }
  if (victim == kNoTpmHandle) return TSS_SUCCESS;
  return saveKeyContext(TPM_RT_KEY, victim);
}

TSS_RESULT saveKeyContext(UINT32 resourceType, TPM_KEY_HANDLE tpmHandle) {
  if (resourceType != TPM_RT_KEY) return TCS_E_BAD_PARAMETER;
  MemCacheTable& table = CacheTable();
  // The TPM lock before the cache mutex, as wherever both are held (see RemoveKeys).
  TpmLockGuard tpm(TPM_ORD_SaveContext);
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, BySlot(tpmHandle));
  if (entry == nullptr) return TCS_E_FAIL;
  if (!entry->inTpm) return TSS_SUCCESS;
  std::vector<BYTE> context;
  if (TSS_RESULT rc = SaveContextOf(tpmHandle, &context)) return rc;
  entry->contextBlob.fill(0);
  if (context.size() > kContextBlobSize) {
    entry->contextSize = 0;
    // The TPM still holds the key; the cache must not lose track of it.
    return TCS_E_OUTOFMEMORY;
  }
  std::copy(context.begin(), context.end(), entry->contextBlob.begin());
  entry->contextSize = static_cast<UINT32>(context.size());
  entry->inTpm = false;
  if (TSS_RESULT rc = Tcsip_EvictKey_Internal(tpmHandle)) return rc;
  entry->inTpm = false;
  countKeySwapOut();
  return TSS_SUCCESS;
}

TSS_RESULT internal_LoadContext(UINT32 resourceType, TPM_KEY_HANDLE tpmHandle,
                                TPM_KEY_HANDLE* newHandle) {
  if (resourceType != TPM_RT_KEY) return TCS_E_BAD_PARAMETER;
  std::optional<mem_cache_entry> saved = LookUp(
      SwappedOutOf(tpmHandle), [](const mem_cache_entry& e) { return e; },
      std::optional<mem_cache_entry>());
  if (!saved) return TCS_E_FAIL;
  if (saved->contextSize == 0) return TCS_E_INVALID_KEY;
  bool fits = false;
  if (TSS_RESULT rc = canILoadThisKey(saved->key.algorithmParms, &fits)) return rc;
  if (!fits) static_cast<void>(evictFirstKey(kNoTcsKeyHandle));
  const bool newStyle = TpmIsVersion12();
  if (newStyle && saved->contextSize > kMaxLoadableContext) return TCS_E_OUTOFMEMORY;
  const std::span<const BYTE> context(saved->contextBlob.data(), saved->contextSize);
  TPM_KEY_HANDLE loaded = kNoTpmHandle;
  if (TSS_RESULT rc = LoadContextOf(tpmHandle, context, &loaded)) return rc;
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, ByTcsHandle(saved->tcsKeyHandle));
  if (entry != nullptr) {
    entry->inTpm = true;
    if (newStyle) entry->contextSize = 0;
  }
  countKeySwapIn();
  *newHandle = loaded;
  return TSS_SUCCESS;
}

TSS_RESULT clearUnknownKeys(TCS_CONTEXT_HANDLE /*hContext*/) {
  TcsTracef(" tcs_utils:clearUnknownKeys.");
  std::vector<TPM_KEY_HANDLE> handles;
  if (TSS_RESULT rc = GetLoadedKeyHandles(&handles)) return rc;
  if (driver_is_tbs()) return TSS_SUCCESS;
  MemCacheTable& table = CacheTable();
  for (TPM_KEY_HANDLE handle : handles) {
    bool known = false;
    {
      MutexLock lock(table.mu);
      if (mem_cache_entry* entry = FindEntry(table, BySlot(handle))) {
        entry->inTpm = true;
        known = true;
      }
    }
    if (known) continue;
    const TSS_RESULT result = Tcsip_EvictKey_Internal(handle);
    if (result != TSS_SUCCESS && result != TpmResult(TPM_KEY_OWNER_CONTROL)) return result;
  }
  return TSS_SUCCESS;
}

TSS_RESULT ResetAllKeyStatus() {
  if (driver_is_tbs()) return TSS_SUCCESS;
  TcsTracef(" tcs_utils:ResetAllKeyStatus.");
  std::vector<TPM_KEY_HANDLE> handles;
  if (TSS_RESULT rc = GetLoadedKeyHandles(&handles)) return rc;
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  TcsTracef("ResetAllKeyStatus: mem_cache_lock lock.");
  for (mem_cache_entry& e : table.entries) e.inTpm = false;
  for (TPM_KEY_HANDLE handle : handles) {
    if (mem_cache_entry* entry = FindEntry(table, BySlot(handle))) entry->inTpm = true;
  }
  TcsTracef("ResetAllKeyStatus: mem_cache_lock unlock.");
  return TSS_SUCCESS;
}

TSS_RESULT setResidentByHandle(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle) {
  if (TSS_RESULT rc = setSlotByHandle(tcsKeyHandle, tpmHandle)) return rc;
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  mem_cache_entry* entry = FindEntry(table, ByTcsHandle(tcsKeyHandle));
  if (entry == nullptr) return TCS_E_FAIL;
  entry->inTpm = true;
  entry->contextSize = 0;
  return TSS_SUCCESS;
}

}  // namespace kesttcs
