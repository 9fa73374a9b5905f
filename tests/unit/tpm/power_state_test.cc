// Power-state handling against the scripted TPM: the restart after a resume on both driver paths,
// the refusal of a busy TPM, the key cache's repair after a resume, and calls held across a sleep.
#include "tpm/power_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "core_fixture.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/key_blob.h"
#include "storage/test_keys.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<BYTE>;
using Report = std::tuple<PowerStatus, UINT32, UINT32>;

constexpr UINT32 kContinueSelfTest = 0x53;
constexpr UINT32 kStartup = 0x99;
constexpr UINT32 kGetCapability = 0x65;
constexpr UINT32 kGetRandom = 0x46;

// The answer to TPM_GetCapability(TPM_CAP_KEY_HANDLE): respSize, then the handle list.
Bytes KeyHandleList(const std::vector<UINT32>& handles) {
  const UINT32 respSize = 2 + 4 * static_cast<UINT32>(handles.size());
  Bytes body = {BYTE(respSize >> 24), BYTE(respSize >> 16), BYTE(respSize >> 8), BYTE(respSize), 0,
                BYTE(handles.size())};
  for (UINT32 h : handles) {
    for (int shift = 24; shift >= 0; shift -= 8) body.push_back(BYTE(h >> shift));
  }
  return body;
}

std::array<BYTE, kTpmBlobSize> GetRandomCommand() {
  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  EXPECT_EQ(LoadBlob_UINT32(w, 8), TSS_SUCCESS);
  EXPECT_EQ(LoadBlob_Header(TPM_TAG_RQU_COMMAND, w.offset(), TPM_ORD_GetRandom, blob), TSS_SUCCESS);
  return blob;
}

bool HasTrace(const std::vector<std::string>& traces, const std::string& text) {
  for (const std::string& line : traces) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

class PowerStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    power_state_SetStatusReporter([this](PowerStatus s, UINT32 exitCode, UINT32 hint) {
      std::lock_guard<std::mutex> lock(mu_);
      reports_.emplace_back(s, exitCode, hint);
    });
  }
  void TearDown() override {
    power_state_JoinRestart();
    power_state_SetStatusReporter(nullptr);
    power_state_SetQueueWait(kS3QueueWait);
    driver_set_tbs(false);
  }
  std::vector<Report> Reports() {
    std::lock_guard<std::mutex> lock(mu_);
    return reports_;
  }

  std::mutex mu_;
  std::vector<Report> reports_;
};

// Core up on the scripted TPM with tracing on; the cache holds the SRK.
class PowerStateCoreTest : public PowerStateTest {
 protected:
  void SetUp() override {
    PowerStateTest::SetUp();
    ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
  }
  void TearDown() override {
    EXPECT_THAT(core_.fake().Mismatches(), IsEmpty());
    PowerStateTest::TearDown();
  }
  void ExpectStartedTpm() { core_.fake().Respond(TPM_SUCCESS); }
  void ExpectKeyHandles(const std::vector<UINT32>& handles) {
    core_.fake().Expect({FakeTpmBackend::Response(TPM_SUCCESS, KeyHandleList(handles)), TSS_SUCCESS,
                         kGetCapability});
  }

  testing::TestCore core_{testing::CoreOptions().Owned().NeedLog()};
};

TEST_F(PowerStateCoreTest, AResumedTpmThatWasNotStartedGetsStartupAndASecondSelfTest) {
  core_.TakeTraces();
  const UINT64 before = LastTpmStartupTime();
  ASSERT_EQ(CanIntoS3S4(), 0u);
  EXPECT_EQ(CurrentPowerState(), PowerState::kHeldForSleep);
  EXPECT_EQ(GotoS3S4(), 0u);
  EXPECT_EQ(core_.fake().cancels(), 1);

  core_.fake().Respond(TPM_INVALID_POSTINIT);
  core_.fake().Respond(TPM_SUCCESS);
  core_.fake().Respond(TPM_SUCCESS);
  ExpectKeyHandles({});
  S3S4Return();
  EXPECT_EQ(CurrentPowerState(), PowerState::kRunning);
  EXPECT_GE(LastTpmStartupTime(), before);

  EXPECT_THAT(core_.OrdinalsAfterStart(),
              ElementsAre(kContinueSelfTest, kStartup, kContinueSelfTest, kGetCapability));
  // Startup(ST_CLEAR): tag, size 12, ordinal, type 1.
  EXPECT_EQ(core_.SentAfterStart()[1], (Bytes{0x00, 0xC1, 0, 0, 0, 12, 0, 0, 0, 0x99, 0x00, 0x01}));
  EXPECT_THAT(Reports(), ElementsAre(Report{PowerStatus::kContinuePending, 0, 20000},
                                     Report{PowerStatus::kContinuePending, 0, 20000},
                                     Report{PowerStatus::kRunning, 0, 0}));
  const std::vector<std::string> traces = core_.TakeTraces();
  for (const char* text :
       {"---------------CanIntoS3S4 start-------------", "Can into S3/S4? XP System",
        "waitforsingleobject", "Allow into S3/S4", "Go into S3/S4: XP System",
        "GotoS3S4 call req_mgr_cancel", "GotoS3S4 call req_mgr_cancel end",
        "S3S4Return:S3/S4 Back execute continueselftest.", "StartupTPM",
        "S3S4Return:do ClearTPMKeys.", "S3S4 return :There no keys in TPM",
        "S3S4Return:do ClearTPMKeys end.", "S3S4Return:UnLock TPM.",
        "---------------S3S4Return End-------------"}) {
    EXPECT_TRUE(HasTrace(traces, text)) << text;
  }
  // The TPM lock is free again.
  core_.fake().Respond(TPM_SUCCESS, {0, 0, 0, 0});
  auto blob = GetRandomCommand();
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
}

