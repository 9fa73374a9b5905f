// The TPM's maintenance feature, the revocable endorsement key, field upgrade, redirection and the
// service's own capability areas through the real kesttcsd and the client library on the embedded
// libtpms TPM. Where libtpms does not implement a command, the service must hand its refusal back
// unchanged (0xE0280000 | the TPM's code); where it does, the command must succeed, its answer
// checked with OpenSSL or by its HMAC.
#include <openssl/evp.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "kesttcsd_process.h"
#include "owner_authorised.h"
#include "swtpm_process.h"

namespace kesttcs::testing {
namespace {

constexpr TCS_KEY_HANDLE kSrk = 0x40000000;

ByteVector Sha1(const ByteVector& bytes) {
  ByteVector digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  EXPECT_EQ(EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha1(), nullptr), 1);
  digest.resize(size);
  return digest;
}

ByteVector Bytes(const TPM_DIGEST& d) { return ByteVector(d.digest, d.digest + 20); }

class TpmFeaturesTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }
  void Start(bool owned) {
    daemon_ = std::make_unique<KesttcsdProcess>(Home(), owned);
    ASSERT_TRUE(daemon_->Start());
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  }

  TempDir dir_;
  std::unique_ptr<KesttcsdProcess> daemon_;
  TCS_CONTEXT_HANDLE h_ = 0;
};

TEST_F(TpmFeaturesTest, MaintenanceCommandsReachTheTpm) {
  ASSERT_NO_FATAL_FAILURE(Start(/*owned=*/true));
  const TPM_SECRET owner = WellKnownSecret();
  // libtpms is built without the maintenance feature: every command gets its refusal back as is.
  const TSS_RESULT refused = TpmResult(TPM_BAD_ORDINAL);
  UINT32 randomSize = 0, archiveSize = 0;
  BYTE *random = nullptr, *archive = nullptr;
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_CreateMaintenanceArchive, Params().U8(1).get(),
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_CreateMaintenanceArchive(h_, 1, auth, &randomSize, &random,
                                                             &archiveSize, &archive);
                     }),
            refused);
  ByteVector archiveIn = Params().U32(4).U32(0).U32(0).U32(0).get();
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_LoadMaintenanceArchive, archiveIn,
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_LoadMaintenanceArchive(h_, UINT32(archiveIn.size()),
                                                           archiveIn.data(), auth, &outSize, &out);
                     }),
            refused);
  EXPECT_EQ(
      OverOiap(h_, owner, TPM_ORD_KillMaintenanceFeature, {},
               [&](TPM_AUTH* auth, ByteVector*) { return Tcsip_KillMaintenanceFeature(h_, auth); }),
      refused);
  TPM_NONCE antiReplay{};
  TPM_DIGEST checksum{};
  ByteVector pubkey(28);
  EXPECT_EQ(Tcsip_LoadManuMaintPub(h_, antiReplay, UINT32(pubkey.size()), pubkey.data(), &checksum),
            refused);
  EXPECT_EQ(Tcsip_ReadManuMaintPub(h_, antiReplay, &checksum), refused);
  // Commands refused before sending leave the session table as it was: nothing is held.
  EXPECT_EQ(Tcsip_KillMaintenanceFeature(h_, nullptr), TCS_E_BAD_PARAMETER);
}

TEST_F(TpmFeaturesTest, FieldUpgradeAndRedirectionReachTheTpm) {
  ASSERT_NO_FATAL_FAILURE(Start(/*owned=*/true));
  const TPM_SECRET owner = WellKnownSecret();
  const TSS_RESULT refused = TpmResult(TPM_BAD_ORDINAL);
  ByteVector upgrade = {0xDE, 0xAD, 0xBE, 0xEF};
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  EXPECT_EQ(Tcsip_FieldUpgrade(h_, UINT32(upgrade.size()), upgrade.data(), nullptr, &outSize, &out),
            refused);
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_FieldUpgrade, upgrade,
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_FieldUpgrade(h_, UINT32(upgrade.size()), upgrade.data(), auth,
                                                 &outSize, &out);
                     }),
            refused);
  ByteVector channel = Params().U32(1).get();
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_SetRedirection,
                     Params().U32(1).U32(UINT32(channel.size())).Raw(channel).get(),
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_SetRedirection(h_, kSrk, 1, UINT32(channel.size()),
                                                   channel.data(), auth);
                     }),
            refused);
  // A key the service does not know is refused before anything is sent.
  EXPECT_EQ(OverOiap(h_, owner, TPM_ORD_SetRedirection,
                     Params().U32(1).U32(UINT32(channel.size())).Raw(channel).get(),
                     [&](TPM_AUTH* auth, ByteVector*) {
                       return Tcsip_SetRedirection(h_, 0x12345678, 1, UINT32(channel.size()),
                                                   channel.data(), auth);
                     }),
            TCS_E_INVALID_KEY);
}

// The 2048-bit RSA endorsement key's TPM_KEY_PARMS.
const BYTE kEkParms[] = {0, 0, 0, 1, 0, 3, 0, 1, 0, 0, 0, 12, 0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0};

TEST_F(TpmFeaturesTest, RevocableEndorsementKeyIsRefusedWhereAnEndorsementKeyExists) {
  ASSERT_NO_FATAL_FAILURE(Start(/*owned=*/false));  // the embedded TPM comes with its key
  TPM_NONCE antiReplay{};
  TPM_DIGEST resetAuth{};
  TPM_DIGEST checksum{};
  UINT32 ekSize = 0;
  BYTE* ek = nullptr;
  ByteVector parms(std::begin(kEkParms), std::end(kEkParms));
  EXPECT_EQ(
      Tcsip_CreateRevocableEndorsementKeyPair(h_, antiReplay, UINT32(parms.size()), parms.data(), 1,
                                              &resetAuth, &ekSize, &ek, &checksum),
      TpmResult(TPM_DISABLED_CMD));
  EXPECT_EQ(ek, nullptr);
  EXPECT_EQ(Tcsip_RevokeEndorsementKeyPair(h_, resetAuth), TpmResult(TPM_PERMANENTEK));
}

