// Sealing, unbinding, signing and attestation through the real kesttcsd on the embedded libtpms
// TPM (provisioned by kesttcs-cli with the well-known owner and SRK secrets), with keys made by
// Tcsip_CreateWrapKey under the SRK. Sessions and their HMACs come from the client's
// authorisation helper; every signature is checked with OpenSSL alone (SHA-1 of the structure the
// TPM signed, RSA verification against the modulus that Tcsip_GetPubKey gives). The members that a
// TPM 1.2 no longer has get the TPM's own answer back. RSA key making is slow, so one daemon and
// one set of keys, each made when a test first uses it, serve the whole file.

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "daemon_process.h"
#include "kesttcsd_process.h"
#include "rsa_checks.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using Bytes = std::vector<BYTE>;
using rsa_checks::Sha1;
using rsa_checks::VerifiesWith;
using wrapped_keys::Get32;
using wrapped_keys::KeyInfo;
using wrapped_keys::kSrk;
using wrapped_keys::Put16;
using wrapped_keys::Put32;
using wrapped_keys::PutAll;
using wrapped_keys::WellKnown;

constexpr UINT16 kBindUsage = 0x0014;
constexpr UINT16 kSchemeNone = 1;
constexpr UINT16 kSchemeOaep = 3;
constexpr UINT16 kSchemePkcs1Sha1 = 2;
// A PCR that only these tests extend (the debug PCR, resettable, no event log of its own).
constexpr UINT32 kPcr = 16;

Bytes Of(const BYTE* p, size_t n) { return Bytes(p, p + n); }
// Copies a library output block and frees it.
Bytes Own(BYTE* block, UINT32 size) {
  Bytes out(block, block + (block != nullptr ? size : 0));
  Tcs_FreeBuffer(block);
  return out;
}

// The RSA modulus of a TPM_PUBKEY: after the key parameters, a size and the modulus (nothing for
// bytes too short to hold one).
Bytes ModulusOfPubKey(const Bytes& pub) {
  if (pub.size() < 12) return {};
  const size_t parmsEnd = 12 + Get32(pub, 8);
  if (pub.size() < parmsEnd + 4) return {};
  const size_t size = Get32(pub, parmsEnd);
  if (pub.size() < parmsEnd + 4 + size) return {};
  return Bytes(pub.begin() + std::ptrdiff_t(parmsEnd + 4),
               pub.begin() + std::ptrdiff_t(parmsEnd + 4 + size));
}

// A TPM_PCR_SELECTION of three bytes with `pcrs` selected.
Bytes Selection(std::initializer_list<UINT32> pcrs) {
  Bytes s = {0, 3, 0, 0, 0};
  for (UINT32 p : pcrs) s[2 + p / 8] |= BYTE(1u << (p % 8));
  return s;
}

// The TPM_PCR_COMPOSITE of `selection` with the PCRs' current values, read through the service.
Bytes Composite(TCS_CONTEXT_HANDLE h, const Bytes& selection, std::initializer_list<UINT32> pcrs) {
  Bytes values;
  for (UINT32 p : pcrs) {
    TPM_PCRVALUE v{};
    EXPECT_EQ(Tcsip_PcrRead(h, p, &v), TSS_SUCCESS);
    PutAll(values, Of(v.digest, 20));
  }
  Bytes c = selection;
  Put32(c, UINT32(values.size()));
  PutAll(c, values);
  return c;
}

// The authorised answer of an OIAP or OSAP session: verified against `out` (the output digest
// parameters).
void ExpectVerified(KESTTCS_AUTH_SESSION& s, UINT32 ordinal, const Bytes& out, TPM_AUTH& auth) {
  EXPECT_EQ(KestAuth_Verify(&s, ordinal, out.data(), UINT32(out.size()), &auth), TSS_SUCCESS);
}
TPM_AUTH Authorize(KESTTCS_AUTH_SESSION& s, UINT32 ordinal, const Bytes& in) {
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, ordinal, in.data(), UINT32(in.size()), 0, &auth), TSS_SUCCESS);
  return auth;
}
KESTTCS_AUTH_SESSION Oiap(TCS_CONTEXT_HANDLE h) {
  const TPM_SECRET secret = WellKnown();
  KESTTCS_AUTH_SESSION s{};
  EXPECT_EQ(KestAuth_OpenOIAP(h, &secret, &s), TSS_SUCCESS);
  return s;
}

