// Attestation identities through the real kesttcsd on the embedded libtpms TPM (provisioned with
// well-known secrets): TPM_MakeIdentity with the SRK's and the owner's sessions, its answer checked
// with the client's authorisation helper, with all three credential files in the service's home,
// with only "EKCert.crt", and with none (TCS_E_FAIL although the TPM made the identity); then
// TPM_ActivateIdentity of a TPM_ASYM_CA_CONTENTS that OpenSSL encrypted to the endorsement key the
// owner read: the session key comes back. The identity then certifies an ephemeral key
// (TPM_ChangeAuthAsymStart, the certificate checked with OpenSSL), and TPM_ChangeAuthAsymFinish
// with a secret the ephemeral key did not encrypt passes the TPM's refusal through.
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "kesttcsd_process.h"
#include "provisioned_daemon.h"
#include "rsa_checks.h"
#include "transport_session.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using rsa_checks::Sha1;
using transport_session::Bytes;
using transport_session::Put16;
using transport_session::PutAll;
using transport_session::PutFixed;
using wrapped_keys::kSrk;
using wrapped_keys::Put32;

constexpr UINT32 kKhEk = 0x40000006;
constexpr UINT16 kIdentityUsage = 0x0012;  // TPM_KEY_IDENTITY
// An identity key: RSA 2048, signing with PKCS#1 v1.5 SHA-1, its secret always needed.
const Bytes kIdentityKey = wrapped_keys::KeyInfo(kIdentityUsage, 2048, /*none*/ 1,
                                                 /*PKCS#1 SHA-1*/ 2, wrapped_keys::kAuthAlways);

struct Identity {
  TSS_RESULT result = 0;
  Bytes key;
  Bytes binding;
  Bytes endorsement;
  Bytes platform;
  Bytes conformance;
};

Bytes Take(UINT32 size, BYTE* data) {
  Bytes out(data, data + size);
  Tcs_FreeBuffer(data);
  return out;
}

// Opens an OIAP session `s` on the well-known secret and authorises on it one command of
// `ordinal` (without continue) whose input digest parameters are `digest`.
TPM_AUTH AuthorizeOnce(TCS_CONTEXT_HANDLE h, KESTTCS_AUTH_SESSION* s, TPM_COMMAND_CODE ordinal,
                       const Bytes& digest) {
  const TPM_SECRET secret = wrapped_keys::WellKnown();
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_OpenOIAP(h, &secret, s), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_Authorize(s, ordinal, digest.data(), UINT32(digest.size()), 0, &auth),
            TSS_SUCCESS);
  return auth;
}

// TPM_MakeIdentity with the well-known secrets: the new secret (well-known too) by ADIP on the
// owner's OSAP session, the SRK's OIAP session sent first. When the TPM made the identity, both
// sessions' answers are checked.
Identity MakeIdentity(TCS_CONTEXT_HANDLE h) {
  const TPM_SECRET secret = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION srk{};
  KESTTCS_AUTH_SESSION owner{};
  EXPECT_EQ(KestAuth_OpenOSAP(h, KESTTCS_ET_OWNER, 0, &secret, &owner), TSS_SUCCESS);
  TPM_ENCAUTH identityAuth{};
  EXPECT_EQ(KestAuth_EncAuth(&owner, &secret, KESTTCS_ADIP_EVEN, &identityAuth), TSS_SUCCESS);
  TPM_CHOSENID_HASH label{};
  label.digest[0] = 0x1D;
  Bytes digest;
  PutFixed(digest, identityAuth);
  PutFixed(digest, label);
  PutAll(digest, kIdentityKey);
  TPM_AUTH srkAuth = AuthorizeOnce(h, &srk, TPM_ORD_MakeIdentity, digest);
  TPM_AUTH ownerAuth{};
  EXPECT_EQ(KestAuth_Authorize(&owner, TPM_ORD_MakeIdentity, digest.data(), UINT32(digest.size()),
                               0, &ownerAuth),
            TSS_SUCCESS);
  UINT32 sizes[5] = {};
  BYTE* data[5] = {};
  Identity id;
  id.result = Tcsip_MakeIdentity(h, identityAuth, label, UINT32(kIdentityKey.size()),
                                 const_cast<BYTE*>(kIdentityKey.data()), &srkAuth, &ownerAuth,
                                 &sizes[0], &data[0], &sizes[1], &data[1], &sizes[2], &data[2],
                                 &sizes[3], &data[3], &sizes[4], &data[4]);
  id.key = Take(sizes[0], data[0]);
  id.binding = Take(sizes[1], data[1]);
  id.endorsement = Take(sizes[2], data[2]);
  id.platform = Take(sizes[3], data[3]);
  id.conformance = Take(sizes[4], data[4]);
  if (id.key.empty()) return id;
  Bytes out = id.key;
  Put32(out, UINT32(id.binding.size()));
  PutAll(out, id.binding);
  EXPECT_EQ(KestAuth_Verify(&srk, TPM_ORD_MakeIdentity, out.data(), UINT32(out.size()), &srkAuth),
            TSS_SUCCESS);
  EXPECT_EQ(
      KestAuth_Verify(&owner, TPM_ORD_MakeIdentity, out.data(), UINT32(out.size()), &ownerAuth),
      TSS_SUCCESS);
  return id;
}

