// The TCS operations on a revocable endorsement key: making one (with the reset secret that later
// revokes it) and revoking it. Neither carries a session; the TPM asks for physical presence to
// revoke.
//
// Failures as every command (tcsip_nv.h): context, pointers and size bound before anything is
// sent, then the request manager's failure or the TPM's mapped return code. Outputs are written
// only on success, the key's public part as a new block of the context's memory.
//
// Locks: the TPM lock, and briefly the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_CreateRevocableEK (0x7F): antiReplay, the key's TPM_KEY_PARMS bytes as given, whether the TPM
// makes the reset secret, and the caller's reset secret (used when it does not). The endorsement
// key's TPM_PUBKEY, the checksum, and in *eKResetAuth the reset secret the TPM holds.
// Bound: endorsementKeyInfoSize + 51 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_CreateRevocableEndorsementKeyPair_Internal(
    TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay, UINT32 endorsementKeyInfoSize,
    const BYTE* endorsementKeyInfo, TSS_BOOL genResetAuth, TPM_DIGEST* eKResetAuth,
    UINT32* endorsementKeySize, BYTE** endorsementKey, TPM_DIGEST* checksum);

// TPM_RevokeTrust (0x80): the reset secret of the revocable endorsement key.
[[nodiscard]] TSS_RESULT Tcsip_RevokeEndorsementKeyPair_Internal(TCS_CONTEXT_HANDLE hContext,
                                                                 const TPM_DIGEST& EKResetAuth);

}  // namespace kesttcs