// The modulus of `key` as Tcsip_GetPubKey gives it; a key that needs authorisation gets its
// OIAP session (well-known secret) and the answer's HMAC is checked.
Bytes Modulus(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, bool authorised = false) {
  KESTTCS_AUTH_SESSION s{};
  TPM_AUTH auth{};
  if (authorised) {
    s = Oiap(h);
    auth = Authorize(s, TPM_ORD_GetPubKey, {});
  }
  UINT32 size = 0;
  BYTE* data = nullptr;
  EXPECT_EQ(Tcsip_GetPubKey(h, key, authorised ? &auth : nullptr, &size, &data), TSS_SUCCESS);
  const Bytes pub = Own(data, size);
  if (authorised) ExpectVerified(s, TPM_ORD_GetPubKey, pub, auth);
  return ModulusOfPubKey(pub);
}

class DataAttestTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir;
    daemon_ = new KesttcsdProcess(fs::path(dir_->path()) / "home", /*owned=*/false);
    ASSERT_TRUE(daemon_->Start());
    const fs::path cliLog = fs::path(dir_->path()) / "cli.txt";
    ASSERT_EQ(
        WaitForExit(Spawn({kKesttcsCli, "--endpoint", daemon_->socket(), "provision"}, {}, cliLog)),
        0)
        << daemon_process::ReadFile(cliLog);
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  }
  static void TearDownTestSuite() {
    Tcsi_CloseContext(h_);
    delete daemon_;
    delete dir_;
  }

  // TPM_Seal under `key` over an OSAP session on it; the data secret well-known, sent by ADIP.
  static TSS_RESULT Seal(UINT32 ordinal, TCS_KEY_HANDLE key, const Bytes& pcrInfo,
                         const Bytes& data, Bytes* sealed) {
    const TPM_SECRET secret = WellKnown();
    KESTTCS_AUTH_SESSION s{};
    EXPECT_EQ(KestAuth_OpenOSAP(h_, KESTTCS_ET_KEYHANDLE, key, &secret, &s), TSS_SUCCESS);
    TPM_ENCAUTH encAuth{};
    EXPECT_EQ(KestAuth_EncAuth(&s, &secret, KESTTCS_ADIP_EVEN, &encAuth), TSS_SUCCESS);
    Bytes in = Of(encAuth.authdata, 20);
    Put32(in, UINT32(pcrInfo.size()));
    PutAll(in, pcrInfo);
    Put32(in, UINT32(data.size()));
    PutAll(in, data);
    TPM_AUTH auth = Authorize(s, ordinal, in);
    UINT32 size = 0;
    BYTE* out = nullptr;
    auto call = ordinal == TPM_ORD_Seal ? &Tcsip_Seal : &Tcsip_Sealx;
    const TSS_RESULT r =
        call(h_, key, encAuth, UINT32(pcrInfo.size()), const_cast<BYTE*>(pcrInfo.data()),
             UINT32(data.size()), const_cast<BYTE*>(data.data()), &auth, &size, &out);
    if (r != TSS_SUCCESS) return r;
    *sealed = Own(out, size);
    ExpectVerified(s, ordinal, *sealed, auth);
    return r;
  }

  // TPM_Unseal under `key` with `sessions` OIAP sessions (2: the key's and the data's, 1: the
  // data's alone, 0: none); the answers' HMACs are checked.
  static TSS_RESULT Unseal(TCS_KEY_HANDLE key, const Bytes& sealed, int sessions, Bytes* data) {
    KESTTCS_AUTH_SESSION keySession{}, dataSession{};
    TPM_AUTH keyAuth{}, dataAuth{};
    if (sessions == 2) {
      keySession = Oiap(h_);
      keyAuth = Authorize(keySession, TPM_ORD_Unseal, sealed);
    }
    if (sessions >= 1) {
      dataSession = Oiap(h_);
      dataAuth = Authorize(dataSession, TPM_ORD_Unseal, sealed);
    }
    UINT32 size = 0;
    BYTE* out = nullptr;
    const TSS_RESULT r = Tcsip_UnSeal(
        h_, key, UINT32(sealed.size()), const_cast<BYTE*>(sealed.data()),
        sessions == 2 ? &keyAuth : nullptr, sessions >= 1 ? &dataAuth : nullptr, &size, &out);
    if (r != TSS_SUCCESS) return r;
    *data = Own(out, size);
    Bytes outParams;
    Put32(outParams, size);
    PutAll(outParams, *data);
    if (sessions == 2) ExpectVerified(keySession, TPM_ORD_Unseal, outParams, keyAuth);
    ExpectVerified(dataSession, TPM_ORD_Unseal, outParams, dataAuth);
    return r;
  }

  static TempDir* dir_;
  static KesttcsdProcess* daemon_;
  static TCS_CONTEXT_HANDLE h_;
  // The keys, each made on first use: RSA key making is slow, so a test makes only those it uses.
  static TCS_KEY_HANDLE Signer() {
    return Made(&signer_, &signerBlob_,
                KeyInfo(wrapped_keys::kSigningUsage, 512, kSchemeNone, kSchemePkcs1Sha1,
                        wrapped_keys::kAuthNever));
  }
  static TCS_KEY_HANDLE AuthSigner() {
    return Made(&authSigner_, nullptr,
                KeyInfo(wrapped_keys::kSigningUsage, 512, kSchemeNone, kSchemePkcs1Sha1,
                        wrapped_keys::kAuthAlways));
  }
  static TCS_KEY_HANDLE Binder() {
    return Made(&binder_, nullptr,
                KeyInfo(kBindUsage, 512, kSchemeOaep, kSchemeNone, wrapped_keys::kAuthNever));
  }
  static TCS_KEY_HANDLE Storage() {
    return Made(&storage_, nullptr,
                KeyInfo(wrapped_keys::kStorageUsage, 2048, kSchemeOaep, kSchemeNone,
                        wrapped_keys::kAuthNever));
  }
  static TCS_KEY_HANDLE Made(TCS_KEY_HANDLE* key, Bytes* blob, const Bytes& keyInfo) {
    if (*key == 0) {
      const Bytes made = wrapped_keys::CreateKey(h_, kSrk, keyInfo);
      *key = wrapped_keys::Load(h_, kSrk, made);
      if (blob != nullptr) *blob = made;
    }
    return *key;
  }

  static TCS_KEY_HANDLE signer_, authSigner_, binder_, storage_;
  static Bytes signerBlob_;
};

