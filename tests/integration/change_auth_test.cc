// Changing a key's secret through the real kesttcsd on the embedded libtpms TPM (provisioned with
// well-known secrets): TPM_ChangeAuth on a registered key under the SRK, both sessions' answers
// checked with the client's authorisation helper; after a restart of the daemon the key loads by
// its UUID and is used with the new secret only. (The asymmetric pair needs an identity key: see
// identity_test.cc.)
#include <filesystem>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "kesttcsd_process.h"
#include "provisioned_daemon.h"
#include "transport_session.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using transport_session::Bytes;
using transport_session::Put16;
using transport_session::PutAll;
using transport_session::PutFixed;
using wrapped_keys::kSrk;
using wrapped_keys::Put32;

constexpr UINT16 kEntityKey = 0x0005;  // TPM_ET_KEY, the secret sent by ADIP's XOR
const TSS_UUID kSrkUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
const TSS_UUID kKeyUuid = {0xC4A76E00, 1, 2, 3, 4, {5, 6, 7, 8, 9, 10}};
const Bytes kSigningKey = wrapped_keys::KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1,
                                                /*PKCS#1 SHA-1*/ 2, wrapped_keys::kAuthAlways);

// The encData of a TPM_KEY blob: its last part, after its size.
Bytes EncDataOf(const Bytes& blob) {
  const size_t at = wrapped_keys::LayoutOf(blob).pubEnd;
  return Bytes(blob.begin() + std::ptrdiff_t(at + 4), blob.end());
}

// TPM_GetPubKey authorised with `secret` over OIAP: the service's result.
TSS_RESULT PubKeyWithSecret(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const TPM_SECRET& secret,
                            Bytes* pub) {
  KESTTCS_AUTH_SESSION s{};
  EXPECT_EQ(KestAuth_OpenOIAP(h, &secret, &s), TSS_SUCCESS);
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetPubKey, nullptr, 0, 0, &auth), TSS_SUCCESS);
  UINT32 size = 0;
  BYTE* data = nullptr;
  const TSS_RESULT r = Tcsip_GetPubKey(h, key, &auth, &size, &data);
  pub->assign(data, data + size);
  Tcs_FreeBuffer(data);
  if (r == TSS_SUCCESS) {
    EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetPubKey, pub->data(), UINT32(pub->size()), &auth),
              TSS_SUCCESS);
  } else {
    KestAuth_Close(h, &s);
  }
  return r;
}

// TPM_ChangeAuth of the key whose encData is `encData`, under the SRK, from the well-known secret
// to `newSecret`: the parent's OSAP session carries the new secret by ADIP, the key's OIAP session
// authorises its old one. Returns the new encData.
Bytes ChangeKeySecret(TCS_CONTEXT_HANDLE h, const Bytes& encData, const TPM_SECRET& newSecret) {
  const TPM_SECRET oldSecret = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION parent{};
  KESTTCS_AUTH_SESSION entity{};
  EXPECT_EQ(KestAuth_OpenOSAP(h, KESTTCS_ET_SRK, 0, &oldSecret, &parent), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_OpenOIAP(h, &oldSecret, &entity), TSS_SUCCESS);
  TPM_ENCAUTH newAuth{};
  EXPECT_EQ(KestAuth_EncAuth(&parent, &newSecret, KESTTCS_ADIP_EVEN, &newAuth), TSS_SUCCESS);
  Bytes digest;
  Put16(digest, KESTTCS_PID_ADCP);
  PutFixed(digest, newAuth);
  Put16(digest, kEntityKey);
  Put32(digest, UINT32(encData.size()));
  PutAll(digest, encData);
  TPM_AUTH parentAuth{};
  TPM_AUTH entityAuth{};
  EXPECT_EQ(KestAuth_Authorize(&parent, TPM_ORD_ChangeAuth, digest.data(), UINT32(digest.size()), 0,
                               &parentAuth),
            TSS_SUCCESS);
  EXPECT_EQ(KestAuth_Authorize(&entity, TPM_ORD_ChangeAuth, digest.data(), UINT32(digest.size()), 0,
                               &entityAuth),
            TSS_SUCCESS);
  UINT32 size = 0;
  BYTE* data = nullptr;
  EXPECT_EQ(
      Tcsip_ChangeAuth(h, kSrk, KESTTCS_PID_ADCP, newAuth, kEntityKey, UINT32(encData.size()),
                       const_cast<BYTE*>(encData.data()), &parentAuth, &entityAuth, &size, &data),
      TSS_SUCCESS);
  const Bytes changed(data, data + size);
  Tcs_FreeBuffer(data);
  Bytes out;
  Put32(out, UINT32(changed.size()));
  PutAll(out, changed);
  EXPECT_EQ(
      KestAuth_Verify(&parent, TPM_ORD_ChangeAuth, out.data(), UINT32(out.size()), &parentAuth),
      TSS_SUCCESS);
  EXPECT_EQ(
      KestAuth_Verify(&entity, TPM_ORD_ChangeAuth, out.data(), UINT32(out.size()), &entityAuth),
      TSS_SUCCESS);
  return changed;
}

TEST(ChangeAuthTest, ARegisteredKeyLoadsByUuidAfterARestartWithItsNewSecretOnly) {
  TempDir dir;
  const fs::path home = fs::path(dir.path()) / "home";
  TPM_SECRET newSecret{};
  ASSERT_EQ(
      KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>("new secret"), 10, &newSecret),
      TSS_SUCCESS);
  const TPM_SECRET oldSecret = wrapped_keys::WellKnown();
  Bytes blob;
  {
    KesttcsdProcess daemon(home, /*owned=*/false);
    ASSERT_TRUE(StartProvisioned(daemon, fs::path(dir.path()) / "cli.txt"));
    TCS_CONTEXT_HANDLE h = 0;
    ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
    blob = wrapped_keys::CreateKey(h, kSrk, kSigningKey);
    ASSERT_EQ(Tcsi_RegisterKey(h, kSrkUuid, kKeyUuid, UINT32(blob.size()), blob.data(), 0, nullptr),
              TSS_SUCCESS);
    TCS_KEY_HANDLE key = 0;
    ASSERT_EQ(Tcsip_LoadKeyByUUID(h, kKeyUuid, nullptr, &key), TSS_SUCCESS);
    const Bytes oldEncData = EncDataOf(blob);
    const Bytes newEncData = ChangeKeySecret(h, oldEncData, newSecret);
    ASSERT_EQ(newEncData.size(), oldEncData.size());
    EXPECT_NE(newEncData, oldEncData);
    // The stored blob is the changed key's.
    UINT32 size = 0;
    BYTE* stored = nullptr;
    ASSERT_EQ(Tcsi_GetRegisteredKeyBlob(h, kKeyUuid, &size, &stored), TSS_SUCCESS);
    EXPECT_EQ(EncDataOf(Bytes(stored, stored + size)), newEncData);
    Tcs_FreeBuffer(stored);
    ASSERT_EQ(daemon.Stop(), 0);
  }
  KesttcsdProcess daemon(home, /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  TCS_KEY_HANDLE key = 0;
  ASSERT_EQ(Tcsip_LoadKeyByUUID(h, kKeyUuid, nullptr, &key), TSS_SUCCESS);
  Bytes pub;
  EXPECT_EQ(PubKeyWithSecret(h, key, oldSecret, &pub), TpmResult(TPM_AUTHFAIL));
  ASSERT_EQ(PubKeyWithSecret(h, key, newSecret, &pub), TSS_SUCCESS);
  EXPECT_EQ(pub, wrapped_keys::PubKeyOf(blob));
}

}  // namespace
}  // namespace kesttcs::testing
