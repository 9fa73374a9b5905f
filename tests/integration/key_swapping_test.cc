// Key loading and swapping through the real kesttcsd on the embedded libtpms TPM (provisioned by
// kesttcs-cli with the well-known owner and SRK secrets): a storage key and more signing keys than
// the TPM has slots, made with Tcsip_CreateWrapKey and the client's authorisation helper (OSAP,
// ADIP), loaded (the service authorises the storage key's load under the SRK itself), then used in
// round robin with Tcsip_GetPubKey: every answer is the key's own public part and the TPM never
// holds more than its 20 keys. A key shared by two contexts is one cache entry with two references
// (as the service-state interface shows) and outlives one of them; it leaves the TPM with its last
// reference; a client killed with SIGKILL releases its references.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using daemon_process::kPatience;
using Bytes = std::vector<BYTE>;
using wrapped_keys::CreateKey;
using wrapped_keys::KeyInfo;
using wrapped_keys::kSrk;
using wrapped_keys::Load;
using wrapped_keys::PubKey;
using wrapped_keys::PubKeyOf;
using wrapped_keys::TpmKeyCount;

constexpr size_t kTpmKeySlots = 20;
// More signing keys than slots, few enough for CI (each RSA key takes the TPM a while to make).
constexpr size_t kSigningKeys = 24;

const Bytes kStorageKey = KeyInfo(wrapped_keys::kStorageUsage, 2048, /*OAEP*/ 3, /*none*/ 1);
const Bytes kSigningKey = KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1, /*PKCS#1 SHA-1*/ 2);

// The key cache's entry for `key`, as the service-state interface reports it.
std::optional<KESTTCS_KEY_CACHE_ENTRY> CacheEntry(TCS_KEY_HANDLE key) {
  KESTTCS_KEY_CACHE cache{};
  EXPECT_EQ(KestTcs_GetKeyCache(&cache), TSS_SUCCESS);
  std::optional<KESTTCS_KEY_CACHE_ENTRY> found;
  for (UINT32 i = 0; i < cache.count; ++i) {
    if (cache.entries[i].tcsKeyHandle == key) found = cache.entries[i];
  }
  KestTcs_FreeKeyCache(&cache);
  return found;
}

// Whether the TPM holds a key in `slot` (TPM_CAP_KEY_HANDLE: a UINT16 count, then the handles).
bool TpmHoldsSlot(TCS_CONTEXT_HANDLE h, TPM_KEY_HANDLE slot) {
  UINT32 size = 0;
  BYTE* resp = nullptr;
  EXPECT_EQ(Tcsip_GetCapability(h, TPM_CAP_KEY_HANDLE, 0, nullptr, &size, &resp), TSS_SUCCESS);
  bool held = false;
  for (UINT32 at = 2; at + 4 <= size; at += 4) {
    held = held || wrapped_keys::Get32(Bytes(resp + at, resp + at + 4), 0) == slot;
  }
  Tcs_FreeBuffer(resp);
  return held;
}

