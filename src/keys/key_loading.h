// Key loading: putting keys into the TPM at a client's request (by blob or by UUID) and, before any
// command that uses a key, making sure the key and its parents are resident.
//
// Every loaded key is recorded in the key cache (one TCS handle per key: a blob loaded again while
// cached keeps its handle) and referenced by the loading context. A key is reloaded from the exact
// bytes it was first loaded from, when the cache has them, because the unpacked structure drops key
// flags the TPM's digest covers. Keys under the SRK are authorised by the service itself with the
// SRK's secret when it is known (srk_auth.h); keys under any other parent that needs authorisation
// are never reloaded silently.
//
// No lock is held across a whole load: each key cache operation and each TPM command takes its own
// lock, so two clients loading the same key at once may both send it; the second finds the first's
// entry and reuses its TCS handle.
#pragma once

#include <optional>

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// Makes sure the key `keyHandle` is resident and writes its slot to *slot: a key without a slot is
// loaded from its cached structure (LoadKeyShim_New); a swapped-out one is swapped in
// (internal_LoadContext) or, when its saved context is lost, loaded again from its cached blob.
// The key then becomes the most recently used. TCS_E_INVALID_KEY when it cannot be made resident
// Traces "ensureKeyIsLoaded: ..." lines.
[[nodiscard]] TSS_RESULT ensureKeyIsLoaded(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                           TPM_KEY_HANDLE* slot);

// Loads `key` with its ancestors and writes its slot to *slot: a resident key answers at once; an
// unknown parent is loaded by `parentUuid` when given; a parent (other than the SRK) that needs
// authorisation fails with TCS_E_INVALID_KEY and the trace "Parent key need auth,LoadKeyShim_New
// Fail". Loads without authorisation through loadKeyByBlob.
[[nodiscard]] TSS_RESULT LoadKeyShim_New(TCS_CONTEXT_HANDLE hContext, const TPM_KEY& key,
                                         std::optional<TSS_UUID> parentUuid, TPM_KEY_HANDLE* slot);

// TPM_LoadKey2 (0x41) of the blob under hUnwrappingKey: parent made resident first, a blob already
// cached and resident loaded without authorisation sends no load command, room made by up to four
// swaps, the SRK's children authorised by the service when pAuth is null, the key recorded and
// referenced by the context. With pAuth the session must be the context's (TCS_E_INTERNAL_ERROR);
// its response trailer is written back, and any failure releases it. TCS_E_INVALID_KEY when the
// parent cannot be loaded or no room can be made; parse and TPM errors pass through.
[[nodiscard]] TSS_RESULT Tcsip_LoadKey2ByBlob_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TCS_KEY_HANDLE hUnwrappingKey,
                                                       UINT32 cWrappedKeyBlobSize,
                                                       const BYTE* rgbWrappedKeyBlob,
                                                       TPM_AUTH* pAuth, TCS_KEY_HANDLE* phKeyTCSI);

// TPM_LoadKey (0x20), as above with these differences: a parent that has a slot is used as it
// stands, the service never authorises the SRK's children itself, and the TPM slot is returned too
// (*phKeyHMAC).
[[nodiscard]] TSS_RESULT Tcsip_LoadKeyByBlob_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      TCS_KEY_HANDLE hUnwrappingKey,
                                                      UINT32 cWrappedKeyBlobSize,
                                                      const BYTE* rgbWrappedKeyBlob,
                                                      TPM_AUTH* pAuth, TCS_KEY_HANDLE* phKeyTCSI,
                                                      TCS_KEY_HANDLE* phKeyHMAC);

// The LoadKey2 form on a TPM 1.2, the LoadKey form otherwise; both handles written.
[[nodiscard]] TSS_RESULT loadKeyByBlob(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hUnwrappingKey,
                                       UINT32 cWrappedKeyBlobSize, const BYTE* rgbWrappedKeyBlob,
                                       TPM_AUTH* pAuth, TCS_KEY_HANDLE* phKeyTCSI,
                                       TPM_KEY_HANDLE* phKeySlot);

// Loads the key registered as KeyUUID with its registered ancestors, without authorisation (the
// service authorises the SRK's children itself; pLoadKeyInfo is not used). A key already resident
// is only referenced. TCS_E_KEY_NOT_REGISTERED for an unknown UUID (the SRK's is built from the
// TPM's SRK when storage has no record); TCS_E_INVALID_KEY when the parent chain cannot be loaded.
[[nodiscard]] TSS_RESULT Tcsip_LoadKeyByUUID_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      const TSS_UUID& KeyUUID,
                                                      TCS_LOADKEY_INFO* pLoadKeyInfo,
                                                      TCS_KEY_HANDLE* phKeyTCSI);

}  // namespace kesttcs
