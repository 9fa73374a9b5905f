// Power events at the service's control handler under Wine, with the service's managers up on the
// TPM behind the driver library beside this program (forwarding to swtpm): a sleep query, the
// suspend and the resume, and on the TDDL path a query while a command holds the TPM, which the
// handler refuses. No program may send a power event through the service control manager (it
// refuses the control code), so the test calls the handler the service registers, as the
// manager's dispatcher does. Arguments: the backend ("auto" finds tbs.dll; "tddl:tpmddl.dll") and
// the path it must take ("tbs" or "tddl"). Prints one line per check; the exit status is the
// number of failed checks.
// The service's power constants come first: <windows.h> defines the same names as macros.
#include "service/power_events.h"
#include "tpm/power_state.h"

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "driver_choice.h"
#include "service/service_status.h"
#include "service/startup.h"
#include "service/windows/host.h"
#include "tpm/driver.h"
#include "tpm/tpm_lock.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

int failures = 0;

void Check(bool ok, const std::string& what, unsigned long detail = 0) {
  std::printf("%s %s (0x%lx)\n", ok ? "ok  " : "FAIL", what.c_str(), detail);
  std::fflush(stdout);
  if (!ok) ++failures;
}

// The trace lines and status reports since the last Take.
class Recorder {
 public:
  void Trace(std::string_view line) {
    std::lock_guard<std::mutex> lock(mu_);
    traces_ += line;
  }
  void Status(const ServiceStatusRecord& status) {
    std::lock_guard<std::mutex> lock(mu_);
    states_.push_back(status.currentState);
  }
  std::string TakeTraces() {
    std::lock_guard<std::mutex> lock(mu_);
    return std::exchange(traces_, {});
  }
  std::vector<UINT32> TakeStates() {
    std::lock_guard<std::mutex> lock(mu_);
    return std::exchange(states_, {});
  }

 private:
  std::mutex mu_;
  std::string traces_;
  std::vector<UINT32> states_;
};

Recorder recorder;

// Hands a power event of `type` to the control handler; returns its answer.
DWORD PowerEvent(DWORD type) {
  return host::ServiceControlHandlerEx(SERVICE_CONTROL_POWEREVENT, type, nullptr, nullptr);
}

// True when the lines occur in `traces` in this order.
bool InOrder(const std::string& traces, const std::vector<const char*>& lines) {
  size_t at = 0;
  for (const char* line : lines) {
    at = traces.find(line, at);
    if (at == std::string::npos) {
      std::printf("     missing \"%s\"\n", line);
      return false;
    }
  }
  return true;
}

std::string HomeFor(const char* path) {
  char program[MAX_PATH];
  const DWORD length = GetModuleFileNameA(nullptr, program, MAX_PATH);
  std::string home(program, length);
  home = home.substr(0, home.find_last_of('\\') + 1) + "power-home-" + path;
  CreateDirectoryA(home.c_str(), nullptr);
  return home;
}

void CheckBusyTpmRefusesSleep() {
  power_state_SetQueueWait(std::chrono::milliseconds(50));
  std::atomic<bool> holding{false};
  std::atomic<bool> letGo{false};
  std::thread busy([&] {
    TpmLockGuard lock(TPM_ORD_GetRandom);
    holding = true;
    while (!letGo) Sleep(1);
  });
  while (!holding) Sleep(1);
  const DWORD answer = PowerEvent(PBT_APMQUERYSUSPEND);
  Check(answer == BROADCAST_QUERY_DENY, "a query while a command holds the TPM is refused", answer);
  Check(InOrder(recorder.TakeTraces(),
                {"TCS:Power ctrlCode=0xd,EventType=0x0", "Can into S3/S4? XP System",
                 "Reject into S3/S4", "---------------CanIntoS3S4 end-------------"}),
        "the refusal is traced");
  letGo = true;
  busy.join();
  Check(PowerEvent(PBT_APMQUERYSUSPENDFAILED) == 0, "query failed: answered 0");
  Check(InOrder(recorder.TakeTraces(),
                {"TCS:Power ctrlCode=0xd,EventType=0x2", "RejectToS3S4:UnLock TPM/Unlock S3."}),
        "the rejection restarts the TPM and unlocks it");
  const std::vector<UINT32> states = recorder.TakeStates();
  Check(!states.empty() && states.back() == kServiceRunning, "running reported again");
}

}  // namespace

int RunChecks(const char* backend, bool tbs) {
  const std::string home = HomeFor(tbs ? "tbs" : "tddl");
  std::ofstream(home + "\\tcs_cfg.ini") << "[LOG]\nneedLog=1\n[TPM]\nbackend=" << backend << "\n";
  SetTraceSink([](std::string_view line) { recorder.Trace(line); });
  SetServiceStatusSink([](const ServiceStatusRecord& status) { recorder.Status(status); });
  InstallPowerEventRouting();
  StartupOptions options;
  options.home = home;
  const TSS_RESULT started = KestTcs_startup(std::move(options));
  Check(started == TSS_SUCCESS && driver_is_tbs() == tbs,
        std::string("managers up, TPM through ") + (tbs ? "tbs.dll" : "tpmddl.dll"), started);
  if (started != TSS_SUCCESS) {
    std::fputs(recorder.TakeTraces().c_str(), stdout);
    return failures;
  }
  recorder.TakeTraces();

  DWORD answer = PowerEvent(PBT_APMQUERYSUSPEND);
  Check(answer == 0, "a sleep query on an idle TPM is granted", answer);
  const std::string queried = recorder.TakeTraces();
  Check(InOrder(queried, {"TCS:Power ctrlCode=0xd,EventType=0x0",
                          "---------------CanIntoS3S4 start-------------",
                          "---------------CanIntoS3S4 end-------------"}),
        "the query reaches power handling");
  answer = PowerEvent(PBT_APMSUSPEND);
  Check(answer == 0, "suspend answered 0", answer);
  Check(InOrder(recorder.TakeTraces(), {"TCS:Power ctrlCode=0xd,EventType=0x4",
                                        "---------------GotoS3S4 start-------------",
                                        tbs ? "GotoS3S4 S3 Lock" : "GotoS3S4 call req_mgr_cancel",
                                        "---------------GotoS3S4 end-------------"}),
        "the suspend holds the TPM");
  answer = PowerEvent(PBT_APMRESUMEAUTOMATIC);
  Check(answer == 0, "resume answered 0", answer);
  Check(InOrder(recorder.TakeTraces(),
                {"TCS:Power ctrlCode=0xd,EventType=0x12",
                 "---------------S3S4Return start-------------",
                 tbs ? "S3S4 return:Call thread_ContinueSelfTest thread" : "S3S4Return:UnLock TPM.",
                 "---------------S3S4Return End-------------"}),
        "the resume restarts the TPM and lets commands in again");
  const std::vector<UINT32> states = recorder.TakeStates();
  Check(!states.empty() && states.back() == kServiceRunning, "running reported after the resume");
  Check(CurrentPowerState() == PowerState::kRunning, "power state running");
  Check(PowerEvent(0x7) == 0 && recorder.TakeStates().empty(),
        "another power event type: answered 0, nothing done");

  if (!tbs) CheckBusyTpmRefusesSleep();
  kesttcs_shutdown();
  return failures;
}

}  // namespace kesttcs

int main(int argc, char** argv) { return RunForDriver(argc, argv, kesttcs::RunChecks); }
