// The key cache's side of the owner-held key list (storage/owner_held_keys.h): keys whose
// owner-evict bit is set stay in the TPM whoever holds them, so the list holds one reference on
// each in the key cache, as a context would, and the swapper never chooses them (the TPM would
// refuse to save or flush them).
//
// Locks: each function takes the cache mutex and the list's leaf mutex per step, never together,
// and sends TPM commands through the request manager with neither held.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// The start-up step: opens the list on `file` (owner_keys_open), asks the TPM for its loaded key
// handles (TPM_CAP_KEY_HANDLE, in the service's own context) and enters each listed key whose
// handle is loaded into the key cache under a new TCS handle, with its UUID and blob and one
// reference held by the list. A record whose handle is not loaded is dropped only while no earlier
// record matched: the match flag, once set, stays set for the records after it (kept as designed).
// Returns the list's or the TPM's failure; 0 otherwise.
[[nodiscard]] TSS_RESULT InitOwnerCtrlKey(const std::string& file);

// After the TPM set the owner-evict bit of the cached key `tcsKeyHandle` in `slot`: records it in
// the list with its exact blob (or its structure marshalled when the cache has no blob) and takes
// the list's reference. *uuid := the UUID it is listed under: the one of a record of the same slot,
// else the key's registered UUID, else the first free UUID of the TSS owner-evict range
// {0,0,0,0,0,{0,0,0,0,1,n}}. TCS_E_INVALID_KEY when the key is not cached; the list's failure.
[[nodiscard]] TSS_RESULT HoldKeyForOwner(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE slot,
                                         TSS_UUID* uuid);

// After the TPM cleared the bit: drops the record of `slot` and the list's reference on
// `tcsKeyHandle`, when there is one. Returns the list's failure or 0.
[[nodiscard]] TSS_RESULT ReleaseKeyFromOwner(TCS_KEY_HANDLE tcsKeyHandle, TPM_KEY_HANDLE slot);

// After TPM_OwnerClear, which flushed every owner-evict key: empties the list and marks each of
// its cached keys not loaded, dropping the list's references.
[[nodiscard]] TSS_RESULT ReleaseAllOwnerHeldKeys();

}  // namespace kesttcs