TempDir* DataAttestTest::dir_ = nullptr;
KesttcsdProcess* DataAttestTest::daemon_ = nullptr;
TCS_CONTEXT_HANDLE DataAttestTest::h_ = 0;
TCS_KEY_HANDLE DataAttestTest::signer_ = 0;
TCS_KEY_HANDLE DataAttestTest::authSigner_ = 0;
TCS_KEY_HANDLE DataAttestTest::binder_ = 0;
TCS_KEY_HANDLE DataAttestTest::storage_ = 0;
Bytes DataAttestTest::signerBlob_;

TEST_F(DataAttestTest, SealedDataUnsealsWithTheKeysAndTheDatasSessionsOrTheDatasAlone) {
  const Bytes secret = {'s', 'e', 'a', 'l', 'e', 'd', ' ', 'o', 'n', 'e'};
  Bytes sealed, data;
  // Under the SRK, which needs its own session: two on Unseal.
  ASSERT_EQ(Seal(TPM_ORD_Seal, kSrk, {}, secret, &sealed), TSS_SUCCESS);
  ASSERT_EQ(Unseal(kSrk, sealed, 2, &data), TSS_SUCCESS);
  EXPECT_EQ(data, secret);
  // Under a storage key that needs none: the data's session alone.
  ASSERT_EQ(Seal(TPM_ORD_Seal, Storage(), {}, secret, &sealed), TSS_SUCCESS);
  ASSERT_EQ(Unseal(Storage(), sealed, 1, &data), TSS_SUCCESS);
  EXPECT_EQ(data, secret);
  // Without the data's record the call is refused before it is sent: the interface always
  // carries it (a call without one inside the service goes out untagged, see the unit tests).
  EXPECT_EQ(Unseal(Storage(), sealed, 0, &data), TCS_E_BAD_PARAMETER);
  // Sealx gives the TPM_STORED_DATA12 form (its tag 0x0016 first).
  ASSERT_EQ(Seal(TPM_ORD_Sealx, Storage(), {}, secret, &sealed), TSS_SUCCESS);
  ASSERT_GE(sealed.size(), 2u);
  EXPECT_EQ(sealed[0], 0x00);
  EXPECT_EQ(sealed[1], 0x16);
}

