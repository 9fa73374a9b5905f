#include "keys/key_eviction.h"

#include <algorithm>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "keys/key_commands.h"
#include "keys/mem_cache.h"
#include "storage/owner_held_keys.h"
#include "tpm/driver.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {

namespace {

constexpr TPM_KEY_HANDLE kEkHandle = 0x40000001;

}  // namespace

TSS_RESULT canILoadThisKey(const TPM_KEY_PARMS& parms, bool* canLoad) {
  *canLoad = true;
  if (driver_is_tbs()) return TSS_SUCCESS;
  TcsTracef(" tcs_utils:canILoadThisKey");
  bool fits = false;
  const TSS_RESULT result = CheckKeyFits(parms, &fits);
  *canLoad = result == TSS_SUCCESS && fits;
  return result;
}

bool isKeyLoaded(TPM_KEY_HANDLE tpmHandle) {
  if (tpmHandle == kSrkKeyHandle) return true;
  if (driver_is_tbs()) {
    const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(getHandleBySlot(tpmHandle));
    return entry.has_value() && entry->inTpm;
  }
  std::vector<TPM_KEY_HANDLE> handles;
  if (GetLoadedKeyHandles(&handles) != TSS_SUCCESS) return false;
  return std::find(handles.begin(), handles.end(), tpmHandle) != handles.end();
}

TSS_RESULT Tcsip_EvictKey_Internal(TPM_KEY_HANDLE tpmHandle) {
  TpmLockGuard tpm(TpmIsVersion12() ? TPM_ORD_FlushSpecific : TPM_ORD_EvictKey);
  const TSS_RESULT result = SendEvictKey(tpmHandle);
  TcsTracef("tcs_utils:Tcsip_EvictKey_Internal:%s TpmHandle=0x%.8X",
            result == TSS_SUCCESS ? "ok" : "fail", tpmHandle);
  return result;
}

TSS_RESULT EvictTpmKey(TPM_KEY_HANDLE tpmHandle) {
  const TSS_RESULT result = Tcsip_EvictKey_Internal(tpmHandle);
  return result == TpmResult(TPM_KEY_OWNER_CONTROL) ? TSS_SUCCESS : result;
}

TSS_RESULT evictKeyByHandle(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE tcsKeyHandle) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  const TPM_KEY_HANDLE slot = getSlotByHandle(tcsKeyHandle);
  if (slot == kNoTpmHandle) return TSS_SUCCESS;
  if (TSS_RESULT rc = Tcsip_EvictKey_Internal(slot)) return rc;
  return setSlotBySlot(slot, kNoTpmHandle);
}

TSS_RESULT Tcsip_EvictKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE tcsKeyHandle) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  if (TSS_RESULT rc = decKeyRefCount(tcsKeyHandle)) return rc;
  removeUnreferencedKeys();
  return TSS_SUCCESS;
}

TSS_RESULT clearKeysFromChip(TCS_CONTEXT_HANDLE /*hContext*/) {
  TcsTracef(" tcs_utils:clearKeysFromChip");
  std::vector<TPM_KEY_HANDLE> handles;
  if (TSS_RESULT rc = GetLoadedKeyHandles(&handles)) return rc;
  for (TPM_KEY_HANDLE handle : handles) {
    // Owner-evict keys stay until the owner clears their bit; the TPM would refuse them.
    if (handle == kSrkKeyHandle || handle == kEkHandle || owner_keys_holds(handle)) continue;
    if (TSS_RESULT rc = Tcsip_EvictKey_Internal(handle)) return rc;
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
