// Key loading: making sure a key a client names by its TCS key handle sits in a TPM slot.
//
// The key cache that gives this its body has not landed yet: until it does, no TCS key handle
// resolves and ensureKeyIsLoaded fails, so every operation naming a key answers TCS_E_FAIL.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Loads the key `keyHandle` of `hContext` (and its parents) when it is not in the TPM and writes
// its TPM slot to *slot. For now: writes 0 and returns TCS_E_FAIL.
[[nodiscard]] TSS_RESULT ensureKeyIsLoaded(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                           TPM_KEY_HANDLE* slot);

}  // namespace kesttcs