TEST_F(DataAttestTest, DataSealedToAPcrUnsealsUntilThePcrIsExtended) {
  const Bytes secret = {'p', 'c', 'r', '-', 'b', 'o', 'u', 'n', 'd'};
  const Bytes selection = Selection({kPcr});
  // TPM_PCR_INFO: the selection, digestAtRelease (the composite of the PCR's value now),
  // digestAtCreation (the TPM fills it in).
  Bytes pcrInfo = selection;
  PutAll(pcrInfo, Sha1(Composite(h_, selection, {kPcr})));
  PutAll(pcrInfo, Bytes(20, 0));
  Bytes sealed, data;
  ASSERT_EQ(Seal(TPM_ORD_Seal, kSrk, pcrInfo, secret, &sealed), TSS_SUCCESS);
  ASSERT_EQ(Unseal(kSrk, sealed, 2, &data), TSS_SUCCESS);
  EXPECT_EQ(data, secret);

  TPM_DIGEST measurement{};
  measurement.digest[0] = 0x42;
  TPM_PCRVALUE now{};
  ASSERT_EQ(Tcsip_Extend(h_, kPcr, measurement, &now), TSS_SUCCESS);
  EXPECT_EQ(Unseal(kSrk, sealed, 2, &data), TpmResult(TPM_WRONGPCRVAL));
}

TEST_F(DataAttestTest, DataBoundToABindKeyUnbinds) {
  // TPM_BOUND_DATA (version 1.1.0.0, payload TPM_PT_BIND, the data) encrypted with OAEP, SHA-1 and
  // the label "TCPA" under the bind key's public part.
  const Bytes secret = {'b', 'o', 'u', 'n', 'd'};
  Bytes bound = {1, 1, 0, 0, 2};
  PutAll(bound, secret);
  const std::optional<Bytes> sealed = rsa_checks::OaepEncrypt(Modulus(h_, Binder()), bound);
  ASSERT_TRUE(sealed);
  Bytes enc = *sealed;

  UINT32 size = 0;
  BYTE* out = nullptr;
  ASSERT_EQ(Tcsip_Unbind(h_, Binder(), UINT32(enc.size()), enc.data(), nullptr, &size, &out),
            TSS_SUCCESS);
  EXPECT_EQ(Own(out, size), secret);
  // A handle that names no key is refused before anything reaches the TPM.
  EXPECT_EQ(Tcsip_Unbind(h_, 0x00C0FFEE, UINT32(enc.size()), enc.data(), nullptr, &size, &out),
            TCS_E_INVALID_KEY);
}

