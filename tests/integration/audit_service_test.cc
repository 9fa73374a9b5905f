// The audit log through the real kesttcsd on the embedded libtpms TPM: ownership taken with
// kesttcs-cli, TPM_GetRandom set audited under the owner's OIAP session, its command and response
// found in Audit.log, the TPM's audit digest recomputed from what the command carried, and
// kesttcs-cli audit show / clear / set; and the signed audit digest of a key made and loaded
// through the service, checked with OpenSSL against the key's public part, which rotates the log.
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <filesystem>
#include <memory>
#include <string>
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

namespace fs = std::filesystem;
using daemon_process::ReadFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Bytes = std::vector<BYTE>;
using rsa_checks::Sha1;
using rsa_checks::VerifiesWith;
using wrapped_keys::Put16;
using wrapped_keys::Put32;
using wrapped_keys::PutAll;

constexpr UINT16 kTagAuditEventIn = 0x0012;
constexpr UINT16 kTagAuditEventOut = 0x0013;

struct AuditDigest {
  Bytes digest;
  Bytes counter;  // TPM_COUNTER_VALUE
  std::vector<UINT32> ordinals;
};

AuditDigest ReadAuditDigest(TCS_CONTEXT_HANDLE h) {
  AuditDigest d;
  TPM_DIGEST digest{};
  UINT32 counterSize = 0, ordSize = 0;
  BYTE* counter = nullptr;
  UINT32* ordList = nullptr;
  TSS_BOOL more = 0;
  EXPECT_EQ(Tcsip_GetAuditDigest(h, 0, &digest, &counterSize, &counter, &more, &ordSize, &ordList),
            TSS_SUCCESS);
  EXPECT_EQ(more, 0);
  d.digest.assign(digest.digest, digest.digest + 20);
  if (counter != nullptr) d.counter.assign(counter, counter + counterSize);
  if (ordList != nullptr) d.ordinals.assign(ordList, ordList + ordSize);
  Tcs_FreeBuffer(counter);
  Tcs_FreeBuffer(ordList);
  return d;
}

// TPM_SetOrdinalAuditStatus with the well-known owner secret over OIAP; the answer's HMAC is
// checked.
TSS_RESULT SetAudit(TCS_CONTEXT_HANDLE h, UINT32 ordinal, bool audited) {
  TPM_SECRET owner{};
  KestAuth_WellKnownSecret(&owner);
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(h, &owner, &s)) return r;
  Bytes params;
  Put32(params, ordinal);
  params.push_back(audited ? 1 : 0);
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_SetOrdinalAuditStatus, params.data(),
                               UINT32(params.size()), 0, &auth),
            0u);
  const TSS_RESULT r = Tcsip_SetOrdinalAuditStatus(h, &auth, ordinal, audited ? 1 : 0);
  if (r == TSS_SUCCESS) {
    EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_SetOrdinalAuditStatus, nullptr, 0, &auth), 0u);
  }
  return r;
}

constexpr UINT16 kTagSignInfo = 0x0005;
constexpr UINT16 kSchemeNone = 1;
constexpr UINT16 kSchemePkcs1Sha1 = 2;

// What TPM_GetAuditDigestSigned answers.
struct SignedAuditDigest {
  Bytes counter;  // TPM_COUNTER_VALUE
  Bytes digest;
  Bytes ordinalDigest;
  Bytes sig;
};

// TPM_GetAuditDigestSigned without closing the audit, authorised over OIAP with the key's
// well-known usage secret; the answer's HMAC is checked.
TSS_RESULT SignAuditDigest(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, const TPM_NONCE& antiReplay,
                           SignedAuditDigest* answer) {
  const TPM_SECRET usage = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(h, &usage, &s)) return r;
  Bytes params = {/*closeAudit=*/0};
  params.insert(params.end(), antiReplay.nonce, antiReplay.nonce + sizeof antiReplay.nonce);
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetAuditDigestSigned, params.data(),
                               UINT32(params.size()), 0, &auth),
            0u);
  UINT32 counterSize = 0, sigSize = 0;
  BYTE *counter = nullptr, *sig = nullptr;
  TPM_DIGEST digest{}, ordinalDigest{};
  const TSS_RESULT r =
      Tcsip_GetAuditDigestSigned(h, key, 0, antiReplay, &auth, &counterSize, &counter, &digest,
                                 &ordinalDigest, &sigSize, &sig);
  if (r != TSS_SUCCESS) return r;
  answer->counter.assign(counter, counter + counterSize);
  answer->digest.assign(digest.digest, digest.digest + 20);
  answer->ordinalDigest.assign(ordinalDigest.digest, ordinalDigest.digest + 20);
  answer->sig.assign(sig, sig + sigSize);
  Tcs_FreeBuffer(counter);
  Tcs_FreeBuffer(sig);
  Bytes out = answer->counter;
  PutAll(out, answer->digest);
  PutAll(out, answer->ordinalDigest);
  Put32(out, sigSize);
  PutAll(out, answer->sig);
  EXPECT_EQ(
      KestAuth_Verify(&s, TPM_ORD_GetAuditDigestSigned, out.data(), UINT32(out.size()), &auth), 0u);
  return r;
}

