// Attestation identities: TPM_MakeIdentity makes an identity key and its binding; the service adds
// the three credentials from its credential files (storage/identity_credentials.h).
// TPM_ActivateIdentity releases the session key a privacy CA encrypted to the endorsement key.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_MakeIdentity (0x79): identityAuth (the new key's secret by ADIP), the chosen-identity digest
// of the label and the privacy CA's key, idIdentityKeyInfo (exactly one TPM_KEY template, else
// TCS_E_BAD_PARAMETER). pSrkAuth is optional, pOwnerAuth required (the OSAP session whose ADIP
// encrypted identityAuth). Outputs: the identity key, the identity binding, then the endorsement,
// platform and conformance credentials, which are read only when the TPM made the identity. A
// credential failure is the result even though the identity was made (ReadIdentityCredentials:
// TCS_E_FAIL without a readable, non-empty "EKCert.crt"); the outputs then come back all the same.
[[nodiscard]] TSS_RESULT Tcsip_MakeIdentity_Internal(
    TCS_CONTEXT_HANDLE hContext, const TPM_ENCAUTH& identityAuth,
    const TPM_CHOSENID_HASH& IDLabel_PrivCAHash, UINT32 idIdentityKeyInfoSize,
    const BYTE* idIdentityKeyInfo, TPM_AUTH* pSrkAuth, TPM_AUTH* pOwnerAuth,
    UINT32* idIdentityKeySize, BYTE** idIdentityKey, UINT32* pcIdentityBindingSize,
    BYTE** prgbIdentityBinding, UINT32* pcEndorsementCredentialSize,
    BYTE** prgbEndorsementCredential, UINT32* pcPlatformCredentialSize,
    BYTE** prgbPlatformCredential, UINT32* pcConformanceCredentialSize,
    BYTE** prgbConformanceCredential);

// TPM_ActivateIdentity (0x7A): the identity key idKey (loaded first; idKeyAuth optional) and the
// owner (ownerAuth required) open the blob the privacy CA encrypted to the endorsement key. The
// TPM_SYMMETRIC_KEY it holds goes to (*SymmetricKeySize, *SymmetricKey).
[[nodiscard]] TSS_RESULT Tcsip_ActivateTPMIdentity_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE idKey, UINT32 blobSize, const BYTE* blob,
    TPM_AUTH* idKeyAuth, TPM_AUTH* ownerAuth, UINT32* SymmetricKeySize, BYTE** SymmetricKey);

}  // namespace kesttcs
