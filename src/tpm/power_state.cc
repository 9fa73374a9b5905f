#include "tpm/power_state.h"

#include <thread>
#include <utility>

#include "base/logging.h"
#include "base/mutex.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {
namespace {

// Wait hints of the resume's continue-pending reports.
constexpr UINT32 kTbsRestartWaitHintMs = 3000;
constexpr UINT32 kTddlRestartWaitHintMs = 20000;

struct PowerStateData {
  // A leaf: held only to read or write the fields below, never across a TPM command or a hook.
  Mutex mu;
  PowerStatusReporter reporter GUARDED_BY(mu);
  std::function<TSS_RESULT()> clear_tpm_keys GUARDED_BY(mu);
  std::chrono::milliseconds queue_wait GUARDED_BY(mu) = kS3QueueWait;
  PowerState state GUARDED_BY(mu) = PowerState::kRunning;
  // The TBS path's restart thread, joined before the next one starts.
  std::thread restart GUARDED_BY(mu);
};

PowerStateData& Data() {
  static PowerStateData data;
  return data;
}

// The hold across the sleep. Only the power-event thread touches it (the entry points are never
// called concurrently), so it needs no mutex; S3Hold itself refuses a release on another thread.
S3Hold& Hold() {
  static S3Hold hold;
  return hold;
}

void SetState(PowerState state) {
  MutexLock lock(Data().mu);
  Data().state = state;
}

void Report(PowerStatus status, UINT32 exitCode, UINT32 waitHintMs) {
  PowerStatusReporter reporter;
  {
    MutexLock lock(Data().mu);
    reporter = Data().reporter;
  }
  if (reporter) reporter(status, exitCode, waitHintMs);
}

void RestartTpm() {
  TpmLockGuard lock(TPM_ORD_ContinueSelfTest);
  static_cast<void>(RunTpmStartupSequence());
}

// Runs the TPM start-up sequence after a resume on the TBS path; it waits for the TPM lock like
// any command, so it starts once the resume has let s3_lock go.
void thread_ContinueSelfTest() { RestartTpm(); }

TSS_RESULT RunClearTPMKeys() {
  std::function<TSS_RESULT()> clear;
  {
    MutexLock lock(Data().mu);
    clear = Data().clear_tpm_keys;
  }
  return clear ? clear() : TSS_SUCCESS;
}

}  // namespace

void power_state_SetStatusReporter(PowerStatusReporter reporter) {
  MutexLock lock(Data().mu);
  Data().reporter = std::move(reporter);
}

void power_state_SetClearTPMKeys(std::function<TSS_RESULT()> clearTpmKeys) {
  MutexLock lock(Data().mu);
  Data().clear_tpm_keys = std::move(clearTpmKeys);
}

void power_state_SetQueueWait(std::chrono::milliseconds wait) {
  MutexLock lock(Data().mu);
  Data().queue_wait = wait;
}

UINT32 CanIntoS3S4() {
  TcsTrace("---------------CanIntoS3S4 start-------------", nullptr);
  UINT32 result = 0;
  if (!driver_is_tbs()) {
    S3Hold& hold = Hold();
    hold = S3Hold::Take();
    TcsTrace("Can into S3/S4? XP System", nullptr);
    std::chrono::milliseconds wait;
    {
      MutexLock lock(Data().mu);
      wait = Data().queue_wait;
    }
    const bool held = hold.HoldQueueFor(wait);
    TcsTrace("waitforsingleobject", nullptr);
    if (!held) {
      Report(PowerStatus::kRunning, kS3BusyExitCode, 0);
      result = BROADCAST_QUERY_DENY;
    }
    if (result != 0) {
      hold.Release();
      TcsTrace("Reject into S3/S4", nullptr);
    } else {
      SetState(PowerState::kHeldForSleep);
      TcsTrace("Allow into S3/S4", nullptr);
    }
  }
  TcsTrace("---------------CanIntoS3S4 end-------------", nullptr);
  return result;
}

void RejectToS3S4() {
  TcsTrace("---------------RejectToS3S4 start-------------", nullptr);
  RestartTpm();
  Hold().ReleaseQueue();
  Hold().Release();
  SetState(PowerState::kRunning);
  TcsTrace("RejectToS3S4:UnLock TPM/Unlock S3.", nullptr);
  TcsTrace("---------------RejectToS3S4 end-------------", nullptr);
}

UINT32 GotoS3S4() {
  TcsTrace("---------------GotoS3S4 start-------------", nullptr);
  if (driver_is_tbs()) {
    Hold() = S3Hold::Take();
    SetState(PowerState::kHeldForSleep);
    TcsTrace("GotoS3S4 S3 Lock", nullptr);
  } else {
    TcsTrace("Go into S3/S4: XP System", nullptr);
    TcsTrace("GotoS3S4 call req_mgr_cancel", nullptr);
    static_cast<void>(req_mgr_cancel());
    TcsTrace("GotoS3S4 call req_mgr_cancel end", nullptr);
  }
  TcsTrace("---------------GotoS3S4 end-------------", nullptr);
  return 0;
}

void S3S4Return() {
  TcsTrace("---------------S3S4Return start-------------", nullptr);
  SetState(PowerState::kResuming);
  if (driver_is_tbs()) {
    TcsTrace("S3S4 return:Call thread_ContinueSelfTest thread", nullptr);
    Report(PowerStatus::kContinuePending, 0, kTbsRestartWaitHintMs);
    power_state_JoinRestart();
    MutexLock lock(Data().mu);
    Data().restart = std::thread(thread_ContinueSelfTest);
  } else {
    if (req_mgr_driver_open()) {
      TcsTrace("S3S4Return:S3/S4 Back execute continueselftest.", nullptr);
      Report(PowerStatus::kContinuePending, 0, kTddlRestartWaitHintMs);
      RestartTpm();
    } else {
      TcsTrace("S3S4Return: bOpenDDL = FALSEUnLock TPM.", nullptr);
      Hold().ReleaseQueue();
      static_cast<void>(req_mgr_init());
    }
    TcsTrace("S3S4Return:do ClearTPMKeys.", nullptr);
    Report(PowerStatus::kContinuePending, 0, kTddlRestartWaitHintMs);
    static_cast<void>(RunClearTPMKeys());
    TcsTrace("S3S4Return:do ClearTPMKeys end.", nullptr);
    TcsTrace("S3S4Return:UnLock TPM.", nullptr);
    Hold().ReleaseQueue();
  }
  Report(PowerStatus::kRunning, 0, 0);
  Hold().Release();
  SetState(PowerState::kRunning);
  TcsTrace("---------------S3S4Return End-------------", nullptr);
}

void power_state_JoinRestart() {
  std::thread restart;
  {
    MutexLock lock(Data().mu);
    restart = std::move(Data().restart);
  }
  if (restart.joinable()) restart.join();
}

PowerState CurrentPowerState() {
  MutexLock lock(Data().mu);
  return Data().state;
}

}  // namespace kesttcs
