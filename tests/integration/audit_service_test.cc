// The audit log through the real kesttcsd on the embedded libtpms TPM: ownership taken with
// kesttcs-cli, TPM_GetRandom set audited under the owner's OIAP session, its command and response
// found in Audit.log, the TPM's audit digest recomputed from what the command carried, and
// kesttcs-cli audit show / clear / set.
#include <openssl/sha.h>

#include <filesystem>
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

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using daemon_process::ReadFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Bytes = std::vector<BYTE>;

constexpr UINT16 kTagAuditEventIn = 0x0012;
constexpr UINT16 kTagAuditEventOut = 0x0013;

void Put16(Bytes& out, UINT16 v) {
  out.push_back(BYTE(v >> 8));
  out.push_back(BYTE(v));
}
void Put32(Bytes& out, UINT32 v) {
  BYTE b[4];
  KestAuth_PutUINT32(b, v);
  out.insert(out.end(), b, b + 4);
}
void PutAll(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }
Bytes Sha1(const Bytes& in) {
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(in.data(), in.size(), out.data());
  return out;
}

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

}  // namespace
}  // namespace kesttcs::testing
