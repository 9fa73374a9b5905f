// Swapping keys out of the TPM and back in with saved contexts, and bringing the key cache's
// resident flags back into agreement with the TPM. Keys are swapped only on the TDDL path: under
// TPM Base Services the base services keep keys resident, and everything here that would swap
// answers that there is nothing to do.
//
// Locks: saveKeyContext holds the cache mutex across its TPM commands (the cache mutex comes
// before the TPM lock); the other functions take the cache mutex per step and never hold it while
// they wait for the TPM, except ResetAllKeyStatus, which only updates flags under it.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Makes room by swapping out the least recently used key: under TBS returns 0; runs
// clearUnknownKeys (its error is returned); chooses, among cached keys that are resident, have a
// slot other than the SRK's, are not owner-held and are not `protectTcsHandle` (kNoTcsKeyHandle
// protects nothing), the one with the smallest load stamp, the newest on a tie; returns 0 when
// there is none (the caller asks the TPM again and counts its tries), else saveKeyContext's result
// for it.
[[nodiscard]] TSS_RESULT evictFirstKey(TCS_KEY_HANDLE protectTcsHandle);

// Swaps out the key in `tpmHandle`: TCS_E_BAD_PARAMETER for a resource type other than
// TPM_RT_KEY; TCS_E_FAIL when no cached key has that slot; 0 when it is swapped out already.
// Sends TPM_SaveContext (label "fosavekeycontext") on a new-style TPM, TPM_SaveKeyContext
// otherwise, and keeps the context in the cache entry; a context over 2048 bytes is refused
// with TCS_E_OUTOFMEMORY and the key stays resident. Then evicts the key; the entry keeps its old
// slot, so that the swap-in finds it, and is marked not resident. Holds the cache mutex
// throughout.
[[nodiscard]] TSS_RESULT saveKeyContext(UINT32 resourceType, TPM_KEY_HANDLE tpmHandle);

// Swaps in the key saved from `tpmHandle`: TCS_E_BAD_PARAMETER for a resource type other than
// TPM_RT_KEY; TCS_E_FAIL when no cached key has that slot; TCS_E_INVALID_KEY when it holds no
// saved context or no key structure. Makes room (one evictFirstKey) when the key does not fit,
// then sends TPM_LoadContext (the old slot as hint, keepHandle 1; contexts over 4096 bytes give
// TCS_E_OUTOFMEMORY) on a new-style TPM and drops the saved context, or TPM_LoadKeyContext
// otherwise and keeps it. On success writes the new slot to *newHandle and marks the entry
// resident; the caller moves it to the new slot (setSlotBySlot).
[[nodiscard]] TSS_RESULT internal_LoadContext(UINT32 resourceType, TPM_KEY_HANDLE tpmHandle,
                                              TPM_KEY_HANDLE* newHandle);

// Traces " tcs_utils:clearUnknownKeys.", reads the TPM's key handles (errors returned; under TBS
// stops here with 0); each listed handle that a cached key has marks that key resident, any other
// is evicted; an eviction error other than TPM_KEY_OWNER_CONTROL ends the walk and is returned.
[[nodiscard]] TSS_RESULT clearUnknownKeys(TCS_CONTEXT_HANDLE hContext);

// On the TDDL path: traces " tcs_utils:ResetAllKeyStatus.", reads the TPM's key handles, and under
// the cache mutex (traced "ResetAllKeyStatus: mem_cache_lock lock." and "...unlock.") marks every
// cached key not resident, then the first key with each listed slot resident. Under TBS returns 0.
[[nodiscard]] TSS_RESULT ResetAllKeyStatus();

// Marks the key `tcsKeyHandle` resident in `tpmHandle` with a fresh stamp and no saved context:
// for a cached key the loader sent to the TPM again. TCS_E_FAIL when it is not cached.
[[nodiscard]] TSS_RESULT setResidentByHandle(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE tpmHandle);

}  // namespace kesttcs
