// Five times more keys in use than the TPM has slots, through the real kesttcsd, on the embedded
// libtpms TPM and on a swtpm process. The owned TPM, its storage key and the 100 signing keys come
// from the fixture kept under the build tree (signing_keys_fixture.h: made on the first run, which
// triples its time, and reused by every later one). Four client processes (key_thrash_client)
// each load the storage key and 25 signing keys, so the cache holds one storage key with four
// references and 100 signing keys; then in each of 10 rounds every client uses each of its keys
// once: every answer is right, the TPM never holds more keys than its slots (asked between
// rounds), and the service's swap counters show the swaps, which the test prints. When the clients
// close their contexts, all their keys leave the cache and the TPM. A round uses a key as the
// client's named use says (kKeyUses in key_thrash_client.cc): "pubkey" asks for its public part,
// which must be the key's own; "sign" signs a digest, and OpenSSL verifies every signature.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_service_state.h>

#include "signing_keys_fixture.h"

namespace kesttcs::testing {
namespace {

using signing_keys::FixtureTpm;

constexpr size_t kKeys = 100;
constexpr size_t kClients = 4;
constexpr size_t kKeysPerClient = kKeys / kClients;
constexpr int kRounds = 10;
constexpr size_t kTpmKeySlots = 20;

const std::string kThrashClient = KESTTCS_THRASH_CLIENT;

// A key_thrash_client process, talked to over its stdin and stdout; killed if still running at
// destruction.
class ThrashClient {
 public:
  ThrashClient(const std::vector<std::string>& argv, const fs::path& log) {
    int toChild[2], fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) return;
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(toChild[0]);
    close(fromChild[1]);
    to_ = fdopen(toChild[1], "w");
    from_ = fdopen(fromChild[0], "r");
  }
  ~ThrashClient() {
    if (to_ != nullptr) fclose(to_);
    if (from_ != nullptr) fclose(from_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      WaitForExit(pid_);
    }
  }
  ThrashClient(const ThrashClient&) = delete;
  ThrashClient& operator=(const ThrashClient&) = delete;