// The TPM_SIGN_INFO a signed audit digest covers: "ADIG", the caller's nonce, and the digest, the
// counter and the digest of the audited ordinals.
Bytes AuditSignInfo(const TPM_NONCE& antiReplay, const SignedAuditDigest& d) {
  Bytes info;
  Put16(info, kTagSignInfo);
  info.insert(info.end(), {'A', 'D', 'I', 'G'});
  info.insert(info.end(), antiReplay.nonce, antiReplay.nonce + sizeof antiReplay.nonce);
  Bytes data = d.digest;
  PutAll(data, d.counter);
  PutAll(data, d.ordinalDigest);
  Put32(info, UINT32(data.size()));
  PutAll(info, data);
  return info;
}

// The dump lines of `bytes` as the audit log writes them.
std::string Dump(const Bytes& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    char hex[4];
    std::snprintf(hex, sizeof hex, "%.2X ", bytes[i]);
    text += hex;
    if ((i + 1) % 16 == 0 || i + 1 == bytes.size()) text += "\n";
  }
  return text;
}

class AuditServiceTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }
  std::pair<int, std::string> Cli(const std::vector<std::string>& args, const std::string& socket) {
    return RunKesttcsCli(args, socket, fs::path(dir_.path()) / "cli.txt");
  }
  TempDir dir_;
};