TEST(KeySwappingTest, MoreKeysThanSlotsAnswerRightSharedKeysStayAndDeadClientsLetGo) {
  TempDir dir;
  KesttcsdProcess daemon(fs::path(dir.path()) / "home", /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  // The project's own provisioning: well-known owner and SRK secrets.
  const fs::path cliLog = fs::path(dir.path()) / "cli.txt";
  ASSERT_EQ(
      WaitForExit(Spawn({kKesttcsCli, "--endpoint", daemon.socket(), "provision"}, {}, cliLog)), 0)
      << daemon_process::ReadFile(cliLog);
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);

  const Bytes storageBlob = CreateKey(h, kSrk, kStorageKey);
  ASSERT_GT(storageBlob.size(), 256u);
  const TCS_KEY_HANDLE storage = Load(h, kSrk, storageBlob);
  std::vector<Bytes> blobs;
  std::vector<TCS_KEY_HANDLE> keys;
  for (size_t i = 0; i < kSigningKeys; ++i) {
    blobs.push_back(CreateKey(h, storage, kSigningKey));
    keys.push_back(Load(h, storage, blobs.back()));
    ASSERT_FALSE(HasFailure()) << "key " << i;
  }
  EXPECT_EQ(std::set<TCS_KEY_HANDLE>(keys.begin(), keys.end()).size(), kSigningKeys);

  // Round robin: every key answers with its own public part, which needs swaps, since the TPM
  // cannot hold them all at once.
  for (int round = 0; round < 3; ++round) {
    for (size_t i = 0; i < kSigningKeys; ++i) {
      Bytes pub;
      ASSERT_EQ(PubKey(h, keys[i], &pub), TSS_SUCCESS) << "round " << round << " key " << i;
      EXPECT_EQ(pub, PubKeyOf(blobs[i])) << "round " << round << " key " << i;
      ASSERT_LE(TpmKeyCount(h), kTpmKeySlots);
    }
  }
  EXPECT_EQ(TpmKeyCount(h), kTpmKeySlots);

  // A second context loading the same blob shares the key; its close leaves the key usable.
  TCS_CONTEXT_HANDLE other = 0;
  ASSERT_EQ(Tcsi_OpenContext(&other), TSS_SUCCESS);
  EXPECT_EQ(Load(other, storage, blobs[0]), keys[0]);
  ASSERT_TRUE(CacheEntry(keys[0]).has_value());
  EXPECT_EQ(CacheEntry(keys[0])->refCount, 2u);
  EXPECT_EQ(CacheEntry(keys[0])->parentTcsHandle, storage);
  ASSERT_EQ(Tcsi_CloseContext(other), TSS_SUCCESS);
  EXPECT_EQ(CacheEntry(keys[0])->refCount, 1u);
  Bytes pub;
  EXPECT_EQ(PubKey(h, keys[0], &pub), TSS_SUCCESS);
  // One evicting context keeps it for the other; the last reference ends it.
  ASSERT_EQ(Tcsi_OpenContext(&other), TSS_SUCCESS);
  EXPECT_EQ(Load(other, storage, blobs[0]), keys[0]);
  EXPECT_EQ(Tcsip_EvictKey(h, keys[0]), TSS_SUCCESS);
  EXPECT_EQ(PubKey(other, keys[0], &pub), TSS_SUCCESS);
  const std::optional<KESTTCS_KEY_CACHE_ENTRY> shared = CacheEntry(keys[0]);
  ASSERT_TRUE(shared.has_value());
  EXPECT_EQ(shared->refCount, 1u);
  ASSERT_EQ(shared->state, KESTTCS_KEY_RESIDENT);
  EXPECT_TRUE(TpmHoldsSlot(h, shared->tpmHandle));
  EXPECT_EQ(Tcsip_EvictKey(other, keys[0]), TSS_SUCCESS);
  EXPECT_EQ(PubKey(other, keys[0], &pub), TCS_E_INVALID_KEY);
  EXPECT_FALSE(CacheEntry(keys[0]).has_value());
  EXPECT_FALSE(TpmHoldsSlot(h, shared->tpmHandle));

  // A registered chain (storage key under the SRK, signing key under it) loads by UUID alone in a
  // fresh context, the parent first.
  const TSS_UUID srkUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
  const TSS_UUID storageUuid = {0x5107A6E0, 1, 2, 3, 4, {5, 6, 7, 8, 9, 10}};
  const TSS_UUID signingUuid = {0x516E0000, 1, 2, 3, 4, {5, 6, 7, 8, 9, 11}};
  ASSERT_EQ(Tcsi_RegisterKey(h, srkUuid, storageUuid, UINT32(storageBlob.size()),
                             const_cast<BYTE*>(storageBlob.data()), 0, nullptr),
            TSS_SUCCESS);
  ASSERT_EQ(Tcsi_RegisterKey(h, storageUuid, signingUuid, UINT32(blobs[2].size()),
                             const_cast<BYTE*>(blobs[2].data()), 0, nullptr),
            TSS_SUCCESS);
  // Registered after it was loaded: the cache listing finds its UUID in storage.
  ASSERT_TRUE(CacheEntry(storage).has_value());
  EXPECT_TRUE(CacheEntry(storage)->registered);
  EXPECT_EQ(std::memcmp(&CacheEntry(storage)->uuid, &storageUuid, sizeof storageUuid), 0);
  ASSERT_TRUE(CacheEntry(keys[3]).has_value());
  EXPECT_FALSE(CacheEntry(keys[3])->registered);
  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_CloseContext(other), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  TCS_KEY_HANDLE byUuid = 0;
  ASSERT_EQ(Tcsip_LoadKeyByUUID(h, signingUuid, nullptr, &byUuid), TSS_SUCCESS);
  ASSERT_EQ(PubKey(h, byUuid, &pub), TSS_SUCCESS);
  EXPECT_EQ(pub, PubKeyOf(blobs[2]));
  TSS_UUID unknown = signingUuid;
  unknown.rgbNode[5] = 99;
  EXPECT_EQ(Tcsip_LoadKeyByUUID(h, unknown, nullptr, &byUuid), TCS_E_KEY_NOT_REGISTERED);

  // A client killed while it holds a key: its references go when the service sees it die.
  Tcs_Disconnect();
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const pid_t child = fork();
  if (child == 0) {
    TCS_CONTEXT_HANDLE c = 0;
    TCS_KEY_HANDLE held = 0;
    if (Tcs_Connect(daemon.socket().c_str()) == 0 && Tcsi_OpenContext(&c) == TSS_SUCCESS) {
      const TCS_KEY_HANDLE parent = Load(c, kSrk, storageBlob);
      held = Load(c, parent, blobs[1]);
    }
    (void)!write(pipeFds[1], &held, sizeof held);
    pause();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  TCS_KEY_HANDLE held = 0;
  ASSERT_EQ(read(pipeFds[0], &held, sizeof held), ssize_t(sizeof held));
  ASSERT_NE(held, 0u);
  ASSERT_EQ(Tcs_Connect(daemon.socket().c_str()), TSS_SUCCESS);
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  ASSERT_EQ(PubKey(h, held, &pub), TSS_SUCCESS);
  EXPECT_EQ(pub, PubKeyOf(blobs[1]));
  ASSERT_TRUE(CacheEntry(held).has_value());
  EXPECT_EQ(CacheEntry(held)->refCount, 1u);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(pipeFds[0]);
  close(pipeFds[1]);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (PubKey(h, held, &pub) == TSS_SUCCESS && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(PubKey(h, held, &pub), TCS_E_INVALID_KEY);
  EXPECT_FALSE(CacheEntry(held).has_value());
}

}  // namespace
}  // namespace kesttcs::testing