TEST_F(TpmFeaturesTest, RevocableEndorsementKeyIsMadeAndRevokedOnAFreshSwtpm) {
  if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  daemon_ = std::make_unique<KesttcsdProcess>(Home(), /*owned=*/false, swtpm.UnixConfig());
  ASSERT_TRUE(daemon_->Start());
  ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  TPM_NONCE antiReplay;
  std::memset(&antiReplay, 0x5A, sizeof antiReplay);
  ByteVector parms(std::begin(kEkParms), std::end(kEkParms));
  TPM_DIGEST resetAuth{};
  TPM_DIGEST checksum{};
  UINT32 ekSize = 0;
  BYTE* ek = nullptr;
  ASSERT_EQ(
      Tcsip_CreateRevocableEndorsementKeyPair(h_, antiReplay, UINT32(parms.size()), parms.data(), 1,
                                              &resetAuth, &ekSize, &ek, &checksum),
      TSS_SUCCESS);
  const ByteVector pubek = Take(ek, ekSize);
  EXPECT_GT(pubek.size(), 256u);
  // The checksum is SHA-1 over the public key and antiReplay, computed here independently.
  EXPECT_EQ(Bytes(checksum), Sha1(Params().Raw(pubek).Fixed(antiReplay).get()));
  EXPECT_NE(Bytes(resetAuth), ByteVector(20, 0)) << "the TPM made the reset secret";

  // Revoking needs physical presence and the reset secret.
  constexpr UINT16 kCommandEnable = 0x0020, kPresent = 0x0008;
  ASSERT_EQ(Tcsip_PhysicalPresence(h_, kCommandEnable), TSS_SUCCESS);
  ASSERT_EQ(Tcsip_PhysicalPresence(h_, kPresent), TSS_SUCCESS);
  TPM_DIGEST wrong = resetAuth;
  wrong.digest[0] ^= 1;
  EXPECT_EQ(Tcsip_RevokeEndorsementKeyPair(h_, wrong), TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(Tcsip_RevokeEndorsementKeyPair(h_, resetAuth), TSS_SUCCESS);
  // Revoking clears the TPM as a forced clear does, which leaves it disabled.
  EXPECT_EQ(Tcsip_ReadPubek(h_, antiReplay, &ekSize, &ek, &checksum), TpmResult(TPM_DISABLED));
}

// The service's own capability areas answer without the TPM; unknown sub-capabilities are refused.
TEST_F(TpmFeaturesTest, EveryTcsCapabilityAreaAnswers) {
  ASSERT_NO_FATAL_FAILURE(Start(/*owned=*/false));
  auto ask = [&](UINT32 area, UINT32 sub, TSS_RESULT* rc) {
    ByteVector subCap = Params().U32(sub).get();
    UINT32 size = 0;
    BYTE* resp = nullptr;
    *rc = Tcsi_GetCapability(h_, area, UINT32(subCap.size()), subCap.data(), &size, &resp);
    return Take(resp, *rc == TSS_SUCCESS ? size : 0);
  };
  TSS_RESULT rc = 0;
  EXPECT_EQ(ask(TSS_TCSCAP_ALG, 0x24, &rc), ByteVector{1});  // HMAC
  EXPECT_EQ(ask(TSS_TCSCAP_ALG, 0x25, &rc), ByteVector{0});  // AES-128
  EXPECT_EQ(ask(TSS_TCSCAP_VERSION, 0, &rc), (ByteVector{2, 1, 0, 13}));
  EXPECT_EQ(ask(TSS_TCSCAP_CACHING, TSS_TCSCAP_PROP_KEYCACHE, &rc), ByteVector{1});
  EXPECT_EQ(ask(TSS_TCSCAP_PERSSTORAGE, 0, &rc), ByteVector{1});
  EXPECT_EQ(ask(TSS_TCSCAP_MANUFACTURER, TSS_TCSCAP_PROP_MANUFACTURER_ID, &rc),
            (ByteVector{'K', 'E', 'S', 'T'}));
  EXPECT_EQ(ask(TSS_TCSCAP_MANUFACTURER, TSS_TCSCAP_PROP_MANUFACTURER_STR, &rc).size(), 36u);
  EXPECT_EQ(ask(TSS_TCSCAP_PLATFORM_CLASS, TSS_TCSCAP_PROP_HOST_PLATFORM, &rc), ByteVector(8, 0));
  EXPECT_EQ(ask(TSS_TCSCAP_PLATFORM_CLASS, TSS_TCSCAP_PROP_ALL_PLATFORMS, &rc), ByteVector(8, 0));
  EXPECT_EQ(rc, TSS_SUCCESS);
  for (auto [area, sub] : {std::pair<UINT32, UINT32>{TSS_TCSCAP_ALG, 0x30},
                           {TSS_TCSCAP_CACHING, 0x103},
                           {TSS_TCSCAP_MANUFACTURER, 0x104},
                           {TSS_TCSCAP_PLATFORM_CLASS, 3},
                           {0, 0},
                           {7, 0}}) {
    ask(area, sub, &rc);
    EXPECT_EQ(rc, 0xE0282002u) << area << "/" << sub;
  }
}

}  // namespace
}  // namespace kesttcs::testing