TEST_F(PowerStateCoreTest, AResumeWithNoKeysInTheTpmUnloadsEveryCachedKeyButTheSrk) {
  const TPM_KEY key1 = []() {
    TPM_KEY k;
    EXPECT_TRUE(ParseKeyBlob(testing::KeyBlob({.fill = 1}), &k));
    return k;
  }();
  const TPM_KEY key2 = []() {
    TPM_KEY k;
    EXPECT_TRUE(ParseKeyBlob(testing::KeyBlob({.fill = 2}), &k));
    return k;
  }();
  const TCS_KEY_HANDLE h1 = nextTcsKeyHandle();
  const TCS_KEY_HANDLE h2 = nextTcsKeyHandle();
  ASSERT_EQ(add_mem_cache_entry(h1, 0x01000001, key1, std::nullopt, kSrkKeyHandle), TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(h2, 0x01000002, key2, std::nullopt, h1), TSS_SUCCESS);

  // First a resume where the TPM kept one key: the listed one is resident, the other left as it
  // was; then one where it lost them all.
  ASSERT_EQ(setSlotByHandle(h2, 0x01000002), TSS_SUCCESS);
  ASSERT_EQ(setSlotBySlot(0x01000001, 0x01000001), TSS_SUCCESS);
  for (const std::vector<UINT32>& listed : {std::vector<UINT32>{0x01000001}, {}}) {
    ASSERT_EQ(CanIntoS3S4(), 0u);
    GotoS3S4();
    ExpectStartedTpm();
    ExpectKeyHandles(listed);
    S3S4Return();
    if (!listed.empty()) {
      EXPECT_TRUE(getKeyEntryByKeyHandle(h1)->inTpm);
      EXPECT_EQ(getKeyEntryByKeyHandle(h2)->tpmHandle, 0x01000002u);
    }
  }
  for (TCS_KEY_HANDLE h : {h1, h2}) {
    const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(h);
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->tpmHandle, 0xFFFFFFFFu);
    EXPECT_FALSE(entry->inTpm);
  }
  const std::optional<mem_cache_entry> srk = getKeyEntryByKeyHandle(kSrkKeyHandle);
  ASSERT_TRUE(srk.has_value());
  EXPECT_EQ(srk->tpmHandle, kSrkKeyHandle);
}

TEST_F(PowerStateCoreTest, ACallDuringTheSleepWaitsAndRunsAfterTheRestart) {
  ASSERT_EQ(CanIntoS3S4(), 0u);
  GotoS3S4();
  std::atomic<bool> done{false};
  TSS_RESULT result = TCS_E_FAIL;
  std::thread client([&] {
    auto blob = GetRandomCommand();
    result = req_mgr_submit(blob);
    done = true;
  });
  EXPECT_FALSE(done);
  ExpectStartedTpm();
  ExpectKeyHandles({});
  core_.fake().Respond(TPM_SUCCESS, {0, 0, 0, 0});
  S3S4Return();
  client.join();
  EXPECT_EQ(result, TSS_SUCCESS);
  // Whenever the client got to the lock, its command reached the TPM after the restart.
  EXPECT_THAT(core_.OrdinalsAfterStart(),
              ElementsAre(kContinueSelfTest, kGetCapability, kGetRandom));
}

