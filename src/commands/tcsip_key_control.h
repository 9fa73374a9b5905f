// TPM_KeyControlOwner: the owner's control over a loaded key's attributes. Setting the owner-evict
// bit keeps the key in the TPM across restarts; the service then remembers it in the owner-held key
// list (storage/owner_held_keys.h) and keeps it cached, and clearing the bit forgets it again.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_KeyControlOwner (0x23) on the key hTcsKey (made resident first; TCS_E_INVALID_KEY when it
// cannot be): its slot, its TPM_PUBKEY (exactly one, else TCS_E_BAD_PARAMETER), bitName and
// bitValue, under the owner's session (required). After the TPM accepted
// TPM_KEY_CONTROL_OWNER_EVICT set, the key joins the owner-held list and *pUuidData is the UUID it
// is listed under; cleared, it leaves the list and *pUuidData is the UUID it was listed under (the
// NULL UUID when it was not). Other bits leave the list alone and give the NULL UUID. Failures of
// the list after the TPM accepted are returned.
[[nodiscard]] TSS_RESULT Tcsip_KeyControlOwner_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TCS_KEY_HANDLE hTcsKey,
                                                        UINT32 ulPubKeyLength,
                                                        const BYTE* rgbPubKey, UINT32 attribName,
                                                        TSS_BOOL attribValue, TPM_AUTH* pOwnerAuth,
                                                        TSS_UUID* pUuidData);

}  // namespace kesttcs
