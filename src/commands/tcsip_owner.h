// The TCS operations that act on the TPM's owner, operator and global switches under an
// authorisation session: taking and clearing ownership, the owner's secret, the disable and clear
// switches, the owner's capability read, the endorsement key's public part, the lockout reset, the
// capability setter, the DIR write and the operator's secret.
//
// Every function follows one pattern: check the context (its result on failure), check pointers and
// the size bound (TCS_E_BAD_PARAMETER, nothing sent), check that each session is the caller's
// (TCS_E_INTERNAL_ERROR, nothing sent), marshal the command with its request trailer(s), send it
// with req_mgr_submit, and return the request manager's failure or the TPM's return code mapped as
// 0xE0280000 | code. A failure releases the session; a success frees a session sent with continue
// 0 in the table and reads the response trailer back into the caller's TPM_AUTH (nonceEven,
// continue flag, HMAC) for the caller to verify. Outputs are written only on success, variable-size
// ones as new blocks of the context's memory (TCS_E_OUTOFMEMORY when they cannot be allocated). A
// session marked required gives TCS_E_BAD_PARAMETER when null; an optional one chooses the tag.
//
// Locks: the auth mutex (and the TPM lock after it, to end a session), the TPM lock, and briefly
// the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_TakeOwnership (0x0D), owner session required. srkInfo must be one well-formed TPM_KEY (the
// new SRK's parameters), else TCS_E_BAD_PARAMETER. On success the key cache records the new SRK
// in place of the old one (replaceEntry under the SRK's handle) and its TPM_KEY bytes go to
// (*srkKeySize, *srkKey). Bound: encOwnerAuthSize +
// encSrkAuthSize + srkInfoSize + 65 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_TakeOwnership_Internal(
    TCS_CONTEXT_HANDLE hContext, TPM_PROTOCOL_ID protocolID, UINT32 encOwnerAuthSize,
    const BYTE* encOwnerAuth, UINT32 encSrkAuthSize, const BYTE* encSrkAuth, UINT32 srkInfoSize,
    const BYTE* srkInfo, TPM_AUTH* ownerAuth, UINT32* srkKeySize, BYTE** srkKey);

// TPM_OwnerClear (0x5B), owner session required. On success the owner-held key list is emptied
// (ReleaseAllOwnerHeldKeys) and the persistent-storage file is
// deleted too (registered keys cannot be loaded without the owner's SRK); its failure is returned.
[[nodiscard]] TSS_RESULT Tcsip_OwnerClear_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   TPM_AUTH* ownerAuth);

// TPM_ChangeAuthOwner (0x10): protocolID, newAuth, entityType; owner session required.
[[nodiscard]] TSS_RESULT Tcsip_ChangeAuthOwner_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TPM_PROTOCOL_ID protocolID,
                                                        const TPM_ENCAUTH& newAuth,
                                                        TPM_ENTITY_TYPE entityType,
                                                        TPM_AUTH* ownerAuth);

// TPM_OwnerSetDisable (0x6E): the one-byte state as given; owner session required.
[[nodiscard]] TSS_RESULT Tcsip_OwnerSetDisable_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TSS_BOOL disableState, TPM_AUTH* ownerAuth);

// TPM_DisableOwnerClear (0x5C), TPM_DisablePubekRead (0x7E), TPM_ResetLockValue (0x40): no
// parameters; owner session required.
[[nodiscard]] TSS_RESULT Tcsip_DisableOwnerClear_Internal(TCS_CONTEXT_HANDLE hContext,
                                                          TPM_AUTH* ownerAuth);
[[nodiscard]] TSS_RESULT Tcsip_DisablePubekRead_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         TPM_AUTH* ownerAuth);
[[nodiscard]] TSS_RESULT Tcsip_ResetLockValue_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TPM_AUTH* ownerAuth);

// TPM_GetCapabilityOwner (0x66), owner session required: the TPM's version and its non-volatile
// and volatile flag words.
[[nodiscard]] TSS_RESULT Tcsip_GetCapabilityOwner_Internal(TCS_CONTEXT_HANDLE hContext,
                                                           TPM_AUTH* pOwnerAuth,
                                                           TPM_VERSION* pVersion,
                                                           UINT32* pNonVolatileFlags,
                                                           UINT32* pVolatileFlags);

// The public endorsement key under the owner's session, as a TPM_PUBKEY blob into
// (*pubEndorsementKeySize, *pubEndorsementKey). A TPM 1.2 or the maker's own TPM is sent
// TPM_OwnerReadInternalPub (0x81) for TPM_KH_EK, which replaces the deprecated command there; any
// other TPM TPM_OwnerReadPubek (0x7D). The caller's HMAC covers the ordinal that is sent.
[[nodiscard]] TSS_RESULT Tcsip_OwnerReadPubek_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TPM_AUTH* ownerAuth,
                                                       UINT32* pubEndorsementKeySize,
                                                       BYTE** pubEndorsementKey);

// TPM_SetTempDeactivated (0x73) with the operator's session, or without one (tag 0x00C1, physical
// presence) when pOperatorAuth is null.
[[nodiscard]] TSS_RESULT Tcsip_SetTempDeactivated2_Internal(TCS_CONTEXT_HANDLE hContext,
                                                            TPM_AUTH* pOperatorAuth);

// TPM_SetCapability (0x3F): capArea, the subCap and value blobs; the owner's session is optional.
// Bound: subCapSize + valueSize + 22 (+ 45 with a session) <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_SetCapability_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      TPM_CAPABILITY_AREA capArea,
                                                      UINT32 subCapSize, const BYTE* subCap,
                                                      UINT32 valueSize, const BYTE* value,
                                                      TPM_AUTH* pOwnerAuth);

// TPM_DirWriteAuth (0x19): dirIndex and the new 20-byte contents; owner session required.
[[nodiscard]] TSS_RESULT Tcsip_DirWriteAuth_Internal(TCS_CONTEXT_HANDLE hContext,
                                                     TPM_DIRINDEX dirIndex,
                                                     const TPM_DIRVALUE& newContents,
                                                     TPM_AUTH* ownerAuth);

// TPM_SetOperatorAuth (0x74): the operator's new secret, tag 0x00C1 (physical presence).
[[nodiscard]] TSS_RESULT Tcsip_SetOperatorAuth_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        const TPM_SECRET& operatorAuth);

}  // namespace kesttcs