// The endorsement key's modulus, read by the owner (TPM_OwnerReadInternalPub on a TPM 1.2).
Bytes EndorsementModulus(TCS_CONTEXT_HANDLE h) {
  KESTTCS_AUTH_SESSION owner{};
  Bytes digest;
  Put32(digest, kKhEk);
  TPM_AUTH auth = AuthorizeOnce(h, &owner, TPM_ORD_OwnerReadInternalPub, digest);
  UINT32 size = 0;
  BYTE* data = nullptr;
  EXPECT_EQ(Tcsip_OwnerReadPubek(h, &auth, &size, &data), TSS_SUCCESS);
  const Bytes pub = Take(size, data);
  // TPM_PUBKEY: algorithm, schemes, the parameters' size and bytes, then the modulus' size.
  const size_t parmsEnd = 12 + wrapped_keys::Get32(pub, 8);
  return Bytes(pub.begin() + std::ptrdiff_t(parmsEnd + 4), pub.end());
}

void WriteFile(const fs::path& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

Bytes BytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A provisioned daemon with a context open.
class IdentityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    daemon_ = std::make_unique<KesttcsdProcess>(home_, /*owned=*/false);
    ASSERT_TRUE(StartProvisioned(*daemon_, fs::path(dir_.path()) / "cli.txt"));
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  }

  TempDir dir_;
  const fs::path home_ = fs::path(dir_.path()) / "home";
  std::unique_ptr<KesttcsdProcess> daemon_;
  TCS_CONTEXT_HANDLE h_ = 0;
};

TEST_F(IdentityTest, MadeWithEachSetOfCredentialFilesThenActivatedWithTheSessionKey) {
  const fs::path& home = home_;
  const TCS_CONTEXT_HANDLE h = h_;

  WriteFile(home / "EKCert.crt", "endorsement credential");
  WriteFile(home / "PlatCred.crt", "platform credential");
  WriteFile(home / "ConfCred.crt", "conformance credential");
  const Identity all = MakeIdentity(h);
  ASSERT_EQ(all.result, TSS_SUCCESS);
  EXPECT_FALSE(all.binding.empty());
  EXPECT_EQ(all.endorsement, BytesOf("endorsement credential"));
  EXPECT_EQ(all.platform, BytesOf("platform credential"));
  EXPECT_EQ(all.conformance, BytesOf("conformance credential"));

  fs::remove(home / "PlatCred.crt");
  fs::remove(home / "ConfCred.crt");
  const Identity endorsementOnly = MakeIdentity(h);
  EXPECT_EQ(endorsementOnly.result, TSS_SUCCESS);
  EXPECT_EQ(endorsementOnly.endorsement, BytesOf("endorsement credential"));
  EXPECT_TRUE(endorsementOnly.platform.empty());
  EXPECT_TRUE(endorsementOnly.conformance.empty());

  fs::remove(home / "EKCert.crt");
  const Identity none = MakeIdentity(h);
  EXPECT_EQ(none.result, TCS_E_FAIL);
  EXPECT_FALSE(none.key.empty());  // the TPM made it all the same
  EXPECT_TRUE(none.endorsement.empty());

  // A privacy CA's answer for the first identity: a session key and the digest of the identity's
  // public key, encrypted to the endorsement key.
  const TCS_KEY_HANDLE idKey = wrapped_keys::Load(h, kSrk, all.key);
  Bytes sessionKey;
  Put32(sessionKey, 6);     // TPM_ALG_AES128
  Put16(sessionKey, 0xFF);  // TPM_ES_SYM_CBC_PKCS5PAD
  Put16(sessionKey, 16);
  for (BYTE b = 0; b < 16; ++b) sessionKey.push_back(BYTE(0xA0 + b));
  Bytes contents = sessionKey;
  PutAll(contents, Sha1(wrapped_keys::PubKeyOf(all.key)));
  std::optional<Bytes> blob = rsa_checks::OaepEncrypt(EndorsementModulus(h), contents);
  ASSERT_TRUE(blob.has_value());

  KESTTCS_AUTH_SESSION idSession{};
  KESTTCS_AUTH_SESSION owner{};
  Bytes digest;
  Put32(digest, UINT32(blob->size()));
  PutAll(digest, *blob);
  TPM_AUTH idAuth = AuthorizeOnce(h, &idSession, TPM_ORD_ActivateIdentity, digest);
  TPM_AUTH ownerAuth = AuthorizeOnce(h, &owner, TPM_ORD_ActivateIdentity, digest);
  UINT32 size = 0;
  BYTE* data = nullptr;
  ASSERT_EQ(Tcsip_ActivateTPMIdentity(h, idKey, UINT32(blob->size()), blob->data(), &idAuth,
                                      &ownerAuth, &size, &data),
            TSS_SUCCESS);
  const Bytes released = Take(size, data);
  EXPECT_EQ(released, sessionKey);
  EXPECT_EQ(KestAuth_Verify(&idSession, TPM_ORD_ActivateIdentity, released.data(),
                            UINT32(released.size()), &idAuth),
            TSS_SUCCESS);
  EXPECT_EQ(KestAuth_Verify(&owner, TPM_ORD_ActivateIdentity, released.data(),
                            UINT32(released.size()), &ownerAuth),
            TSS_SUCCESS);
}

