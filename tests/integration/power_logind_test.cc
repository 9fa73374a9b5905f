// kesttcsd across a sleep announced by logind (python3-dbusmock's template on a private bus), with
// a swtpm behind it that really loses its state: the control channel's CMD_INIT resets it during
// the "sleep", as S3 resets a TPM. The daemon holds a delay inhibitor while awake, lets it go once
// TPM traffic is held, keeps clients' calls waiting (not failing) across the sleep, restarts the
// TPM on resume and takes a new inhibitor. The soak runs this with many clients and cycles
// (scripts/power-soak.sh sets KESTTCS_POWER_CYCLES and KESTTCS_POWER_CLIENTS).
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>

#include "kesttcsd_process.h"
#include "logind_bus.h"
#include "swtpm_process.h"
#include "temp_dir.h"

namespace kesttcs::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

int EnvNumber(const char* name, int fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && std::atoi(value) > 0 ? std::atoi(value) : fallback;
}

// Resets the swtpm through its control channel: it forgets keys and sessions and waits for
// TPM_Startup.
bool ResetTpm(const SwtpmProcess& tpm) {
  const std::string command = "swtpm_ioctl --unix " + tpm.ctrl_path() + " -i >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

KESTTCS_POWER_STATE PowerState() {
  KESTTCS_POWER_STATE state{99, 0};
  EXPECT_EQ(KestTcs_GetPowerState(&state), TSS_SUCCESS);
  return state;
}

long DaemonRssKb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class PowerLogindTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!LogindMockInstalled() || !SwtpmInstalled()) {
      GTEST_SKIP() << "needs dbus-daemon, python3-dbusmock and swtpm";
    }
    bus_ = std::make_unique<LogindBus>();
    ASSERT_TRUE(bus_->ready()) << "the logind mock did not come up";
    tpm_ = std::make_unique<SwtpmProcess>(false);
    ASSERT_TRUE(tpm_->WaitReady());
    daemon_ = std::make_unique<KesttcsdProcess>(home_.path(), false, tpm_->UnixConfig());
    ASSERT_TRUE(daemon_->Start());
    // The inhibitor is taken once the service runs.
    ASSERT_TRUE(bus_->AwaitInhibitors(1));
  }
  void TearDown() override {
    if (daemon_) {
      EXPECT_EQ(daemon_->Stop(), 0);
    }
  }

  // One sleep: PrepareForSleep(true), the TPM reset while TPM traffic is held, then the resume.
  // `whileAsleep` runs after the reset, before the resume.
  template <class Asleep>
  void SleepOnce(Asleep whileAsleep) {
    ASSERT_TRUE(bus_->PrepareForSleep(true));
    ASSERT_TRUE(bus_->AwaitInhibitors(0));  // let go only once the TPM is held
    EXPECT_EQ(PowerState().state, KESTTCS_POWER_HELD_FOR_SLEEP);
    ASSERT_TRUE(ResetTpm(*tpm_));
    whileAsleep();
    ASSERT_TRUE(bus_->PrepareForSleep(false));
    ASSERT_TRUE(bus_->AwaitInhibitors(1));
    EXPECT_EQ(PowerState().state, KESTTCS_POWER_RUNNING);
  }

  TempDir home_;
  std::unique_ptr<LogindBus> bus_;
  std::unique_ptr<SwtpmProcess> tpm_;
  std::unique_ptr<KesttcsdProcess> daemon_;
};