  void Say(const char* line) {
    std::fprintf(to_, "%s\n", line);
    std::fflush(to_);
  }
  // The next line it wrote, without its line end; "" when it ended.
  std::string Answer() {
    char line[256];
    if (std::fgets(line, sizeof line, from_) == nullptr) return "";
    std::string text = line;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  // Ends its input (it closes its context and exits) and returns its exit status.
  int Finish() {
    fclose(to_);
    to_ = nullptr;
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_ = -1;
  FILE* to_ = nullptr;
  FILE* from_ = nullptr;
};

// The TPM's loaded keys (TPM_CAP_HANDLE for TPM_RT_KEY: a UINT16 count, then the handles).
size_t TpmKeyCount(TCS_CONTEXT_HANDLE h) {
  BYTE rtKey[] = {0, 0, 0, 1};
  UINT32 size = 0;
  BYTE* answer = nullptr;
  EXPECT_EQ(Tcsip_GetCapability(h, TPM_CAP_HANDLE, sizeof rtKey, rtKey, &size, &answer),
            TSS_SUCCESS);
  const size_t count = size >= 2 ? size_t(answer[0]) << 8 | answer[1] : 0;
  Tcs_FreeBuffer(answer);
  return count;
}

struct CacheView {
  UINT64 swapOuts = 0;
  UINT64 swapIns = 0;
  // Per parent TCS handle, its children; and each key's references.
  std::map<TCS_KEY_HANDLE, size_t> children;
  std::map<TCS_KEY_HANDLE, UINT32> references;
};

CacheView ReadCache() {
  KESTTCS_KEY_CACHE cache{};
  EXPECT_EQ(KestTcs_GetKeyCache(&cache), TSS_SUCCESS);
  CacheView view{cache.swapOuts, cache.swapIns, {}, {}};
  for (UINT32 i = 0; i < cache.count; ++i) {
    ++view.children[cache.entries[i].parentTcsHandle];
    view.references[cache.entries[i].tcsKeyHandle] = cache.entries[i].refCount;
  }
  KestTcs_FreeKeyCache(&cache);
  return view;
}

void Thrash(FixtureTpm tpm, const std::string& use) {
  signal(SIGPIPE, SIG_IGN);  // a client that died shows as a missing answer, not a dead test
  ASSERT_TRUE(signing_keys::Fixture(tpm, kKeys).has_value());
  const TempDir dir;
  const fs::path home = fs::path(dir.path()) / "home";
  signing_keys::FixtureService service(tpm, home, signing_keys::FixtureDir(tpm) / "tpm-state");
  ASSERT_TRUE(service.Start()) << daemon_process::ReadFile(home / "kesttcsd.log");
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);

  std::vector<std::unique_ptr<ThrashClient>> clients;
  for (size_t c = 0; c < kClients; ++c) {
    clients.push_back(std::make_unique<ThrashClient>(
        std::vector<std::string>{
            kThrashClient, use, service.daemon().socket(), signing_keys::FixtureDir(tpm).string(),
            std::to_string(c * kKeysPerClient), std::to_string(kKeysPerClient)},
        fs::path(dir.path()) / ("client" + std::to_string(c) + ".log")));
  }
  for (auto& client : clients) ASSERT_EQ(client->Answer(), "loaded");

  // One cache entry for the storage key that all four loaded, with their four references.
  const CacheView loaded = ReadCache();
  TCS_KEY_HANDLE storage = 0;
  for (const auto& [parent, count] : loaded.children) {
    if (count == kKeys) storage = parent;
  }
  ASSERT_NE(storage, 0u) << "no key holds the 100 signing keys";
  EXPECT_EQ(loaded.references.at(storage), kClients);
  EXPECT_LE(TpmKeyCount(h), kTpmKeySlots);

  for (int round = 0; round < kRounds; ++round) {
    for (auto& client : clients) client->Say("round");
    for (auto& client : clients) EXPECT_EQ(client->Answer(), "ok") << "round " << round;
    ASSERT_FALSE(::testing::Test::HasFailure());
    EXPECT_LE(TpmKeyCount(h), kTpmKeySlots) << "round " << round;
  }
  const CacheView used = ReadCache();
  const UINT64 swapOuts = used.swapOuts - loaded.swapOuts;
  const UINT64 swapIns = used.swapIns - loaded.swapIns;
  std::printf("%s, %s: %zu keys used %d times each: %llu swapped out, %llu swapped in\n",
              signing_keys::TpmName(tpm), use.c_str(), kKeys, kRounds,
              static_cast<unsigned long long>(swapOuts), static_cast<unsigned long long>(swapIns));
  // At the start of a round at most a slot's worth of keys is resident, so every other key of the
  // round has to be swapped in, and as many swapped out to make room.
  EXPECT_GE(swapIns, UINT64(kRounds) * (kKeys - kTpmKeySlots));
  EXPECT_GE(swapOuts + kTpmKeySlots, swapIns);

  for (auto& client : clients) EXPECT_EQ(client->Finish(), 0);
  const CacheView closed = ReadCache();
  EXPECT_EQ(closed.children.count(storage), 0u);
  EXPECT_EQ(closed.references.count(storage), 0u);
  EXPECT_EQ(TpmKeyCount(h), 0u);
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

TEST(KeyThrashTest, HundredKeysFromFourClientsOnTheEmbeddedTpm) {
  Thrash(FixtureTpm::kLibtpms, "pubkey");
}

TEST(KeyThrashTest, HundredKeysSignFromFourClientsOnTheEmbeddedTpm) {
  Thrash(FixtureTpm::kLibtpms, "sign");
}

TEST(KeyThrashTest, HundredKeysFromFourClientsOnASwtpmProcess) {
  if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  Thrash(FixtureTpm::kSwtpm, "pubkey");
}

}  // namespace
}  // namespace kesttcs::testing
