// The audit operations against a scripted TPM: their command bytes, the audited list kept in step
// with the TPM, the request manager's records for an audited ordinal, the digest report across
// pages, and the signed digest refused before anything is sent while its key cannot be loaded.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_audit.h"
#include "commands/tcsip_keyless.h"
#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "storage/audit_list.h"
#include "storage/audit_log.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TCS_AUTHHANDLE kSession = 0x02000009;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// TPM_COUNTER_VALUE: tag 0x000E, label "AUDT", count.
Bytes Counter(UINT32 count) { return Cat({U16(0x000E), {'A', 'U', 'D', 'T'}, U32(count)}); }

// The body of a TPM_GetAuditDigest answer.
Bytes DigestAnswer(BYTE digest, BYTE more, const std::vector<UINT32>& ordinals) {
  Bytes list;
  for (UINT32 o : ordinals) list = Cat({list, U32(o)});
  return Cat({Counter(7), Fill(20, digest), {more}, U32(UINT32(list.size())), list});
}

class AuditCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    tpm_ = &core_.fake();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    tpm_->Respond(TPM_SUCCESS, Cat({U32(kSession), Fill(20, 0x0E)}));
    TPM_NONCE nonceEven;
    ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &auth_.AuthHandle, &nonceEven), TSS_SUCCESS);
    std::memset(auth_.NonceOdd.nonce, 0x0D, 20);
    auth_.fContinueAuthSession = 1;
    std::memset(auth_.HMAC.authdata, 0x4A, 20);
  }
  void TearDown() override { EXPECT_THAT(tpm_->Mismatches(), IsEmpty()); }

  Bytes Trailer(const TPM_AUTH& a) {
    return Cat({U32(a.AuthHandle), Fill(20, 0x0D), {a.fContinueAuthSession}, Fill(20, 0x4A)});
  }
  std::string AuditLog() { return ReadFile(core_.home() + "/audit/Audit.log"); }

  testing::TestCore core_;
  FakeTpmBackend* tpm_ = nullptr;
  TCS_CONTEXT_HANDLE ctx_ = 0;
  TPM_AUTH auth_{};
};

TEST_F(AuditCommandsTest, SetOrdinalAuditStatusKeepsTheListAndTheRequestManagerWritesRecords) {
  const Bytes trailerBack = Cat({Fill(20, 0xE7), {1}, Fill(20, 0x4E)});
  tpm_->Respond(TPM_SUCCESS, trailerBack);
  const TPM_AUTH sent = auth_;
  EXPECT_EQ(Tcsip_SetOrdinalAuditStatus_Internal(ctx_, &auth_, TPM_ORD_GetRandom, 1), TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_SetOrdinalAuditStatus,
                    Cat({U32(TPM_ORD_GetRandom), {1}, Trailer(sent)})));
  EXPECT_THAT(audit_ordinals(), ElementsAre(TPM_ORD_GetRandom));

  // The audited command is recorded as sent and as received, nothing else is.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(2), {0x5A, 0xA5}}));
  UINT32 bytes = 2;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom_Internal(ctx_, &bytes, &random), TSS_SUCCESS);
  const std::string log = AuditLog();
  EXPECT_THAT(log, HasSubstr("//--Send Data To TPM.Time:"));
  EXPECT_THAT(log, HasSubstr("\n00 C1 00 00 00 0E 00 00 00 46 00 00 00 02 \n\n"));
  EXPECT_THAT(log, HasSubstr("//--Recv Data From TPM.Time:"));
  EXPECT_THAT(log, HasSubstr("\n\n00 C4 00 00 00 10 00 00 00 00 00 00 00 02 5A A5 \n\n"));
  EXPECT_EQ(log.find("00 00 00 8D"), std::string::npos);  // SetOrdinalAuditStatus is not audited

  // Refused by the TPM: the list stays as it was (and the session is ended).
  tpm_->Respond(TPM_AUTHFAIL);
  tpm_->Respond(TPM_SUCCESS);  // the flush
  EXPECT_EQ(Tcsip_SetOrdinalAuditStatus_Internal(ctx_, &auth_, TPM_ORD_GetRandom, 0), 0xE0280001u);
  EXPECT_THAT(audit_ordinals(), ElementsAre(TPM_ORD_GetRandom));

  // Cleared: the next GetRandom writes no more records.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(kSession + 1), Fill(20, 0x0E)}));
  TPM_NONCE nonceEven;
  ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &auth_.AuthHandle, &nonceEven), TSS_SUCCESS);
  tpm_->Respond(TPM_SUCCESS, trailerBack);
  EXPECT_EQ(Tcsip_SetOrdinalAuditStatus_Internal(ctx_, &auth_, TPM_ORD_GetRandom, 0), TSS_SUCCESS);
  EXPECT_THAT(audit_ordinals(), IsEmpty());
  tpm_->Respond(TPM_SUCCESS, Cat({U32(2), {0x5A, 0xA5}}));
  ASSERT_EQ(Tcsip_GetRandom_Internal(ctx_, &bytes, &random), TSS_SUCCESS);
  EXPECT_EQ(AuditLog(), log);

  // No owner session: nothing sent.
  const size_t sentBefore = core_.SentAfterStart().size();
  EXPECT_EQ(Tcsip_SetOrdinalAuditStatus_Internal(ctx_, nullptr, TPM_ORD_GetRandom, 1),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(core_.SentAfterStart().size(), sentBefore);
}

