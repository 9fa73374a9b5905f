// kesttcsd across a sleep announced by logind (python3-dbusmock's template on a private bus), with
// a swtpm behind it that really loses its state: the control channel's CMD_INIT resets it during
// the "sleep", as S3 resets a TPM. The daemon holds a delay inhibitor while awake, lets it go once
// TPM traffic is held, keeps clients' calls waiting (not failing) across the sleep, restarts the
// TPM on resume and takes a new inhibitor. A key loaded before a sleep answers through the same
// handle after it: the service loads it again (and its parent) once the TPM has lost it. The soak
// runs this with many clients and cycles (scripts/power-soak.sh sets KESTTCS_POWER_CYCLES and
// KESTTCS_POWER_CLIENTS).
#include <atomic>
#include <chrono>
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
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using Bytes = std::vector<BYTE>;
using wrapped_keys::CreateKey;
using wrapped_keys::KeyInfo;
using wrapped_keys::kSrk;
using wrapped_keys::Load;
using wrapped_keys::PubKey;
using wrapped_keys::PubKeyOf;

const Bytes kStorageKey = KeyInfo(wrapped_keys::kStorageUsage, 2048, /*OAEP*/ 3, /*none*/ 1);
const Bytes kSigningKey = KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1, /*PKCS#1 SHA-1*/ 2);

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

  // The fresh swtpm gets an endorsement key, then kesttcs-cli provisions it with the well-known
  // owner and SRK secrets.
  void Provision() {
    TCS_CONTEXT_HANDLE h = 0;
    ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
    ASSERT_NO_FATAL_FAILURE(CreateEndorsementKey(h));
    ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
    const auto [status, text] =
        RunKesttcsCli({"provision"}, daemon_->socket(), home_.path() + "/provision.txt");
    ASSERT_EQ(status, 0) << text;
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

// The TPM forgets every key in the sleep; the handles the clients hold stay valid, the service
// loads the keys again (the parent first) when they are next used.
TEST_F(PowerLogindTest, AKeyLoadedBeforeASleepAnswersThroughTheSameHandleAfterIt) {
  Provision();
  ASSERT_FALSE(HasFatalFailure());
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  const Bytes storageBlob = CreateKey(h, kSrk, kStorageKey);
  const TCS_KEY_HANDLE storage = Load(h, kSrk, storageBlob);
  const Bytes signingBlob = CreateKey(h, storage, kSigningKey);
  const TCS_KEY_HANDLE signing = Load(h, storage, signingBlob);
  ASSERT_FALSE(HasFailure());
  Bytes pub;
  ASSERT_EQ(PubKey(h, signing, &pub), TSS_SUCCESS);
  EXPECT_EQ(pub, PubKeyOf(signingBlob));

  for (int sleep = 0; sleep < 2; ++sleep) {
    SleepOnce([] {});
    ASSERT_EQ(PubKey(h, signing, &pub), TSS_SUCCESS) << "after sleep " << sleep;
    EXPECT_EQ(pub, PubKeyOf(signingBlob)) << "after sleep " << sleep;
    ASSERT_EQ(PubKey(h, storage, &pub), TSS_SUCCESS) << "after sleep " << sleep;
    EXPECT_EQ(pub, PubKeyOf(storageBlob)) << "after sleep " << sleep;
  }
  EXPECT_EQ(Tcsip_EvictKey(h, signing), TSS_SUCCESS);
  EXPECT_EQ(PubKey(h, signing, &pub), TCS_E_INVALID_KEY);
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

// Clients keep calling while the platform sleeps and wakes, a third of their calls on a key each
// loaded before the first sleep (the same blob, so the cache shares the key); every call succeeds
// and every key answer is the key's own public part.
TEST_F(PowerLogindTest, ClientsRunThroughSleepCycles) {
  const int cycles = EnvNumber("KESTTCS_POWER_CYCLES", 3);
  const int clients = EnvNumber("KESTTCS_POWER_CLIENTS", 4);
  Provision();
  ASSERT_FALSE(HasFatalFailure());
  TCS_CONTEXT_HANDLE maker = 0;
  ASSERT_EQ(Tcsi_OpenContext(&maker), TSS_SUCCESS);
  const Bytes keyBlob = CreateKey(maker, kSrk, kSigningKey);
  ASSERT_FALSE(HasFailure());
  EXPECT_EQ(Tcsi_CloseContext(maker), TSS_SUCCESS);
  const Bytes keyPub = PubKeyOf(keyBlob);

  const long rssBefore = DaemonRssKb(daemon_->pid());
  const auto started = std::chrono::steady_clock::now();
  std::atomic<bool> stop{false};
  std::atomic<long> calls{0};
  std::atomic<long> keyedCalls{0};
  std::vector<std::vector<TSS_RESULT>> failures(clients);
  std::vector<int> wrongKeys(clients, 0);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      ASSERT_EQ(Tcs_ConnectThread(daemon_->socket().c_str()), TSS_SUCCESS);
      TCS_CONTEXT_HANDLE ctx = 0;
      ASSERT_EQ(Tcsi_OpenContext(&ctx), TSS_SUCCESS);
      const TCS_KEY_HANDLE key = Load(ctx, kSrk, keyBlob);
      for (unsigned i = 0; !stop; ++i) {
        TSS_RESULT r;
        if (i % 3 == 0) {
          UINT32 n = 16;
          BYTE* out = nullptr;
          r = Tcsip_GetRandom(ctx, &n, &out);
          Tcs_FreeBuffer(out);
        } else if (i % 3 == 1) {
          TPM_PCRVALUE value{};
          r = Tcsip_PcrRead(ctx, i % 24, &value);
        } else {
          Bytes pub;
          r = PubKey(ctx, key, &pub);
          if (r == TSS_SUCCESS && pub != keyPub) ++wrongKeys[c];
          ++keyedCalls;
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
  size_t errors = 0;
  for (int c = 0; c < clients; ++c) {
    EXPECT_THAT(failures[c], ::testing::IsEmpty()) << "client " << c;
    EXPECT_EQ(wrongKeys[c], 0) << "client " << c;
    errors += failures[c].size();
  }
  const long rssAfter = DaemonRssKb(daemon_->pid());
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf(
      "%d sleep cycles, %d clients, %ld calls (%ld on the key), %zu errors in %.1f s; daemon RSS "
      "%ld kB before, %ld kB after\n",
      cycles, clients, calls.load(), keyedCalls.load(), errors, seconds, rssBefore, rssAfter);
}

}  // namespace
}  // namespace kesttcs::testing
