// The TCS operations that use a loaded key by its TCS handle: creating a wrapped key under a parent
// and reading a key's public part. Each first makes the key resident (ensureKeyIsLoaded; a key
// that cannot be loaded gives TCS_E_INVALID_KEY) and then follows the pattern of the other
// authorised commands (tcsip_owner.h): the caller's session passes through untouched.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_CreateWrapKey (0x1F) under hWrappingKey: the two encrypted secrets (ADIP, computed by the
// client), keyInfo (exactly one TPM_KEY, sent as the client's bytes since its HMAC covers them,
// else TCS_E_BAD_PARAMETER), the OSAP session required. The new wrapped key's bytes go to
// (*keyDataSize, *keyData).
[[nodiscard]] TSS_RESULT Tcsip_CreateWrapKey_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hWrappingKey, const TPM_ENCAUTH& KeyUsageAuth,
    const TPM_ENCAUTH& KeyMigrationAuth, UINT32 keyInfoSize, const BYTE* keyInfo, TPM_AUTH* pAuth,
    UINT32* keyDataSize, BYTE** keyData);

// TPM_GetPubKey (0x21) of hKey, the key's session optional: its TPM_PUBKEY into
// (*pcPubKeySize, *prgbPubKey).
[[nodiscard]] TSS_RESULT Tcsip_GetPubKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey,
                                                  TPM_AUTH* pAuth, UINT32* pcPubKeySize,
                                                  BYTE** prgbPubKey);

}  // namespace kesttcs
