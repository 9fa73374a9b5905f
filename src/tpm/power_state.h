// Power-state handling: keeps TPM traffic out of a platform sleep (S3) or hibernation (S4) and
// brings the TPM and the key cache back afterwards. The host's power-event routing calls the four
// entry points, always from one thread (the control handler's, or the logind event thread):
//   CanIntoS3S4   may the platform sleep?  TDDL path: holds s3_lock, then waits (20 000 ms by
//                 default) for queue_lock; a busy TPM refuses. Both stay held when sleep is
//                 allowed.
//   RejectToS3S4  the sleep was called off: restart the TPM, let both locks go.
//   GotoS3S4      the platform sleeps now. TBS path: hold s3_lock; TDDL path: cancel the command
//                 in flight.
//   S3S4Return    the platform is back: restart the TPM (reopening the driver when it was not
//                 open), bring the key cache in line with the TPM (ClearTPMKeys), let go.
// The TBS path (driver_is_tbs()) lets the driver layer do most of this and restarts the TPM on a
// thread of its own (thread_ContinueSelfTest).
//
// Status reports and the key cache are above this layer; they come in through hooks that the
// service registers at start-up (without them nothing is reported and the cache is left alone).
//
// Locks: s3_lock before queue_lock (tpm_lock.h, S3Hold); the module's own state mutex is a leaf.
#pragma once

#include <chrono>
#include <functional>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The Windows answer that refuses a sleep query.
inline constexpr UINT32 BROADCAST_QUERY_DENY = 0x424D5144;
// How long a sleep query waits for the command in flight, unless a test says otherwise.
inline constexpr std::chrono::milliseconds kS3QueueWait{20000};
// The exit code reported with "running" when a busy TPM refuses sleep.
inline constexpr UINT32 kS3BusyExitCode = 5;

// Where power handling stands, as administrators see it.
enum class PowerState : UINT32 { kRunning = 0, kHeldForSleep = 1, kResuming = 2 };

// The two service states power handling reports.
enum class PowerStatus { kRunning, kContinuePending };
using PowerStatusReporter =
    std::function<void(PowerStatus status, UINT32 exitCode, UINT32 waitHintMs)>;
// Registers the status report (empty: none). Call before power events arrive.
void power_state_SetStatusReporter(PowerStatusReporter reporter);
// Registers the key cache's repair after a resume (ClearTPMKeys); empty: none.
void power_state_SetClearTPMKeys(std::function<TSS_RESULT()> clearTpmKeys);
// How long CanIntoS3S4 waits for queue_lock (kS3QueueWait unless changed).
void power_state_SetQueueWait(std::chrono::milliseconds wait);

// 0 allows the sleep, BROADCAST_QUERY_DENY refuses it (the TPM stayed busy past the wait; the
// service is then reported running with kS3BusyExitCode). Traces as it goes.
UINT32 CanIntoS3S4();
void RejectToS3S4();
// Always 0.
UINT32 GotoS3S4();
void S3S4Return();

// Waits for a TPM restart that S3S4Return started on a thread of its own (TBS path) to finish.
// Called at shut-down and by tests.
void power_state_JoinRestart();

PowerState CurrentPowerState();

}  // namespace kesttcs