// TPM_ChangeAuthAsymStart on the identity idKey (its secret the well-known one): the outputs in
// the operation's order, their HMAC, and the identity's signature over the certify info. Returns
// the TPM's handle of the ephemeral key.
TCS_KEY_HANDLE StartAsymmetricChange(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE idKey,
                                     const Bytes& idModulus) {
  // An ephemeral key's parameters: RSA 512, OAEP, no signatures.
  Bytes tempKey;
  Put32(tempKey, 1);
  Put16(tempKey, 3);
  Put16(tempKey, 1);
  Put32(tempKey, 12);
  Put32(tempKey, 512);
  Put32(tempKey, 2);
  Put32(tempKey, 0);
  TPM_NONCE antiReplay{};
  antiReplay.nonce[0] = 0xA5;
  Bytes digest;
  PutFixed(digest, antiReplay);
  PutAll(digest, tempKey);
  KESTTCS_AUTH_SESSION s{};
  TPM_AUTH auth = AuthorizeOnce(h, &s, TPM_ORD_ChangeAuthAsymStart, digest);
  UINT32 sizes[3] = {};
  BYTE* data[3] = {};
  TCS_KEY_HANDLE ephemeral = 0;
  EXPECT_EQ(Tcsip_ChangeAuthAsymStart(h, idKey, antiReplay, UINT32(tempKey.size()), tempKey.data(),
                                      &auth, &sizes[0], &data[0], &sizes[1], &data[1], &sizes[2],
                                      &data[2], &ephemeral),
            TSS_SUCCESS);
  const Bytes key = Take(sizes[0], data[0]);
  const Bytes certifyInfo = Take(sizes[1], data[1]);
  const Bytes sig = Take(sizes[2], data[2]);
  // The TPM's order: certify info, signature, ephemeral handle, ephemeral key.
  Bytes out = certifyInfo;
  Put32(out, UINT32(sig.size()));
  PutAll(out, sig);
  Put32(out, ephemeral);
  PutAll(out, key);
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_ChangeAuthAsymStart, out.data(), UINT32(out.size()), &auth),
            TSS_SUCCESS);
  EXPECT_TRUE(rsa_checks::VerifiesWith(idModulus, Sha1(certifyInfo), sig));
  EXPECT_EQ(wrapped_keys::ModulusOf(key).size(), 64u);
  return ephemeral;
}

TEST_F(IdentityTest, TheAsymmetricSecretChangeCertifiesAnEphemeralKeyAndPassesRefusalsThrough) {
  const TCS_CONTEXT_HANDLE h = h_;
  const Identity id = MakeIdentity(h);
  ASSERT_FALSE(id.key.empty());
  const TCS_KEY_HANDLE idKey = wrapped_keys::Load(h, kSrk, id.key);
  const TCS_KEY_HANDLE ephemeral = StartAsymmetricChange(h, idKey, wrapped_keys::ModulusOf(id.key));

  // A new secret that is no encryption under the ephemeral key, for the identity key's encData.
  const Bytes encNewAuth(64, 0x3C);
  const Bytes encData(id.key.begin() + std::ptrdiff_t(wrapped_keys::LayoutOf(id.key).pubEnd + 4),
                      id.key.end());
  TPM_HMAC link{};
  Bytes digest;
  Put16(digest, 0x0005);  // TPM_ET_KEY
  PutFixed(digest, link);
  Put32(digest, UINT32(encNewAuth.size()));
  PutAll(digest, encNewAuth);
  Put32(digest, UINT32(encData.size()));
  PutAll(digest, encData);
  KESTTCS_AUTH_SESSION srk{};
  TPM_AUTH auth = AuthorizeOnce(h, &srk, TPM_ORD_ChangeAuthAsymFinish, digest);
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  TPM_NONCE salt{};
  TPM_DIGEST proof{};
  const TSS_RESULT finish = Tcsip_ChangeAuthAsymFinish(
      h, kSrk, ephemeral, 0x0005, link, UINT32(encNewAuth.size()),
      const_cast<BYTE*>(encNewAuth.data()), UINT32(encData.size()),
      const_cast<BYTE*>(encData.data()), &auth, &outSize, &out, &salt, &proof);
  Tcs_FreeBuffer(out);
  // The TPM's own code (its layer), unchanged.
  EXPECT_NE(finish, TSS_SUCCESS);
  EXPECT_EQ(finish & 0xFFFFF000u, kTcsErrorBase) << std::hex << finish;
}

}  // namespace
}  // namespace kesttcs::testing
