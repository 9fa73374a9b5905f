// The TCS operations on registered keys, over persistent storage (persistent_storage.h). Each first
// validates hContext and returns TCS_E_INVALID_CONTEXT for an unknown one; outputs are allocated in
// the context's memory (getSomeMemory). None takes the API lock.
#pragma once

#include <cstddef>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The algorithm Tcsip_GetRegisteredKeyByPublicInfo accepts: RSA.
inline constexpr TPM_ALGORITHM_ID kTpmAlgRsa = 1;
// Blobs handed out by the single-key operations are read into a buffer of this size.
inline constexpr UINT16 kRegisteredBlobLimit = 1024;
// Enumeration reads blobs (of keys the key cache does not hold) into a buffer of this size.
inline constexpr UINT16 kEnumerationBlobLimit = 2048;
// The ancestors chain of an enumeration by UUID holds at most this many keys.
inline constexpr std::size_t kMaxKeyChain = 10;

// Registers the key blob rgbKey[cKeySize] as KeyUUID under WrappingKeyUUID (vendor data is not
// stored). Checks and write are one step under the storage file mutex. Returns 0;
// TCS_E_KEY_NOT_REGISTERED when the wrapping key is not registered (the SRK always is);
// TCS_E_KEY_ALREADY_REGISTERED when KeyUUID is (the SRK UUID always is); TCS_E_FAIL when the blob
// does not parse as a TCPA_KEY or writing fails; TCS_E_INTERNAL_ERROR when storage is not open.
[[nodiscard]] TSS_RESULT Tcsi_RegisterKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   const TSS_UUID& WrappingKeyUUID,
                                                   const TSS_UUID& KeyUUID, UINT32 cKeySize,
                                                   const BYTE* rgbKey, UINT32 cVendorDataSize,
                                                   const BYTE* gbVendorData);

// Unregisters KeyUUID (removeRegisteredKey). Returns 0, TCS_E_KEY_NOT_REGISTERED, or TCS_E_FAIL
// when the file could not be written (the key stays registered).
[[nodiscard]] TSS_RESULT Tcsip_UnregisterKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      const TSS_UUID& KeyUUID);

// The registered keys as TSS_KM_KEYINFO: with a null pKeyUUID every valid record in index order;
// with a UUID that key and its ancestors, walking up until a key whose parent is the NULL UUID, a
// parent not in the index, or 10 keys. versionInfo and bAuthDataUsage come from the key cache
// when it holds the key (fIsLoaded then says whether it is in the TPM), else from the stored blob
// (fIsLoaded 0); vendor data is always empty. Writes the count and the array (null when empty).
// Returns 0; TCS_E_BAD_PARAMETER for null outputs; TCS_E_KEY_NOT_REGISTERED for an unregistered
// pKeyUUID; TCS_E_INTERNAL_ERROR when a blob over 2048 bytes or a failed read ends the enumeration;
// TCS_E_OUTOFMEMORY. The count is 0 after any failure. Takes the storage file and index mutexes,
// and through the hook the key cache lock.
[[nodiscard]] TSS_RESULT Tcsi_EnumRegisteredKeys_Internal(TCS_CONTEXT_HANDLE hContext,
                                                          const TSS_UUID* pKeyUUID,
                                                          UINT32* pcKeyHierarchySize,
                                                          TSS_KM_KEYINFO** ppKeyHierarchy);

// One key's TSS_KM_KEYINFO from its stored blob (read into 1024 bytes), fIsLoaded always 0.
// Returns 0; TCS_E_KEY_NOT_REGISTERED when the key is not registered or its blob is over 1024
// bytes; TCS_E_FAIL when its parent cannot be found; TCS_E_BAD_PARAMETER; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_GetRegisteredKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        const TSS_UUID& KeyUUID,
                                                        TSS_KM_KEYINFO** ppKeyInfo);

// A copy of the key blob registered as KeyUUID: an owner-held key of that UUID first (marshalled
// as a TCPA_KEY), else the stored blob. Returns 0; TCS_E_KEY_NOT_REGISTERED when there is none or
// it is over 1024 bytes; TCS_E_BAD_PARAMETER; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_GetRegisteredKeyBlob_Internal(TCS_CONTEXT_HANDLE hContext,
                                                            const TSS_UUID& KeyUUID,
                                                            UINT32* pcKeySize, BYTE** prgbKey);

// The stored blob of the registered key whose RSA modulus is rgbPublicInfo (the bare modulus).
// Returns 0; TCS_E_FAIL for an algorithm other than RSA; TCS_E_KEY_NOT_REGISTERED when no key has
// that modulus or its blob is over 1024 bytes; TCS_E_BAD_PARAMETER; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsip_GetRegisteredKeyByPublicInfo_Internal(
    TCS_CONTEXT_HANDLE hContext, TPM_ALGORITHM_ID algID, UINT32 ulPublicInfoLength,
    const BYTE* rgbPublicInfo, UINT32* keySize, BYTE** keyBlob);

}  // namespace kesttcs
