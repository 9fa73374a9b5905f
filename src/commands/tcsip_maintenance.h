// The TCS operations of the TPM's maintenance feature: the owner's archive of the SRK made and
// loaded, the feature switched off, and the manufacturer's maintenance key loaded and checked. A
// TPM without the feature refuses these commands; its answer comes back as its mapped return code.
//
// Failures as every command (tcsip_nv.h): context, pointers, size bound and session checks before
// anything is sent, then the request manager's failure or the TPM's mapped return code, with the
// session bookkeeping of RunAuthorised. Outputs go to new blocks of the context's memory, written
// only on success.
//
// Locks: the auth mutex (and the TPM lock after it, to end a session), the TPM lock, and briefly
// the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_CreateMaintenanceArchive (0x2C), owner session required: the random mask (none when
// generateRandom is 0) and the encrypted archive.
[[nodiscard]] TSS_RESULT Tcsip_CreateMaintenanceArchive_Internal(
    TCS_CONTEXT_HANDLE hContext, TSS_BOOL generateRandom, TPM_AUTH* ownerAuth, UINT32* randomSize,
    BYTE** random, UINT32* archiveSize, BYTE** archive);

// TPM_LoadMaintenanceArchive (0x2D), owner session required. dataIn is the command's parameters as
// the TPM reads them (archive, signature and random mask, each with its size); dataOut whatever
// parameters the TPM returns, which a TPM 1.2 does not (dataOut comes back empty).
// Bound: dataInSize + 55 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_LoadMaintenanceArchive_Internal(TCS_CONTEXT_HANDLE hContext,
                                                               UINT32 dataInSize,
                                                               const BYTE* dataIn,
                                                               TPM_AUTH* ownerAuth,
                                                               UINT32* dataOutSize, BYTE** dataOut);

// TPM_KillMaintenanceFeature (0x2E), owner session required.
[[nodiscard]] TSS_RESULT Tcsip_KillMaintenanceFeature_Internal(TCS_CONTEXT_HANDLE hContext,
                                                               TPM_AUTH* ownerAuth);

// TPM_LoadManuMaintPub (0x2F): the manufacturer's TPM_PUBKEY bytes as given; the TPM's checksum.
// Bound: PubKeySize + 30 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_LoadManuMaintPub_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         const TPM_NONCE& antiReplay,
                                                         UINT32 PubKeySize, const BYTE* PubKey,
                                                         TPM_DIGEST* checksum);

// TPM_ReadManuMaintPub (0x30): the TPM's checksum of the manufacturer's key and antiReplay.
[[nodiscard]] TSS_RESULT Tcsip_ReadManuMaintPub_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         const TPM_NONCE& antiReplay,
                                                         TPM_DIGEST* checksum);

}  // namespace kesttcs