TEST_F(PowerLogindTest, ACallMadeDuringSleepWaitsAndCompletesAfterTheTpmRestarts) {
  TCS_CONTEXT_HANDLE ctx = 0;
  ASSERT_EQ(Tcsi_OpenContext(&ctx), TSS_SUCCESS);
  UINT32 size = 16;
  BYTE* bytes = nullptr;
  ASSERT_EQ(Tcsip_GetRandom(ctx, &size, &bytes), TSS_SUCCESS);
  Tcs_FreeBuffer(bytes);
  const UINT64 startedAt = PowerState().lastTpmRestart;
  EXPECT_NE(startedAt, 0u);

  std::atomic<bool> done{false};
  TSS_RESULT sleptCall = TCS_E_FAIL;
  std::thread client;
  SleepOnce([&] {
    client = std::thread([&] {
      ASSERT_EQ(Tcs_ConnectThread(daemon_->socket().c_str()), TSS_SUCCESS);
      UINT32 n = 8;
      BYTE* out = nullptr;
      sleptCall = Tcsip_GetRandom(ctx, &n, &out);
      Tcs_FreeBuffer(out);
      Tcs_DisconnectThread();
      done = true;
    });
    // The reset TPM would answer TPM_INVALID_POSTINIT: the call has not reached it.
    EXPECT_FALSE(done);
  });
  client.join();
  EXPECT_EQ(sleptCall, TSS_SUCCESS);
  EXPECT_GE(PowerState().lastTpmRestart, startedAt);

  // The CLI tells the state and the restart.
  const std::string out = home_.path() + "/status.txt";
  const std::string cli = kKesttcsCli + " --endpoint " + daemon_->socket() + " status >" + out;
  ASSERT_EQ(std::system(cli.c_str()), 0);
  EXPECT_THAT(ReadFile(out), HasSubstr("Power state:   running"));
  EXPECT_THAT(ReadFile(out), Not(HasSubstr("TPM restarted: never")));
  EXPECT_EQ(Tcsi_CloseContext(ctx), TSS_SUCCESS);
  EXPECT_THAT(ReadFile(home_.path() + "/kesttcsd.log"), Not(HasSubstr("power handling is off")));
}

// Clients keep calling while the platform sleeps and wakes; every call succeeds.
TEST_F(PowerLogindTest, ClientsRunThroughSleepCycles) {
  const int cycles = EnvNumber("KESTTCS_POWER_CYCLES", 3);
  const int clients = EnvNumber("KESTTCS_POWER_CLIENTS", 4);
  const long rssBefore = DaemonRssKb(daemon_->pid());
  std::atomic<bool> stop{false};
  std::atomic<long> calls{0};
  std::vector<std::vector<TSS_RESULT>> failures(clients);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      ASSERT_EQ(Tcs_ConnectThread(daemon_->socket().c_str()), TSS_SUCCESS);
      TCS_CONTEXT_HANDLE ctx = 0;
      ASSERT_EQ(Tcsi_OpenContext(&ctx), TSS_SUCCESS);
      for (unsigned i = 0; !stop; ++i) {
        TSS_RESULT r;
        if (i % 2 == 0) {
          UINT32 n = 16;
          BYTE* out = nullptr;
          r = Tcsip_GetRandom(ctx, &n, &out);
          Tcs_FreeBuffer(out);
        } else {
          TPM_PCRVALUE value{};
          r = Tcsip_PcrRead(ctx, i % 24, &value);
        }
        if (r != TSS_SUCCESS) failures[c].push_back(r);
        ++calls;
      }
      EXPECT_EQ(Tcsi_CloseContext(ctx), TSS_SUCCESS);
      Tcs_DisconnectThread();
    });
  }
  for (int cycle = 0; cycle < cycles && !HasFatalFailure(); ++cycle) SleepOnce([] {});
  stop = true;
  for (std::thread& t : threads) t.join();
  for (int c = 0; c < clients; ++c)
    EXPECT_THAT(failures[c], ::testing::IsEmpty()) << "client " << c;
  const long rssAfter = DaemonRssKb(daemon_->pid());
  std::printf("%d sleep cycles, %d clients, %ld calls; daemon RSS %ld kB before, %ld kB after\n",
              cycles, clients, calls.load(), rssBefore, rssAfter);
}

}  // namespace
}  // namespace kesttcs::testing