TEST_F(DataAttestTest, SignaturesOfSignAndTickStampVerifyWithTheKeysPublicPart) {
  const Bytes message = {'s', 'i', 'g', 'n', ' ', 'm', 'e'};
  const Bytes digest = Sha1(message);
  UINT32 size = 0;
  BYTE* sig = nullptr;
  // A key without authorisation: no session.
  ASSERT_EQ(Tcsip_Sign(h_, Signer(), 20, const_cast<BYTE*>(digest.data()), nullptr, &size, &sig),
            TSS_SUCCESS);
  EXPECT_TRUE(VerifiesWith(Modulus(h_, Signer()), digest, Own(sig, size)));
  // A key with authorisation: its OIAP session, the answer's HMAC checked.
  KESTTCS_AUTH_SESSION s = Oiap(h_);
  Bytes in;
  Put32(in, 20);
  PutAll(in, digest);
  TPM_AUTH auth = Authorize(s, TPM_ORD_Sign, in);
  ASSERT_EQ(Tcsip_Sign(h_, AuthSigner(), 20, const_cast<BYTE*>(digest.data()), &auth, &size, &sig),
            TSS_SUCCESS);
  const Bytes signature = Own(sig, size);
  Bytes out;
  Put32(out, UINT32(signature.size()));
  PutAll(out, signature);
  ExpectVerified(s, TPM_ORD_Sign, out, auth);
  EXPECT_TRUE(VerifiesWith(Modulus(h_, AuthSigner(), /*authorised=*/true), digest, signature));

  // TickStampBlob: the signature over TPM_SIGN_INFO ("TSTP", the nonce, the stamped digest and
  // the ticks), handed out before the ticks.
  TPM_NONCE nonce{};
  nonce.nonce[3] = 3;
  TPM_DIGEST stamped{};
  std::memcpy(stamped.digest, digest.data(), 20);
  UINT32 ticksSize = 0;
  BYTE* ticks = nullptr;
  ASSERT_EQ(
      Tcsip_TickStampBlob(h_, Signer(), nonce, stamped, nullptr, &size, &sig, &ticksSize, &ticks),
      TSS_SUCCESS);
  const Bytes stampSig = Own(sig, size);
  const Bytes tickBytes = Own(ticks, ticksSize);
  ASSERT_EQ(tickBytes.size(), 32u);  // TPM_CURRENT_TICKS
  Bytes signInfo;
  Put16(signInfo, 0x0005);
  PutAll(signInfo, {'T', 'S', 'T', 'P'});
  PutAll(signInfo, Of(nonce.nonce, 20));
  Put32(signInfo, 20 + 32);
  PutAll(signInfo, digest);
  PutAll(signInfo, tickBytes);
  EXPECT_TRUE(VerifiesWith(Modulus(h_, Signer()), Sha1(signInfo), stampSig));
}

