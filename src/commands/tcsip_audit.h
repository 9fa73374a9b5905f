// The TCS operations on the TPM's audit: setting an ordinal's audit status, reading the audit
// digest with the list of audited ordinals, and the signed audit digest; and the service's own
// digest report. They keep the audit log (storage/audit_log.h) and its audited-ordinal list in step
// with the TPM.
//
// Results as every TCS operation: the context's failure, TCS_E_BAD_PARAMETER for a missing output
// pointer or a malformed answer (nothing handed out), the request manager's failure, or the TPM's
// return code mapped as 0xE0280000 | code. Outputs are written only on success, variable-size ones
// as new blocks of the context's memory.
//
// Locks: the auth mutex (and the TPM lock after it, to end a session), the TPM lock, the audit
// list's and the audit file's leaf mutexes, briefly the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_SetOrdinalAuditStatus (0x8D): ordinalToAudit, auditState (one byte); owner session required.
// On success the ordinal joins the audited list when bAuditState is true and leaves it otherwise.
[[nodiscard]] TSS_RESULT Tcsip_SetOrdinalAuditStatus_Internal(TCS_CONTEXT_HANDLE hContext,
                                                              TPM_AUTH* ownerAuth, UINT32 ulOrdinal,
                                                              TSS_BOOL bAuditState);

// TPM_GetAuditDigest (0x85) from startOrdinal: the TPM_COUNTER_VALUE bytes, the digest, whether
// the TPM has more ordinals than it listed, and the audited ordinals (*ordSize of them, in host
// order).
[[nodiscard]] TSS_RESULT Tcsip_GetAuditDigest_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       UINT32 startOrdinal, TPM_DIGEST* auditDigest,
                                                       UINT32* counterValueSize,
                                                       BYTE** counterValue, TSS_BOOL* more,
                                                       UINT32* ordSize, UINT32** ordList);

// TPM_GetAuditDigestSigned (0x86) with the signing key keyHandle (loaded first with
// ensureKeyIsLoaded, whose failure is returned before anything is sent), closeAudit and
// antiReplay; privAuth optional. On success the audit digest is written to the audit log as a
// signed-digest record and the log is rotated.
[[nodiscard]] TSS_RESULT Tcsip_GetAuditDigestSigned_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle, TSS_BOOL closeAudit,
    const TPM_NONCE& antiReplay, TPM_AUTH* privAuth, UINT32* counterValueSize, BYTE** counterValue,
    TPM_DIGEST* auditDigest, TPM_DIGEST* ordinalDigest, UINT32* sigSize, BYTE** sig);

// Reads the audit digest and every audited ordinal from the TPM (TPM_GetAuditDigest again from
// after the last ordinal while the TPM says there are more) under the service's own context, adds
// each ordinal to the audited list, rotates the log and, when the list is not empty, writes the
// digest as a digest record. No start-up or shut-down step calls it.
[[nodiscard]] TSS_RESULT audit_reportDigest();

}  // namespace kesttcs
