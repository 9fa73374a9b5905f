// kesttcsd killed with SIGKILL at random moments while a client registers and unregisters keys.
// After each restart every change the service acknowledged before the kill is there, the change
// in flight at the kill is either done or not (never half), and kesttcs-cli finds the file sound.
// 200 calls here; scripts/storage-kill-test.sh runs 1000. KESTTCS_KILL_TEST_CALLS and
// KESTTCS_KILL_TEST_SEED set the number of calls and the seed (printed, to repeat a run).
#include <signal.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "kesttcsd_process.h"
#include "storage/test_keys.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;

constexpr TSS_UUID kSrk = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
// Keys the client works with; few, so that slots are deleted and reused again and again.
constexpr UINT32 kKeys = 12;
// Kills come between 0 and this long after the client starts calling.
constexpr int kMaxKillDelayMs = 300;

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : otherwise;
}

// What the client knows of one key.
struct KnownKey {
  enum class State { kAbsent, kRegistered, kInFlight };
  State state = State::kAbsent;
  Bytes blob;  // registered, or being registered, with this blob
  // In flight: a registration (else an unregistration) whose answer the kill cut off.
  bool registering = false;
};

struct Tally {
  unsigned calls = 0;
  unsigned kills = 0;
  unsigned inFlightDone = 0;
  unsigned inFlightUndone = 0;
};

// The blob registered as `uuid`, or nothing when it is not registered.
std::optional<Bytes> RegisteredBlob(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& uuid) {
  UINT32 size = 0;
  BYTE* blob = nullptr;
  const TSS_RESULT r = Tcsi_GetRegisteredKeyBlob(hContext, uuid, &size, &blob);
  EXPECT_TRUE(r == TSS_SUCCESS || r == TCS_E_KEY_NOT_REGISTERED) << std::hex << r;
  if (r != TSS_SUCCESS) return std::nullopt;
  Bytes bytes(blob, blob + size);
  Tcs_FreeBuffer(blob);
  return bytes;
}

// Compares what the restarted service has with what the client knows, and settles the change
// that was in flight.
void CheckKeys(TCS_CONTEXT_HANDLE hContext, std::array<KnownKey, kKeys>& keys, Tally& tally) {
  UINT32 count = 0;
  TSS_KM_KEYINFO* infos = nullptr;
  ASSERT_EQ(Tcsi_EnumRegisteredKeys(hContext, nullptr, &count, &infos), TSS_SUCCESS);
  unsigned listed = 0;
  for (UINT32 i = 0; i < count; ++i) {
    EXPECT_TRUE(infos[i].parentKeyUUID == kSrk || infos[i].keyUUID == kSrk);
    if (!(infos[i].keyUUID == kSrk)) ++listed;
  }
  Tcs_FreeBuffer(infos);

  unsigned registered = 0;
  for (UINT32 i = 0; i < kKeys; ++i) {
    SCOPED_TRACE("key " + std::to_string(i));
    KnownKey& key = keys[i];
    const std::optional<Bytes> blob = RegisteredBlob(hContext, MakeUuid(i));
    if (key.state == KnownKey::State::kInFlight) {
      const bool done = blob.has_value() == key.registering;
      ++(done ? tally.inFlightDone : tally.inFlightUndone);
      key.state = blob ? KnownKey::State::kRegistered : KnownKey::State::kAbsent;
    }
    if (key.state == KnownKey::State::kRegistered) {
      ++registered;
      EXPECT_EQ(blob, key.blob);
    } else {
      EXPECT_FALSE(blob.has_value());
    }
  }
  EXPECT_EQ(listed, registered);
}

TEST(StorageKillTest, AcknowledgedChangesSurviveSigkill) {
  ASSERT_FALSE(OwnedTpmState().empty()) << "swtpm_setup could not take ownership";
  const unsigned calls = FromEnvironment("KESTTCS_KILL_TEST_CALLS", 200);
  const unsigned seed = FromEnvironment("KESTTCS_KILL_TEST_SEED", std::random_device()());
  std::cout << "storage kill test: " << calls << " calls, seed " << seed << std::endl;
  std::mt19937 random(seed);
  TempDir dir;
  const fs::path home = fs::path(dir.path()) / "home";
  KesttcsdProcess daemon(home, /*owned=*/true);
  std::array<KnownKey, kKeys> keys;
  Tally tally;

  while (tally.calls < calls) {
    ASSERT_TRUE(daemon.Start());
    TCS_CONTEXT_HANDLE hContext = 0;
    ASSERT_EQ(Tcsi_OpenContext(&hContext), TSS_SUCCESS);
    CheckKeys(hContext, keys, tally);
    if (::testing::Test::HasFailure()) return;
    const pid_t check =
        Spawn({kKesttcsCli, "keys", "check", "--file", (home / "data" / "KestData.dat").string()},
              {}, fs::path(dir.path()) / "check.txt");
    ASSERT_EQ(WaitForExit(check), 0);

    const auto delay =
        std::chrono::milliseconds(std::uniform_int_distribution<int>(0, kMaxKillDelayMs)(random));
    std::thread killer([delay, pid = daemon.pid()] {
      std::this_thread::sleep_for(delay);
      kill(pid, SIGKILL);
    });
    while (tally.calls < calls) {
      KnownKey& key = keys[std::uniform_int_distribution<UINT32>(0, kKeys - 1)(random)];
      const TSS_UUID uuid = MakeUuid(UINT32(&key - keys.data()));
      key.registering = key.state != KnownKey::State::kRegistered;
      TSS_RESULT r = 0;
      if (key.registering) {
        // Sizes repeat, so that deleted slots are taken again.
        key.blob = KeyBlob({.modulusSize = std::size_t{8} << (random() % 5),
                            .fill = BYTE(random()),
                            .encSize = random() % 2 == 0 ? 4u : 256u});
        key.state = KnownKey::State::kInFlight;
        r = Tcsi_RegisterKey(hContext, kSrk, uuid, UINT32(key.blob.size()), key.blob.data(), 0,
                             nullptr);
      } else {
        key.state = KnownKey::State::kInFlight;
        r = Tcsip_UnregisterKey(hContext, uuid);
      }
      ++tally.calls;
      if (r == TCS_E_COMM_FAILURE) break;
      ASSERT_EQ(r, TSS_SUCCESS);
      key.state = key.registering ? KnownKey::State::kRegistered : KnownKey::State::kAbsent;
    }
    killer.join();
    daemon.Kill();
    ++tally.kills;
  }

  ASSERT_TRUE(daemon.Start());
  TCS_CONTEXT_HANDLE hContext = 0;
  ASSERT_EQ(Tcsi_OpenContext(&hContext), TSS_SUCCESS);
  CheckKeys(hContext, keys, tally);
  EXPECT_EQ(daemon.Stop(), 0);
  std::cout << "storage kill test: " << tally.kills << " kills; of the calls they cut off, "
            << tally.inFlightDone << " were done and " << tally.inFlightUndone << " were not"
            << std::endl;
}

}  // namespace
}  // namespace kesttcs::testing