TEST_F(DataAttestTest, QuotesVerifyWithTheKeysPublicPart) {
  const Bytes selection = Selection({0, kPcr});
  TPM_NONCE nonce{};
  for (BYTE i = 0; i < 20; ++i) nonce.nonce[i] = i;
  const Bytes modulus = Modulus(h_, Signer());

  // Quote: the signed TPM_QUOTE_INFO is version 1.1.0.0, "QUOT", the composite's digest, the nonce.
  UINT32 pcrSize = 0, sigSize = 0;
  BYTE *pcrData = nullptr, *sig = nullptr;
  ASSERT_EQ(
      Tcsip_Quote(h_, Signer(), nonce, UINT32(selection.size()),
                  const_cast<BYTE*>(selection.data()), nullptr, &pcrSize, &pcrData, &sigSize, &sig),
      TSS_SUCCESS);
  const Bytes composite = Own(pcrData, pcrSize);
  EXPECT_EQ(composite, Composite(h_, selection, {0, kPcr}));
  Bytes quoteInfo = {1, 1, 0, 0, 'Q', 'U', 'O', 'T'};
  PutAll(quoteInfo, Sha1(composite));
  PutAll(quoteInfo, Of(nonce.nonce, 20));
  EXPECT_TRUE(VerifiesWith(modulus, Sha1(quoteInfo), Own(sig, sigSize)));

  // Quote with the key's session on a key that needs one.
  KESTTCS_AUTH_SESSION s = Oiap(h_);
  Bytes in = Of(nonce.nonce, 20);
  PutAll(in, selection);
  TPM_AUTH auth = Authorize(s, TPM_ORD_Quote, in);
  ASSERT_EQ(
      Tcsip_Quote(h_, AuthSigner(), nonce, UINT32(selection.size()),
                  const_cast<BYTE*>(selection.data()), &auth, &pcrSize, &pcrData, &sigSize, &sig),
      TSS_SUCCESS);
  const Bytes authComposite = Own(pcrData, pcrSize);
  const Bytes authSig = Own(sig, sigSize);
  Bytes out = authComposite;
  Put32(out, UINT32(authSig.size()));
  PutAll(out, authSig);
  ExpectVerified(s, TPM_ORD_Quote, out, auth);
  EXPECT_TRUE(
      VerifiesWith(Modulus(h_, AuthSigner(), /*authorised=*/true), Sha1(quoteInfo), authSig));

  // Quote2: TPM_QUOTE_INFO2 (tag 0x0036, "QUT2", the nonce, the TPM_PCR_INFO_SHORT), followed by
  // the version info when it was asked for; without it the version info is empty.
  for (TSS_BOOL addVersion : {TSS_BOOL{0}, TSS_BOOL{1}}) {
    UINT32 versionSize = 0;
    BYTE* version = nullptr;
    ASSERT_EQ(Tcsip_Quote2(h_, Signer(), nonce, UINT32(selection.size()),
                           const_cast<BYTE*>(selection.data()), addVersion, nullptr, &pcrSize,
                           &pcrData, &versionSize, &version, &sigSize, &sig),
              TSS_SUCCESS);
    const Bytes infoShort = Own(pcrData, pcrSize);
    const Bytes versionInfo = Own(version, versionSize);
    EXPECT_EQ(versionInfo.empty(), addVersion == 0);
    Bytes quoteInfo2;
    Put16(quoteInfo2, 0x0036);
    PutAll(quoteInfo2, {'Q', 'U', 'T', '2'});
    PutAll(quoteInfo2, Of(nonce.nonce, 20));
    PutAll(quoteInfo2, infoShort);
    PutAll(quoteInfo2, versionInfo);
    EXPECT_TRUE(VerifiesWith(modulus, Sha1(quoteInfo2), Own(sig, sigSize))) << int(addVersion);
  }
}

