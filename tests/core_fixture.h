// The service core for tests, fuzz targets and benchmarks: brought up through the real start-up
// table (KestTcs_startup) in a fresh temporary home against the TPM the caller chooses, and down
// through the real shut-down table (kesttcs_shutdown). A test starts from what start-up makes, and
// what it changes shut-down or the next start-up puts back: no test resets a manager by hand.
//
// The managers are process-wide, so only one core may be up at a time. While it exists it captures
// every trace line (as the host's sink would); a test may install its own sink after Start().
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "base/logging.h"
#include "temp_dir.h"
#include "tpm/fake_tpm_backend.h"

namespace kesttcs::testing {

// The answers a plain TPM 1.2 that was started already gives to the commands start-up sends:
// ContinueSelfTest, then the metrics queries: manufacturer "IBM", version 1.2, context saving, no
// owner, 24 PCRs, 1 DIR, 20 key slots and 16 authorisation sessions (the embedded libtpms TPM's
// figures).
std::vector<std::vector<BYTE>> StartupAnswers();

// StartupAnswers() with the TPM holding `authSessions` authorisation sessions at once, and with an
// owner when `owned`.
std::vector<std::vector<BYTE>> StartupAnswers(UINT32 authSessions, bool owned = false);

// What the core runs against; CoreOptions() is the scripted fake without logging.
struct CoreOptions {
  // The [TPM] backend setting written to the home's tcs_cfg.ini: "libtpms" is the embedded TPM
  // with its state in the home; "swtpm:unix:...", "tddl:...".
  CoreOptions& Backend(std::string config) {
    backendConfig = std::move(config);
    return *this;
  }
  // A fuzz backend that answers start-up as StartupAnswers() and everything after from `input`
  // (which must outlive the core).
  CoreOptions& Fuzz(std::span<const BYTE> input) {
    fuzzInput = input;
    return *this;
  }
  // [LOG] needLog=1: start-up turns tracing and the traffic log on.
  CoreOptions& NeedLog() {
    needLog = true;
    return *this;
  }
  // The scripted fake reports `count` authorisation sessions instead of 16.
  CoreOptions& AuthSessions(UINT32 count) {
    authSessions = count;
    return *this;
  }

  // The scripted fake reports an owner at start-up (storage then keeps its file and makes sure it
  // has an SRK record).
  CoreOptions& Owned() {
    owned = true;
    return *this;
  }

  // Runs in `dir`, which the caller made and keeps, instead of a fresh temporary home. Start-up
  // locks the home and the socket for the rest of the process, so a process that starts many
  // cores (a fuzz target) reuses one home rather than holding two more descriptors per core.
  CoreOptions& Home(std::string dir) {
    home = std::move(dir);
    return *this;
  }

  std::string backendConfig;
  std::string home;
  std::optional<std::span<const BYTE>> fuzzInput;
  bool needLog = false;
  UINT32 authSessions = 16;
  bool owned = false;
};

class TestCore {
 public:
  // Makes the home (unless the options name one) with its tcs_cfg.ini and installs the capturing
  // sinks; starts nothing.
  explicit TestCore(CoreOptions options = {});
  // Stop(), then logging back to its defaults; a home the core made goes with it.
  ~TestCore();
  TestCore(const TestCore&) = delete;
  TestCore& operator=(const TestCore&) = delete;

  // KestTcs_startup in the home against the chosen TPM: its result (StartupFailureText() says
  // more when it failed).
  [[nodiscard]] TSS_RESULT Start();
  // After Start(): kesttcs_shutdown, then the driver binding is dropped, as the end of the process
  // would drop it. Once; later calls do nothing.
  void Stop();

  const std::string& home() const { return home_; }

  // The scripted fake (only when it was chosen); the driver owns it until Stop().
  FakeTpmBackend& fake() { return *fake_; }
  // What the fake was sent after start-up.
  std::vector<std::vector<BYTE>> SentAfterStart() const;
  std::vector<UINT32> OrdinalsAfterStart() const;

  // Trace lines ("TCS:...\n") captured so far; TakeTraces also forgets them.
  std::vector<std::string> Traces() const;
  std::vector<std::string> TakeTraces();

 private:
  std::optional<TempDir> ownHome_;  // unless the options named a home
  std::string home_;
  std::vector<BYTE> fuzzStream_;
  std::unique_ptr<TpmBackend> backend_;
  FakeTpmBackend* fake_ = nullptr;
  size_t sentAtStart_ = 0;
  bool started_ = false;

  mutable std::mutex mu_;
  std::vector<std::string> traces_;
};

}  // namespace kesttcs::testing
