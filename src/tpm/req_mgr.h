// The request manager: the single door to the TPM. Every command any part of the service builds
// goes through req_mgr_submit, which applies the admission rules, takes the TPM lock, sends the
// command (again while the TPM answers TPM_RETRY), copies the response back, writes the traffic and
// audit records, and cleans up sessions that a failed exchange would leave in the TPM.
//
// The TPM lock is a pair of recursive, thread-owned mutexes:
//   queue_lock  held for the whole of one exchange; serialises all TPM traffic.
//   s3_lock     held by power-state handling across a sleep; a command may start only while it is
//               free, but it is not held during the exchange.
// LockTPM waits for this thread's turn among the clients (tpm_turns.h), then for both at once
// (never one while holding the other), then lets s3_lock go. Power
// handling takes s3_lock first and then queue_lock with a time-out (LockS3, LockQueueFor).
// Releasing a mutex the calling thread does not hold is harmless and does nothing. Lock order of
// the service: contexts, then the key cache, then the TPM lock; the session mutex also before the
// TPM lock.
//
// Contract for command code built on top (start-up sequence, TCS operations, key loading):
//   - Build the request with BlobWriter/LoadBlob_Header in a 4096-byte buffer that the caller owns
//     (std::array<BYTE, kTpmBlobSize>); pass the whole buffer. On result 0 the buffer holds the
//     complete response, header included; parse it with UnloadBlob_Header/ResponseParams. A zero
//     result means the exchange worked, not that the TPM accepted the command.
//   - req_mgr_submit takes and releases the TPM lock itself; callers may already hold it (it is
//     recursive), as the start-up sequence does. It never allocates and keeps no reference to the
//     buffer after it returns.
//   - Code that already holds the lock and must not apply the admission rules (start-up sequence,
//     handle release) calls transmit_timed directly with its own buffers.
#pragma once

#include <chrono>
#include <span>

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

// Vendor ordinals the request manager itself looks at.
inline constexpr UINT32 kVendorOrdinalOpen = 0x20008000;
inline constexpr UINT32 kVendorOrdinalContinue = 0x20008001;
inline constexpr UINT32 kVendorOrdinalEnd = 0x20008002;
inline constexpr UINT32 TPM_TRANSPORT_EXCLUSIVE = 0x00000004;

// Starts the request manager: makes sure the lock pair exists and, unless the driver is already
// open, opens it (its failure result is returned unchanged), marks it open, and runs the TPM
// start-up sequence (ContinueSelfTest; Startup(ST_CLEAR) and ContinueSelfTest again when the TPM
// was not started) under the TPM lock. Errors of the start-up commands are traced and ignored.
// Called by start-up and by the resume path of power handling.
[[nodiscard]] TSS_RESULT req_mgr_init();

// Stops it: cancels what is in flight, closes the driver (whose result is returned), and marks the
// driver closed. The lock pair stays (a thread that still waits on it is never stranded).
TSS_RESULT req_mgr_final();

// Asks the TPM to abandon the command in flight: the driver's cancel result. Takes no lock.
TSS_RESULT req_mgr_cancel();

// One command exchange (see the contract above). `blob` holds the request (paramSize at offset 2
// gives its length) and must be able to take the response (4096 bytes). Results:
//   0                       the response is in `blob`
//   TCS_E_COMM_FAILURE      the driver is not open; or the TPM's answer was not a well-formed
//                           response (shorter than 10 bytes, or a paramSize below 10 or beyond
//                           the bytes that came)
//   TCS_E_BAD_PARAMETER     the request's paramSize is below 10 or beyond `blob`
//   TCS_E_ORDINAL_NOT_PERMITTED   vendor exclusive mode is on and the ordinal is not a vendor one
//   TCS_E_EXCLUSIVE_TRANSPORT     an exclusive transport session is active and the ordinal is
//                           neither ExecuteTransport nor ReleaseTransportSigned
//   TCS_E_INTERNAL_ERROR    the TPM answered TPM_NEEDS_SELFTEST (the response is in `blob`, and a
//                           ContinueSelfTest has been sent)
//   other nonzero           the driver's transmit result, unchanged
// When the transmit fails, sessions of the request that asked not to be continued are released.
// Takes the TPM lock (recursive); never allocates.
[[nodiscard]] TSS_RESULT req_mgr_submit(std::span<BYTE> blob);

// Waits for queue_lock and s3_lock together, then releases s3_lock: the caller holds queue_lock.
// `curCmdOrdinal` is only traced.
void LockTPM(UINT32 curCmdOrdinal);
// Releases queue_lock (nothing when this thread does not hold it).
void UnlockTPM();

// Power handling's side of the lock pair. LockS3 waits for s3_lock without time-out; UnlockS3
// releases it (false and nothing done when this thread does not hold it); LockQueueFor waits for
// queue_lock at most `timeout` and says whether it got it (release with UnlockTPM).
void LockS3();
bool UnlockS3();
[[nodiscard]] bool LockQueueFor(std::chrono::milliseconds timeout);

// The one call into driver_transmit, with the traffic log: the command before sending, then the
// response and "req_mgr:Consume %7.5f seconds\n", or "Tddli_TransmitData:0x%.8X" on failure.
// Caller holds the TPM lock. Result and *outLen as driver_transmit.
[[nodiscard]] TSS_RESULT transmit_timed(std::span<const BYTE> in, std::span<BYTE> out,
                                        UINT32* outLen, UINT32 priority);

// True after req_mgr_init opened the driver, until req_mgr_final.
bool req_mgr_driver_open();

// ---- Admission state owned by the commands that change it ----
// Vendor exclusive mode: set by the vendor command that opens a vendor sequence, cleared when that
// command fails. While on, only the three vendor ordinals are admitted.
void SetVendorExclusiveMode(bool on);
bool VendorExclusiveMode();

// The transport session of TPM_EstablishTransport. The command records the attributes it asks for
// before submitting; a successful EstablishTransport then makes the session exclusive when they
// hold TPM_TRANSPORT_EXCLUSIVE; a failed ExecuteTransport clears everything.
struct TransportState {
  UINT32 attributes = 0;
  bool active = false;
  UINT32 handle = 0;
};
void SetTransportAttributes(UINT32 attributes);
void SetTransportHandle(UINT32 handle);
void ClearTransportState();
TransportState GetTransportState();

// ---- Audit hook ----
// The audit log registers these: isAudited says whether an ordinal is audited; write records a
// command (sent = true) or a response (sent = false). Both must be safe to call from any thread
// while the TPM lock is held. Register before serving (null: no auditing, the default).
using AuditIsAuditedFn = bool (*)(UINT32 ordinal);
using AuditWriteFn = void (*)(UINT32 length, const BYTE* data, bool sent);
void SetAuditHook(AuditIsAuditedFn isAudited, AuditWriteFn write);

}  // namespace kesttcs