TEST_F(DataAttestTest, CertifiedKeysVerifyAndRemovedOrdinalsGetTheTpmsAnswer) {
  TPM_NONCE nonce{};
  nonce.nonce[0] = 0xCE;
  UINT32 infoSize = 0, sigSize = 0;
  BYTE *info = nullptr, *sig = nullptr;
  // No session: the signer certifies the bind key.
  ASSERT_EQ(Tcsip_CertifyKey(h_, Signer(), Binder(), nonce, nullptr, nullptr, &infoSize, &info,
                             &sigSize, &sig),
            TSS_SUCCESS);
  Bytes certifyInfo = Own(info, infoSize);
  EXPECT_TRUE(VerifiesWith(Modulus(h_, Signer()), Sha1(certifyInfo), Own(sig, sigSize)));
  // Two sessions: the key that needs authorisation certifies itself, each role its own session.
  KESTTCS_AUTH_SESSION certSession = Oiap(h_), keySession = Oiap(h_);
  const Bytes in = Of(nonce.nonce, 20);
  TPM_AUTH certAuth = Authorize(certSession, TPM_ORD_CertifyKey, in);
  TPM_AUTH keyAuth = Authorize(keySession, TPM_ORD_CertifyKey, in);
  ASSERT_EQ(Tcsip_CertifyKey(h_, AuthSigner(), AuthSigner(), nonce, &certAuth, &keyAuth, &infoSize,
                             &info, &sigSize, &sig),
            TSS_SUCCESS);
  certifyInfo = Own(info, infoSize);
  const Bytes signature = Own(sig, sigSize);
  Bytes out = certifyInfo;
  Put32(out, UINT32(signature.size()));
  PutAll(out, signature);
  ExpectVerified(certSession, TPM_ORD_CertifyKey, out, certAuth);
  ExpectVerified(keySession, TPM_ORD_CertifyKey, out, keyAuth);
  EXPECT_TRUE(
      VerifiesWith(Modulus(h_, AuthSigner(), /*authorised=*/true), Sha1(certifyInfo), signature));

  // CertifyKey2 sends CertifyKey's ordinal with CertifyKey2's longer parameter list, by design:
  // the TPM's own refusal comes back unchanged.
  const TSS_RESULT certify2 = Tcsip_CertifyKey2(h_, Binder(), Signer(), TPM_DIGEST{}, nonce,
                                                nullptr, nullptr, &infoSize, &info, &sigSize, &sig);
  EXPECT_EQ(certify2, TpmResult(TPM_BAD_PARAM_SIZE));

  // Ordinals a TPM 1.2 no longer has.
  TPM_VERSION version{};
  UINT32 respSize = 0;
  BYTE* resp = nullptr;
  const Bytes subCap = {0, 0, 1, 1};
  EXPECT_EQ(Tcsip_GetCapabilitySigned(h_, Signer(), nonce, 5, UINT32(subCap.size()),
                                      const_cast<BYTE*>(subCap.data()), nullptr, &version,
                                      &respSize, &resp, &sigSize, &sig),
            TpmResult(TPM_BAD_ORDINAL));
  EXPECT_EQ(Tcsip_CertifySelfTest(h_, Signer(), nonce, nullptr, &sigSize, &sig),
            TpmResult(TPM_BAD_ORDINAL));
}

