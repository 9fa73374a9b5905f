// When two keys are the same key to the cache. A key blob a client loads again is recognised by
// its public key and its wrapped private part; the version and parameter comparisons serve the
// callers that need a stricter match.
#pragma once

#include <span>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// Equal lengths and equal modulus bytes.
bool pubKeysEqual(const TPM_STORE_PUBKEY& a, const TPM_STORE_PUBKEY& b);

// Same public key, same encSize, then: both with encData, equal bytes; exactly one without, not
// equal; both without, equal (a structure stripped of its private part still matches).
bool keysEqual(const TPM_KEY& a, const TPM_KEY& b);

// All four version bytes.
bool versionsEqual(const TPM_STRUCT_VER& a, const TPM_STRUCT_VER& b);

// algorithmID, encScheme, sigScheme, parmSize, then the parms bytes.
bool keyParmsEqual(const TPM_KEY_PARMS& a, const TPM_KEY_PARMS& b);

// True when `key`'s encData begins with `encData`, compared over the key's encSize (a shorter
// `encData` never matches).
bool holdsEncData(const TPM_KEY& key, std::span<const BYTE> encData);

}  // namespace kesttcs