// A context closed during the sleep releases a key that is still in a slot: its eviction waits for
// the TPM, and must not hold the key cache while it waits, or the resume (which repairs the cache
// with the TPM held) could never finish.
TEST_F(PowerStateCoreTest, AKeyReleasedDuringTheSleepDoesNotHoldUpTheResume) {
  TPM_KEY key;
  ASSERT_TRUE(ParseKeyBlob(testing::KeyBlob({.fill = 3}), &key));
  ASSERT_EQ(add_mem_cache_entry(nextTcsKeyHandle(), 0x01000003, key, std::nullopt, kSrkKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(CanIntoS3S4(), 0u);
  GotoS3S4();
  std::thread closer(removeUnreferencedKeys);
  // Give the closer time to reach the TPM lock; the resume must finish whenever it got there.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ExpectStartedTpm();
  ExpectKeyHandles({});
  S3S4Return();
  closer.join();
  // The resume found the TPM empty, so the released key had nothing left to evict.
  EXPECT_THAT(core_.OrdinalsAfterStart(), ElementsAre(kContinueSelfTest, kGetCapability));
  EXPECT_FALSE(getKeyEntryByKeyHandle(0x22330000).has_value());
}

TEST_F(PowerStateCoreTest, ABusyTpmRefusesSleepAndTheRejectionRestartsIt) {
  power_state_SetQueueWait(std::chrono::milliseconds(20));
  std::atomic<bool> holding{false};
  std::atomic<bool> letGo{false};
  std::thread busy([&] {
    TpmLockGuard lock(kGetRandom);
    holding = true;
    while (!letGo) std::this_thread::yield();
  });
  while (!holding) std::this_thread::yield();
  core_.TakeTraces();
  EXPECT_EQ(CanIntoS3S4(), BROADCAST_QUERY_DENY);
  EXPECT_EQ(CurrentPowerState(), PowerState::kRunning);
  EXPECT_THAT(Reports(), ElementsAre(Report{PowerStatus::kRunning, kS3BusyExitCode, 0}));
  EXPECT_TRUE(HasTrace(core_.TakeTraces(), "Reject into S3/S4"));
  letGo = true;
  busy.join();

  // The query failed elsewhere: the TPM is restarted and nothing stays held.
  ExpectStartedTpm();
  RejectToS3S4();
  EXPECT_TRUE(HasTrace(core_.TakeTraces(), "RejectToS3S4:UnLock TPM/Unlock S3."));
  std::thread([] { TpmLockGuard lock(kGetRandom); }).join();
  EXPECT_THAT(core_.OrdinalsAfterStart(), ElementsAre(kContinueSelfTest));
}

TEST_F(PowerStateTest, AResumeAfterAFailedDriverOpenRerunsTheRequestManagerStart) {
  auto owned = std::make_unique<FakeTpmBackend>();
  FakeTpmBackend& fake = *owned;
  driver_use_backend(std::move(owned));
  int clears = 0;
  power_state_SetClearTPMKeys([&clears] {
    ++clears;
    return TSS_SUCCESS;
  });
  fake.FailOpen(0x1003);
  ASSERT_NE(req_mgr_init(), TSS_SUCCESS);
  ASSERT_FALSE(req_mgr_driver_open());

  ASSERT_EQ(CanIntoS3S4(), 0u);
  GotoS3S4();
  fake.Respond(TPM_SUCCESS);
  S3S4Return();
  EXPECT_TRUE(req_mgr_driver_open());
  EXPECT_TRUE(fake.is_open());
  EXPECT_THAT(fake.SentOrdinals(), ElementsAre(kContinueSelfTest));
  EXPECT_EQ(clears, 1);
  EXPECT_THAT(Reports(), ElementsAre(Report{PowerStatus::kContinuePending, 0, 20000},
                                     Report{PowerStatus::kRunning, 0, 0}));

  power_state_SetClearTPMKeys(nullptr);
  static_cast<void>(req_mgr_final());
  driver_unbind();
}

TEST_F(PowerStateTest, OnTheTbsPathSleepHoldsOnlyS3AndARestartThreadRunsAfterResume) {
  auto owned = std::make_unique<FakeTpmBackend>();
  FakeTpmBackend& fake = *owned;
  driver_use_backend(std::move(owned));
  fake.Respond(TPM_SUCCESS);
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS);
  driver_set_tbs(true);
  int clears = 0;
  power_state_SetClearTPMKeys([&clears] {
    ++clears;
    return TSS_SUCCESS;
  });

  // The query takes no lock: another thread still reaches the TPM.
  ASSERT_EQ(CanIntoS3S4(), 0u);
  std::thread([] { TpmLockGuard lock(kGetRandom); }).join();
  EXPECT_EQ(GotoS3S4(), 0u);
  EXPECT_EQ(CurrentPowerState(), PowerState::kHeldForSleep);
  EXPECT_EQ(fake.cancels(), 0);

  fake.Respond(TPM_SUCCESS);
  S3S4Return();
  power_state_JoinRestart();
  EXPECT_THAT(fake.SentOrdinals(), ElementsAre(kContinueSelfTest, kContinueSelfTest));
  EXPECT_EQ(clears, 0);  // the driver layer keeps the TPM's keys on this path
  EXPECT_THAT(Reports(), ElementsAre(Report{PowerStatus::kContinuePending, 0, 3000},
                                     Report{PowerStatus::kRunning, 0, 0}));

  power_state_SetClearTPMKeys(nullptr);
  static_cast<void>(req_mgr_final());
  driver_unbind();
}

}  // namespace
}  // namespace kesttcs