TEST_F(DataAttestTest, TheCliSealsUnsealsSignsAndQuotesForOpenssl) {
  const fs::path dir(dir_->path());
  auto cli = [&](const std::vector<std::string>& args) {
    return RunKesttcsCli(args, daemon_->socket(), dir / "cli-out.txt");
  };
  const Bytes secret = {'f', 'i', 'l', 'e', ' ', 's', 'e', 'c', 'r', 'e', 't'};
  {
    std::ofstream(dir / "in.txt", std::ios::binary)
        .write(reinterpret_cast<const char*>(secret.data()), std::streamsize(secret.size()));
  }
  const std::string in = (dir / "in.txt").string();
  const std::string sealed = (dir / "sealed.bin").string();
  const std::string unsealed = (dir / "unsealed.txt").string();

  // A round trip through files, the sealed file being the TPM_STORED_DATA bytes.
  auto [status, text] = cli({"seal", "--key", "srk", in, sealed});
  ASSERT_EQ(status, 0) << text;
  const std::string blob = daemon_process::ReadFile(sealed);
  ASSERT_GE(blob.size(), 12u);
  EXPECT_EQ(blob.substr(0, 2), std::string("\x01\x01", 2));  // TPM_STORED_DATA version 1.1
  std::tie(status, text) = cli({"unseal", "--key", "srk", sealed, unsealed});
  ASSERT_EQ(status, 0) << text;
  EXPECT_EQ(daemon_process::ReadFile(unsealed), std::string(secret.begin(), secret.end()));

  // Bound to a PCR: refused, naming the cause, once the PCR has changed.
  std::tie(status, text) = cli({"seal", "--key", "srk", "--pcr", "16", in, sealed});
  ASSERT_EQ(status, 0) << text;
  std::tie(status, text) = cli({"unseal", "--key", "srk", sealed, unsealed});
  ASSERT_EQ(status, 0) << text;
  TPM_DIGEST measurement{};
  measurement.digest[0] = 0x17;
  TPM_PCRVALUE now{};
  ASSERT_EQ(Tcsip_Extend(h_, kPcr, measurement, &now), TSS_SUCCESS);
  std::tie(status, text) = cli({"unseal", "--key", "srk", sealed, unsealed});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, ::testing::HasSubstr("TPM_WRONGPCRVAL"));

  // Sign and quote with a registered key, by its UUID.
  const TSS_UUID uuid = {0x5A5A0001, 1, 2, 3, 4, {5, 6, 7, 8, 9, 10}};
  const std::string uuidText = "5a5a0001-0001-0002-0304-05060708090a";
  const TCS_KEY_HANDLE signer = Signer();
  ASSERT_EQ(Tcsi_RegisterKey(h_, TSS_UUID{0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}}, uuid,
                             UINT32(signerBlob_.size()), signerBlob_.data(), 0, nullptr),
            TSS_SUCCESS);
  const std::string sig = (dir / "in.sig").string();
  std::tie(status, text) = cli({"sign", "--key", uuidText, in, sig});
  ASSERT_EQ(status, 0) << text;
  const std::string sigText = daemon_process::ReadFile(sig);
  EXPECT_TRUE(
      VerifiesWith(Modulus(h_, signer), Sha1(secret), Bytes(sigText.begin(), sigText.end())));

  // The quote's files verify with the openssl command the documentation gives.
  const std::string prefix = (dir / "quote").string();
  std::tie(status, text) = cli({"quote", "--key", uuidText, "--pcr", "0", "--pcr", "16", "--nonce",
                                "00112233445566778899aabbccddeeff00112233", "--out", prefix});
  ASSERT_EQ(status, 0) << text;
  const fs::path opensslLog = dir / "openssl.txt";
  EXPECT_EQ(WaitForExit(Spawn({"/usr/bin/openssl", "dgst", "-sha1", "-verify", prefix + ".pem",
                               "-signature", prefix + ".sig", prefix + ".quoteinfo"},
                              {}, opensslLog)),
            0)
      << daemon_process::ReadFile(opensslLog);
  EXPECT_THAT(daemon_process::ReadFile(opensslLog), ::testing::HasSubstr("Verified OK"));
  // The quote info covers the nonce.
  const std::string info = daemon_process::ReadFile(prefix + ".quoteinfo");
  ASSERT_EQ(info.size(), 48u);
  EXPECT_EQ(BYTE(info[28]), 0x00);
  EXPECT_EQ(BYTE(info[29]), 0x11);

  // A key with a usage secret: its public part, which sign and quote read, needs the secret too.
  const std::string phrase = (dir / "usage.txt").string();
  std::ofstream(phrase) << "a signing key's secret";
  const std::string keyBlob = (dir / "secret-signer.blob").string();
  const std::string secretUuid = "5a5a0002-0001-0002-0304-05060708090a";
  std::tie(status, text) = cli({"key", "create", "--parent", "srk", "--usage", "sign", "--bits",
                                "512", "--auth-secret", phrase, "--out", keyBlob});
  ASSERT_EQ(status, 0) << text;
  std::tie(status, text) =
      cli({"keys", "register", "--uuid", secretUuid, "--parent", "srk", "--blob", keyBlob});
  ASSERT_EQ(status, 0) << text;
  std::tie(status, text) = cli({"sign", "--key", secretUuid, "--key-secret", phrase, in, sig});
  EXPECT_EQ(status, 0) << text;
  std::tie(status, text) =
      cli({"quote", "--key", secretUuid, "--key-secret", phrase, "--pcr", "0", "--nonce",
           "00112233445566778899aabbccddeeff00112233", "--out", prefix});
  ASSERT_EQ(status, 0) << text;
  EXPECT_EQ(WaitForExit(Spawn({"/usr/bin/openssl", "dgst", "-sha1", "-verify", prefix + ".pem",
                               "-signature", prefix + ".sig", prefix + ".quoteinfo"},
                              {}, opensslLog)),
            0)
      << daemon_process::ReadFile(opensslLog);
}

}  // namespace
}  // namespace kesttcs::testing