TEST_F(AuditServiceTest, AnAuditedGetRandomIsLoggedAndDigestedAndTheCliManagesTheList) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  auto [status, text] = Cli({"provision"}, daemon.socket());
  ASSERT_EQ(status, 0) << text;
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);

  ASSERT_EQ(SetAudit(h, TPM_ORD_GetRandom, true), TSS_SUCCESS);
  const AuditDigest before = ReadAuditDigest(h);
  EXPECT_THAT(before.ordinals, ::testing::Contains(TPM_ORD_GetRandom));

  UINT32 count = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom(h, &count, &random), TSS_SUCCESS);
  const Bytes randomBytes(random, random + count);
  Tcs_FreeBuffer(random);

  // Both records are in Audit.log: the command as sent and the response as received.
  Bytes command;
  Put16(command, 0x00C1);
  Put32(command, 14);
  Put32(command, TPM_ORD_GetRandom);
  Put32(command, 16);
  Bytes response;
  Put16(response, 0x00C4);
  Put32(response, 14 + count);
  Put32(response, 0);
  Put32(response, count);
  PutAll(response, randomBytes);
  const std::string log = ReadFile(Home() / "audit" / "Audit.log");
  EXPECT_THAT(log, HasSubstr("//--Send Data To TPM.Time:"));
  EXPECT_THAT(log, HasSubstr("\n" + Dump(command) + "\n"));
  EXPECT_THAT(log, HasSubstr("//--Recv Data From TPM.Time:"));
  EXPECT_THAT(log, HasSubstr("\n\n" + Dump(response) + "\n"));

  // The TPM extended its digest with the command's input and output parameter digests.
  const AuditDigest after = ReadAuditDigest(h);
  ASSERT_EQ(after.counter.size(), 10u);
  Bytes in, out;
  Put32(in, TPM_ORD_GetRandom);
  Put32(in, 16);
  Put32(out, 0);
  Put32(out, TPM_ORD_GetRandom);
  Put32(out, count);
  PutAll(out, randomBytes);
  Bytes eventIn, eventOut;
  Put16(eventIn, kTagAuditEventIn);
  PutAll(eventIn, Sha1(in));
  PutAll(eventIn, after.counter);
  Put16(eventOut, kTagAuditEventOut);
  PutAll(eventOut, Sha1(out));
  PutAll(eventOut, after.counter);
  Bytes step = before.digest;
  PutAll(step, eventIn);
  step = Sha1(step);
  PutAll(step, eventOut);
  EXPECT_EQ(after.digest, Sha1(step));

  // kesttcs-cli shows the list and the digest, clears and sets by name and by number.
  std::tie(status, text) = Cli({"--json", "audit", "show"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(text, HasSubstr("\"TPM_ORD_GetRandom\""));
  std::tie(status, text) = Cli({"audit", "clear", "TPM_ORD_GetRandom"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(text, HasSubstr("TPM_ORD_GetRandom is no longer audited"));
  EXPECT_THAT(ReadAuditDigest(h).ordinals, Not(::testing::Contains(TPM_ORD_GetRandom)));
  // No longer audited: the service writes no more records.
  count = 16;
  ASSERT_EQ(Tcsip_GetRandom(h, &count, &random), TSS_SUCCESS);
  Tcs_FreeBuffer(random);
  EXPECT_EQ(ReadFile(Home() / "audit" / "Audit.log"), log);

  std::tie(status, text) = Cli({"audit", "set", "0x46"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  EXPECT_THAT(ReadAuditDigest(h).ordinals, ::testing::Contains(TPM_ORD_GetRandom));
  std::tie(status, text) = Cli({"audit", "clear", "GetRandom"}, daemon.socket());
  EXPECT_EQ(status, 0) << text;
  // A wrong owner secret is refused with words.
  const fs::path wrong = fs::path(dir_.path()) / "wrong.txt";
  daemon_process::WriteFile(wrong, "not the owner\n", fs::perms(0600));
  std::tie(status, text) =
      Cli({"audit", "set", "GetRandom", "--owner-secret", wrong.string()}, daemon.socket());
  EXPECT_EQ(status, 1);
  EXPECT_THAT(text, HasSubstr("the owner secret is wrong"));
  std::tie(status, text) = Cli({"audit", "set", "NoSuchOrdinal"}, daemon.socket());
  EXPECT_NE(status, 0);
  EXPECT_THAT(ReadAuditDigest(h).ordinals, Not(::testing::Contains(TPM_ORD_GetRandom)));
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

TEST_F(AuditServiceTest, TheSignedDigestVerifiesWithTheKeysPublicPartAndRotatesTheLog) {
  KesttcsdProcess daemon(Home(), /*owned=*/false);
  ASSERT_TRUE(daemon.Start());
  auto [status, text] = Cli({"provision"}, daemon.socket());
  ASSERT_EQ(status, 0) << text;
  TCS_CONTEXT_HANDLE h = 0;
  ASSERT_EQ(Tcsi_OpenContext(&h), TSS_SUCCESS);
  const Bytes blob =
      wrapped_keys::CreateKey(h, wrapped_keys::kSrk,
                              wrapped_keys::KeyInfo(wrapped_keys::kSigningUsage, 512, kSchemeNone,
                                                    kSchemePkcs1Sha1, wrapped_keys::kAuthAlways));
  ASSERT_FALSE(HasFailure());
  const TCS_KEY_HANDLE key = wrapped_keys::Load(h, wrapped_keys::kSrk, blob);
  ASSERT_NE(key, 0u);

  ASSERT_EQ(SetAudit(h, TPM_ORD_GetRandom, true), TSS_SUCCESS);
  UINT32 count = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom(h, &count, &random), TSS_SUCCESS);
  Tcs_FreeBuffer(random);
  const AuditDigest audit = ReadAuditDigest(h);
  const fs::path auditDir = Home() / "audit";
  ASSERT_TRUE(fs::exists(auditDir / "Audit.log"));

  TPM_NONCE antiReplay{};
  for (BYTE i = 0; i < sizeof antiReplay.nonce; ++i) antiReplay.nonce[i] = BYTE(0xA0 + i);
  SignedAuditDigest signedDigest;
  ASSERT_EQ(SignAuditDigest(h, key, antiReplay, &signedDigest), TSS_SUCCESS);

  // The same digest and counter the TPM reports unsigned, and the digest of its audited list.
  EXPECT_EQ(signedDigest.digest, audit.digest);
  EXPECT_EQ(signedDigest.counter, audit.counter);
  Bytes ordinals;
  for (UINT32 ordinal : audit.ordinals) Put32(ordinals, ordinal);
  EXPECT_EQ(signedDigest.ordinalDigest, Sha1(ordinals));
  // The key's public part verifies the signature; another nonce does not.
  const Bytes modulus = wrapped_keys::ModulusOf(blob);
  ASSERT_EQ(modulus.size(), 64u);
  EXPECT_EQ(signedDigest.sig.size(), modulus.size());
  EXPECT_TRUE(
      VerifiesWith(modulus, Sha1(AuditSignInfo(antiReplay, signedDigest)), signedDigest.sig));
  TPM_NONCE otherNonce = antiReplay;
  otherNonce.nonce[0] ^= 1;
  EXPECT_FALSE(
      VerifiesWith(modulus, Sha1(AuditSignInfo(otherNonce, signedDigest)), signedDigest.sig));

  // The signed digest closed the log: Audit.log moved to a time-stamped name, its last record the
  // signed digest after the audited GetRandom's records.
  EXPECT_FALSE(fs::exists(auditDir / "Audit.log"));
  std::vector<fs::path> kept;
  for (const auto& entry : fs::directory_iterator(auditDir)) kept.push_back(entry.path());
  ASSERT_EQ(kept.size(), 1u);
  const std::string name = kept[0].filename().string();
  EXPECT_TRUE(name.starts_with("Audit") && name.ends_with(".log") && name != "Audit.log") << name;
  const std::string log = ReadFile(kept[0]);
  EXPECT_THAT(log, HasSubstr("//--Send Data To TPM.Time:"));
  EXPECT_TRUE(log.ends_with("//-- Audit Digest Signed\n" + Dump(signedDigest.digest) + "\n"))
      << log;
  EXPECT_EQ(Tcsi_CloseContext(h), TSS_SUCCESS);
}

}  // namespace
}  // namespace kesttcs::testing
