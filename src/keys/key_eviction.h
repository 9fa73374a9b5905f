// Whether keys fit and are resident in the TPM, and removing them from it for good: for one key
// (by TPM slot or TCS handle), for a client's key reference, and for every key the TPM holds.
//
// Under TPM Base Services (driver_is_tbs) the base services keep keys resident themselves, so the
// questions answer "yes" from the key cache and nothing is swapped. A "new-style" TPM below is a
// TPM 1.2 (TpmIsVersion12): it takes TPM_FlushSpecific and the TPM 1.2 context commands.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// Whether a key with `parms` fits in the TPM now: TPM_GetCapability(TPM_CAP_CHECK_LOADED) with the
// packed parameters, *canLoad := the answer's first byte; traces " tcs_utils:canILoadThisKey".
// Under TBS *canLoad := true and nothing is sent. On an error *canLoad := false and the error is
// returned.
[[nodiscard]] TSS_RESULT canILoadThisKey(const TPM_KEY_PARMS& parms, bool* canLoad);

// True for the SRK. Under TBS: the resident flag of the cached key in `tpmHandle`. Otherwise:
// whether the TPM lists `tpmHandle` among its key handles (false when it cannot be asked).
bool isKeyLoaded(TPM_KEY_HANDLE tpmHandle);

// Removes the key in `tpmHandle` from the TPM: TPM_FlushSpecific on a new-style TPM, TPM_EvictKey
// otherwise, at normal priority outside the request manager's admission rules (keys must make room
// during a vendor sequence too). With logging on traces "tcs_utils:Tcsip_EvictKey_Internal:ok
// TpmHandle=0x%.8X" or "...:fail TpmHandle=0x%.8X". Returns the TPM's result; leaves the key cache
// alone. Takes the TPM lock (recursive; a cache lock held must have been taken first).
[[nodiscard]] TSS_RESULT Tcsip_EvictKey_Internal(TPM_KEY_HANDLE tpmHandle);

// The same, except that TPM_KEY_OWNER_CONTROL (a key only the owner may evict, 0xE0280044) counts
// as success: for a cache that forgets the key either way.
[[nodiscard]] TSS_RESULT EvictTpmKey(TPM_KEY_HANDLE tpmHandle);

// Drops the key `tcsKeyHandle` from the TPM but keeps it cached (it is reloaded from its blob when
// next used): the context's check result; 0 when the key has no slot; else the eviction's result,
// and on success the cached key's slot is cleared (setSlotBySlot to kNoTpmHandle).
[[nodiscard]] TSS_RESULT evictKeyByHandle(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE tcsKeyHandle);

// The client's eviction of a key: checks the context, drops one reference (decKeyRefCount) and,
// when the key is cached, removes every key no context references any more (removeUnreferencedKeys,
// which evicts them from the TPM). A key another context still holds stays loaded. The key stays
// in the caller's list of references. TCS_E_FAIL for a key that is not cached.
[[nodiscard]] TSS_RESULT Tcsip_EvictKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                 TCS_KEY_HANDLE tcsKeyHandle);

// Traces " tcs_utils:clearKeysFromChip", reads the TPM's key handles and evicts each, in the TPM's
// order, except the SRK (0x40000000), the EK (0x40000001) and the owner-held keys (which the TPM
// refuses to flush); the first failure ends the walk and is returned. The key cache is not
// touched.
[[nodiscard]] TSS_RESULT clearKeysFromChip(TCS_CONTEXT_HANDLE hContext);

}  // namespace kesttcs
