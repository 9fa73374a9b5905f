// Keys across restarts of kesttcsd, on the embedded libtpms TPM (its state kept in the home) and
// on a swtpm process that keeps running: a signing key made owner-evict with TPM_KeyControlOwner
// (the owner's OIAP session from the client's authorisation helper) is still in the TPM after the
// restart and usable through the TCS handle the new daemon gives it, until the bit is cleared; and
// a depth-3 chain of registered keys loads by UUID in a fresh context after a restart.
#include <filesystem>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "swtpm_process.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;
using wrapped_keys::CreateKey;
using wrapped_keys::KeyInfo;
using wrapped_keys::kSrk;
using wrapped_keys::Load;
using wrapped_keys::PubKey;
using wrapped_keys::PubKeyOf;
using wrapped_keys::TpmKeyCount;

constexpr UINT32 kOwnerEvict = 1;  // TPM_KEY_CONTROL_OWNER_EVICT
constexpr TSS_UUID kSrkUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
constexpr TSS_UUID kStorage1Uuid = {0x5701, 0, 0, 0, 0, {0, 0, 0, 0, 0x0A, 1}};
constexpr TSS_UUID kStorage2Uuid = {0x5702, 0, 0, 0, 0, {0, 0, 0, 0, 0x0A, 2}};
constexpr TSS_UUID kSigningUuid = {0x5703, 0, 0, 0, 0, {0, 0, 0, 0, 0x0A, 3}};

const Bytes kStorageKey = KeyInfo(wrapped_keys::kStorageUsage, 2048, /*OAEP*/ 3, /*none*/ 1);
const Bytes kSigningKey = KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1, /*PKCS#1 SHA-1*/ 2);

// TPM_KeyControlOwner on `key` with the owner's (well-known) secret over an OIAP session; the
// answer's HMAC is checked. The UUID the service lists the key under, when it accepted.
std::optional<TSS_UUID> SetOwnerEvict(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const Bytes& pub,
                                      bool value) {
  const TPM_SECRET owner = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION s{};
  EXPECT_EQ(KestAuth_OpenOIAP(h, &owner, &s), TSS_SUCCESS);
  Bytes params = pub;
  wrapped_keys::Put32(params, kOwnerEvict);
  params.push_back(value ? 1 : 0);
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_KeyControlOwner, params.data(), UINT32(params.size()), 0,
                               &auth),
            TSS_SUCCESS);
  TSS_UUID uuid{};
  const TSS_RESULT r =
      Tcsip_KeyControlOwner(h, key, UINT32(pub.size()), const_cast<BYTE*>(pub.data()), kOwnerEvict,
                            value ? 1 : 0, &auth, &uuid);
  EXPECT_EQ(r, TSS_SUCCESS);
  if (r != TSS_SUCCESS) return std::nullopt;
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_KeyControlOwner, nullptr, 0, &auth), TSS_SUCCESS);
  return uuid;
}

std::optional<Bytes> RegisteredBlob(TCS_CONTEXT_HANDLE h, const TSS_UUID& uuid) {
  UINT32 size = 0;
  BYTE* data = nullptr;
  if (Tcsi_GetRegisteredKeyBlob(h, uuid, &size, &data) != TSS_SUCCESS) return std::nullopt;
  Bytes blob(data, data + size);
  Tcs_FreeBuffer(data);
  return blob;
}

class KeyRestartsTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }
  fs::path CtrlFile() const { return Home() / "data" / "KestCtrl.dat"; }

  // Starts a daemon on `backend` in the one home; a fresh TPM gets its owner (and, when asked,
  // its endorsement key first) through the project's own provisioning.
  std::unique_ptr<KesttcsdProcess> StartDaemon(const std::string& backend, bool provision,
                                               bool createEk = false) {
    auto daemon = std::make_unique<KesttcsdProcess>(Home(), /*owned=*/false, backend);
    EXPECT_TRUE(daemon->Start());
    if (createEk) {
      TCS_CONTEXT_HANDLE h = 0;
      EXPECT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
      CreateEndorsementKey(h);
      EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
    }
    if (provision) {
      const auto [status, out] =
          RunKesttcsCli({"provision"}, daemon->socket(), fs::path(dir_.path()) / "cli.txt");
      EXPECT_EQ(status, 0) << out;
    }
    return daemon;
  }

  // The whole scenario on one TPM, the daemon restarted once; `backend` names the TPM.
  void OwnerEvictKeySurvivesRestarts(const std::string& backend, bool createEk) {
    auto daemon = StartDaemon(backend, /*provision=*/true, createEk);
    TCS_CONTEXT_HANDLE h = 0;
    ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
    const Bytes blob = CreateKey(h, kSrk, kSigningKey);
    const TCS_KEY_HANDLE key = Load(h, kSrk, blob);
    Bytes pub;
    ASSERT_EQ(PubKey(h, key, &pub), TSS_SUCCESS);
    ASSERT_EQ(pub, PubKeyOf(blob));
    const std::optional<TSS_UUID> uuid = SetOwnerEvict(h, key, pub, true);
    ASSERT_TRUE(uuid.has_value());
    EXPECT_GT(fs::file_size(CtrlFile()), 8u);
    EXPECT_EQ(RegisteredBlob(h, *uuid), blob) << "the list answers for its UUID";
    ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
    ASSERT_EQ(daemon->Stop(), 0);

    daemon = StartDaemon(backend, /*provision=*/false);
    ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
    const std::optional<Bytes> listed = RegisteredBlob(h, *uuid);
    ASSERT_TRUE(listed.has_value()) << "the key is still listed after the restart";
    EXPECT_EQ(*listed, blob);
    // Loading the blob finds the resident key (the TPM holds no second copy): its new TCS handle,
    // and the TPM's own public key.
    const size_t held = TpmKeyCount(h);
    EXPECT_GE(held, 1u);
    const TCS_KEY_HANDLE again = Load(h, kSrk, *listed);
    Bytes pubAgain;
    EXPECT_EQ(PubKey(h, again, &pubAgain), TSS_SUCCESS);
    EXPECT_EQ(pubAgain, pub);
    EXPECT_EQ(TpmKeyCount(h), held);

    ASSERT_TRUE(SetOwnerEvict(h, again, pub, false).has_value());
    EXPECT_EQ(fs::file_size(CtrlFile()), 8u) << "the record left the file";
    EXPECT_FALSE(RegisteredBlob(h, *uuid).has_value());
    EXPECT_EQ(Tcsip_EvictKey(h, again), TSS_SUCCESS);
    EXPECT_EQ(TpmKeyCount(h), held - 1) << "without the bit the key can leave the TPM";
    ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
    ASSERT_EQ(daemon->Stop(), 0);
  }

  TempDir dir_;
};

TEST_F(KeyRestartsTest, AnOwnerEvictKeySurvivesADaemonRestartOnTheEmbeddedTpm) {
  OwnerEvictKeySurvivesRestarts("libtpms", /*createEk=*/false);
}

TEST_F(KeyRestartsTest, AnOwnerEvictKeySurvivesADaemonRestartOnASwtpmProcess) {
  if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  OwnerEvictKeySurvivesRestarts(swtpm.UnixConfig(), /*createEk=*/true);
}

TEST_F(KeyRestartsTest, ADepthThreeChainLoadsByUuidInAFreshContextAfterARestart) {
  auto daemon = StartDaemon("libtpms", /*provision=*/true);
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  const Bytes storage1 = CreateKey(h, kSrk, kStorageKey);
  const TCS_KEY_HANDLE s1 = Load(h, kSrk, storage1);
  const Bytes storage2 = CreateKey(h, s1, kStorageKey);
  const TCS_KEY_HANDLE s2 = Load(h, s1, storage2);
  const Bytes signing = CreateKey(h, s2, kSigningKey);
  for (const auto& [parent, uuid, blob] : {std::tuple{kSrkUuid, kStorage1Uuid, storage1},
                                           std::tuple{kStorage1Uuid, kStorage2Uuid, storage2},
                                           std::tuple{kStorage2Uuid, kSigningUuid, signing}}) {
    ASSERT_EQ(Tcsi_RegisterKey(h, parent, uuid, UINT32(blob.size()), const_cast<BYTE*>(blob.data()),
                               0, nullptr),
              TSS_SUCCESS);
  }
  // The SRK by its UUID: the TPM keeps its public part unreadable, so the service answers from
  // what it knows (cached at ownership before the restart, its fixed form after it).
  TCS_KEY_HANDLE srk = 0;
  EXPECT_EQ(Tcsip_LoadKeyByUUID(h, kSrkUuid, nullptr, &srk), TSS_SUCCESS);
  EXPECT_EQ(srk, kSrk);
  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
  ASSERT_EQ(daemon->Stop(), 0);

  daemon = StartDaemon("libtpms", /*provision=*/false);
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  srk = 0;
  EXPECT_EQ(Tcsip_LoadKeyByUUID(h, kSrkUuid, nullptr, &srk), TSS_SUCCESS);
  EXPECT_EQ(srk, kSrk);
  TCS_KEY_HANDLE key = 0;
  ASSERT_EQ(Tcsip_LoadKeyByUUID(h, kSigningUuid, nullptr, &key), TSS_SUCCESS);
  Bytes pub;
  EXPECT_EQ(PubKey(h, key, &pub), TSS_SUCCESS);
  EXPECT_EQ(pub, PubKeyOf(signing));
  ASSERT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

}  // namespace
}  // namespace kesttcs::testing