TEST_F(AuditCommandsTest, GetAuditDigestHandsOutTheCounterDigestAndOrdinals) {
  tpm_->Respond(TPM_SUCCESS, DigestAnswer(0x3C, 1, {TPM_ORD_GetRandom, TPM_ORD_Extend}));
  TPM_DIGEST digest;
  UINT32 counterSize = 0;
  BYTE* counter = nullptr;
  TSS_BOOL more = 0;
  UINT32 ordSize = 0;
  UINT32* ordList = nullptr;
  ASSERT_EQ(Tcsip_GetAuditDigest_Internal(ctx_, 0x10, &digest, &counterSize, &counter, &more,
                                          &ordSize, &ordList),
            TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(), Plain(TPM_ORD_GetAuditDigest, U32(0x10)));
  EXPECT_EQ(ToBytes(counter, counterSize), Counter(7));
  EXPECT_EQ(ToBytes(digest.digest, 20), Fill(20, 0x3C));
  EXPECT_EQ(more, 1);
  ASSERT_EQ(ordSize, 2u);
  EXPECT_THAT(std::vector<UINT32>(ordList, ordList + 2),
              ElementsAre(TPM_ORD_GetRandom, TPM_ORD_Extend));

  // A list size that is not whole ordinals, or longer than the answer, is refused.
  for (const Bytes& bad :
       {Cat({Counter(7), Fill(20, 0), {0}, U32(3), Fill(3, 0)}),
        Cat({Counter(7), Fill(20, 0), {0}, U32(8), U32(0x46)}), Cat({Counter(7), Fill(10, 0)})}) {
    tpm_->Respond(TPM_SUCCESS, bad);
    EXPECT_EQ(Tcsip_GetAuditDigest_Internal(ctx_, 0, &digest, &counterSize, &counter, &more,
                                            &ordSize, &ordList),
              TCS_E_BAD_PARAMETER);
  }
  EXPECT_EQ(Tcsip_GetAuditDigest_Internal(ctx_, 0, nullptr, &counterSize, &counter, &more, &ordSize,
                                          &ordList),
            TCS_E_BAD_PARAMETER);
}

TEST_F(AuditCommandsTest, TheDigestReportReadsEveryPageRotatesAndWritesTheDigest) {
  auditLog_write(kAuditComment, 3, reinterpret_cast<const BYTE*>("old"), false);
  tpm_->Respond(TPM_SUCCESS, DigestAnswer(0x11, 1, {TPM_ORD_Extend, TPM_ORD_GetRandom}));
  tpm_->Respond(TPM_SUCCESS, DigestAnswer(0xAB, 0, {TPM_ORD_Quote}));
  ASSERT_EQ(audit_reportDigest(), TSS_SUCCESS);
  const std::vector<Bytes> sent = core_.SentAfterStart();
  EXPECT_EQ(sent[sent.size() - 2], Plain(TPM_ORD_GetAuditDigest, U32(0)));
  EXPECT_EQ(sent.back(), Plain(TPM_ORD_GetAuditDigest, U32(TPM_ORD_GetRandom + 1)));
  EXPECT_THAT(audit_ordinals(), ElementsAre(TPM_ORD_Extend, TPM_ORD_GetRandom, TPM_ORD_Quote));
  // The old log went aside; the new one holds the last digest as 40 hex characters.
  int kept = 0;
  for (const auto& entry : fs::directory_iterator(core_.home() + "/audit")) {
    const std::string name = entry.path().filename().string();
    if (name != "Audit.log") {
      ++kept;
      EXPECT_EQ(name.size(), std::string("Audit20070514090507.log").size()) << name;
    }
  }
  EXPECT_EQ(kept, 1);
  std::string dump;
  for (int i = 0; i < 40; ++i) dump += (i % 2 == 0 ? "41 " : "42 ");
  EXPECT_EQ(AuditLog(), "//-- Audit Digest\n" + dump.substr(0, 48) + "\n" + dump.substr(48, 48) +
                            "\n" + dump.substr(96) + "\n\n");
}

TEST_F(AuditCommandsTest, SignedDigestNeedsItsKeyBeforeAnythingIsSent) {
  const size_t sentBefore = core_.SentAfterStart().size();
  UINT32 counterSize = 0, sigSize = 0;
  BYTE *counter = nullptr, *sig = nullptr;
  TPM_DIGEST digest, ordinalDigest;
  EXPECT_EQ(
      Tcsip_GetAuditDigestSigned_Internal(ctx_, 0x22330000, 1, Nonce(0x11), &auth_, &counterSize,
                                          &counter, &digest, &ordinalDigest, &sigSize, &sig),
      TCS_E_INVALID_KEY);  // key loading's answer for a handle the cache does not know
  EXPECT_EQ(
      Tcsip_GetAuditDigestSigned_Internal(ctx_, 0x22330000, 1, Nonce(0x11), nullptr, &counterSize,
                                          &counter, &digest, &ordinalDigest, nullptr, &sig),
      TCS_E_BAD_PARAMETER);
  EXPECT_EQ(core_.SentAfterStart().size(), sentBefore);
  EXPECT_FALSE(fs::exists(core_.home() + "/audit/Audit.log"));
}

}  // namespace
}  // namespace kesttcs
