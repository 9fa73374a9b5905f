// The session table against a scripted TPM: how many sessions it keeps and lets one context open,
// which sessions a context may end, the flushes of a closing context, the entity values OSAP and
// DSAP send, and the early free under TBS.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_owner.h"
#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/auth_mgr.h"
#include "tpm/driver.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TPM_ENTITY_TYPE kOwnerEntity = 0x0002;

class SessionsTest : public ::testing::Test {
 protected:
  virtual testing::CoreOptions Options() { return testing::CoreOptions().NeedLog(); }

  void SetUp() override {
    core_ = std::make_unique<testing::TestCore>(Options());
    ASSERT_EQ(core_->Start(), TSS_SUCCESS);
    tpm_ = &core_->fake();
  }
  void TearDown() override {
    EXPECT_THAT(tpm_->Mismatches(), IsEmpty());
    driver_set_tbs(false);
  }

  TCS_CONTEXT_HANDLE OpenContext() {
    TCS_CONTEXT_HANDLE hContext = 0;
    EXPECT_EQ(Tcsi_OpenContext_Internal(&hContext), TSS_SUCCESS);
    return hContext;
  }
  // TPM_OIAP for hContext, which the TPM answers with session `handle`.
  TSS_RESULT Oiap(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE handle) {
    tpm_->Respond(TPM_SUCCESS, Cat({U32(handle), Fill(20, 0xE1)}));
    TCS_AUTHHANDLE opened = 0;
    TPM_NONCE nonceEven{};
    const TSS_RESULT result = Tcsip_OIAP_Internal(hContext, &opened, &nonceEven);
    EXPECT_EQ(opened, handle);
    EXPECT_EQ(nonceEven.nonce[19], 0xE1);
    return result;
  }
  bool MayOpen(TCS_CONTEXT_HANDLE hContext) {
    MutexLock lock(auth_mutex());
    return auth_mgr_req_new(hContext);
  }
  // The sessions of hContext in the table, in entry order.
  static std::vector<TCS_AUTHHANDLE> SessionsOf(TCS_CONTEXT_HANDLE hContext) {
    std::vector<TCS_AUTHHANDLE> handles;
    for (const auth_session& entry : auth_mgr_snapshot().entries) {
      if (entry.inUse != 0 && entry.hContext == hContext) handles.push_back(entry.authHandle);
    }
    return handles;
  }
  size_t CountTraces(const std::string& line) {
    const std::vector<std::string> traces = core_->Traces();
    return static_cast<size_t>(std::count(traces.begin(), traces.end(), line));
  }
  static std::string Hex(UINT32 value) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%.8X", value);
    return text;
  }

  std::unique_ptr<testing::TestCore> core_;
  FakeTpmBackend* tpm_ = nullptr;  // the core's
};

// A TPM that holds more sessions than the table.
class WideTpmSessionsTest : public SessionsTest {
 protected:
  testing::CoreOptions Options() override {
    return testing::CoreOptions().NeedLog().AuthSessions(64);
  }
};

TEST_F(WideTpmSessionsTest, TheSeventeenthSessionOpensInTheTpmButTheTableKeepsSixteen) {
  const TCS_CONTEXT_HANDLE ctx = OpenContext();
  for (TCS_AUTHHANDLE handle = 0x100; handle < 0x110; ++handle) {
    EXPECT_EQ(Oiap(ctx, handle), TSS_SUCCESS);
  }
  EXPECT_EQ(Oiap(ctx, 0x110), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(core_->OrdinalsAfterStart(), std::vector<UINT32>(17, TPM_ORD_OIAP));
  EXPECT_EQ(core_->SentAfterStart().back(), Plain(TPM_ORD_OIAP));
  const AuthTableSnapshot table = auth_mgr_snapshot();
  EXPECT_EQ(table.maxSessions, 64);
  EXPECT_EQ(table.usedSessions, 16);
  EXPECT_EQ(SessionsOf(ctx).size(), 16u);
  EXPECT_EQ(CountTraces("TCS: Tcsip_OIAP_Internal:auth_mgr_add:hContext=" + Hex(ctx) +
                        ",authHandle=0x00000110,result=0xE0282004\n"),
            1u);
  // Every session after the third went past the refusal of the per-context limit.
  EXPECT_EQ(CountTraces("TCS: Tcsip_OIAP_Internal:auth_mgr_req_new:hContext=" + Hex(ctx) +
                        ",result=0x00000000\n"),
            14u);
}

TEST_F(SessionsTest, AContextMayOpenOneMoreOnlyWhileTheTpmHasRoomForIt) {
  // Four contexts with three sessions each and two with one: 14 of the TPM's 16 in use.
  std::vector<TCS_CONTEXT_HANDLE> full;
  TCS_AUTHHANDLE next = 0x200;
  for (int i = 0; i < 4; ++i) {
    full.push_back(OpenContext());
    for (int j = 0; j < 3; ++j) ASSERT_EQ(Oiap(full.back(), next++), TSS_SUCCESS);
  }
  const TCS_CONTEXT_HANDLE one = OpenContext();
  ASSERT_EQ(Oiap(one, next++), TSS_SUCCESS);
  ASSERT_EQ(Oiap(OpenContext(), next++), TSS_SUCCESS);
  EXPECT_FALSE(MayOpen(full[0]));
  const TCS_CONTEXT_HANDLE fresh = OpenContext();
  EXPECT_TRUE(MayOpen(fresh));  // two free
  EXPECT_TRUE(MayOpen(one));

  // One free: enough for a context that holds some, not for one without.
  ASSERT_EQ(Oiap(fresh, next++), TSS_SUCCESS);
  const TCS_CONTEXT_HANDLE late = OpenContext();
  EXPECT_FALSE(MayOpen(late));
  EXPECT_TRUE(MayOpen(one));
  EXPECT_TRUE(MayOpen(fresh));

  // The refused context's OIAP still goes to the TPM and takes the last entry.
  core_->TakeTraces();
  EXPECT_EQ(Oiap(late, next), TSS_SUCCESS);
  EXPECT_EQ(CountTraces("TCS: Tcsip_OIAP_Internal:auth_mgr_req_new:hContext=" + Hex(late) +
                        ",result=0x00000000\n"),
            1u);
  EXPECT_THAT(SessionsOf(late), ElementsAre(next));
  EXPECT_EQ(auth_mgr_snapshot().usedSessions, 16);
}

TEST_F(SessionsTest, OnlyTheOwningContextEndsASession) {
  const TCS_CONTEXT_HANDLE owner = OpenContext();
  const TCS_CONTEXT_HANDLE other = OpenContext();
  ASSERT_EQ(Oiap(owner, 0x300), TSS_SUCCESS);
  const size_t sent = core_->SentAfterStart().size();

  EXPECT_EQ(Tcsip_TerminateHandle_Internal(other, 0x300), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(Tcsip_TerminateHandle_Internal(0xA0000001, 0x300), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(core_->SentAfterStart().size(), sent);
  EXPECT_THAT(SessionsOf(owner), ElementsAre(0x300u));

  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_TerminateHandle_Internal(owner, 0x300), TSS_SUCCESS);
  EXPECT_EQ(core_->SentAfterStart().back(),
            Plain(TPM_ORD_FlushSpecific, Cat({U32(0x300), U32(TPM_RT_AUTH)})));
  EXPECT_THAT(SessionsOf(owner), IsEmpty());
  EXPECT_EQ(Tcsip_TerminateHandle_Internal(owner, 0x300), TCS_E_INTERNAL_ERROR);
}

TEST_F(SessionsTest, ClosingAContextEndsEachOfItsSessionsInTheTpm) {
  const TCS_CONTEXT_HANDLE closing = OpenContext();
  const TCS_CONTEXT_HANDLE staying = OpenContext();
  for (TCS_AUTHHANDLE handle : {0x401u, 0x402u}) ASSERT_EQ(Oiap(closing, handle), TSS_SUCCESS);
  ASSERT_EQ(Oiap(staying, 0x403), TSS_SUCCESS);
  ASSERT_EQ(Oiap(closing, 0x404), TSS_SUCCESS);
  const size_t sent = core_->SentAfterStart().size();

  // A flush the TPM refuses still frees the entry.
  tpm_->Respond(TPM_SUCCESS);
  tpm_->Respond(TPM_INVALID_AUTHHANDLE);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsi_CloseContext_Internal(closing), TSS_SUCCESS);
  std::vector<Bytes> flushes = core_->SentAfterStart();
  flushes.erase(flushes.begin(), flushes.begin() + static_cast<std::ptrdiff_t>(sent));
  auto flush = [](UINT32 handle) {
    return Plain(TPM_ORD_FlushSpecific, Cat({U32(handle), U32(TPM_RT_AUTH)}));
  };
  EXPECT_THAT(flushes, ElementsAre(flush(0x401), flush(0x402), flush(0x404)));
  EXPECT_THAT(SessionsOf(closing), IsEmpty());
  EXPECT_THAT(SessionsOf(staying), ElementsAre(0x403u));
  EXPECT_EQ(auth_mgr_snapshot().usedSessions, 1);

  // A TPM that is neither a TPM 1.2 nor the maker's own is sent TPM_Terminate_Handle.
  SetTpmIsVersion12(false);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsi_CloseContext_Internal(staying), TSS_SUCCESS);
  EXPECT_EQ(core_->SentAfterStart().back(), Plain(TPM_ORD_Terminate_Handle, U32(0x403)));
  EXPECT_EQ(auth_mgr_snapshot().usedSessions, 0);
  SetTpmIsVersion12(true);
}

TEST_F(SessionsTest, OsapAndDsapSendTheEntityValuesOfTheirEntityTypes) {
  const TCS_CONTEXT_HANDLE ctx = OpenContext();
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE even{};
  TPM_NONCE evenShared{};

  // The owner's entity value is sent as 0 whatever the caller gave.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(0x500), Fill(20, 0xE2), Fill(20, 0xE3)}));
  EXPECT_EQ(
      Tcsip_OSAP_Internal(ctx, kOwnerEntity, 0x12345678, Nonce(0x5A), &handle, &even, &evenShared),
      TSS_SUCCESS);
  EXPECT_EQ(core_->SentAfterStart().back(),
            Plain(TPM_ORD_OSAP, Cat({U16(kOwnerEntity), U32(0), Fill(20, 0x5A)})));
  EXPECT_EQ(handle, 0x500u);
  EXPECT_EQ(even.nonce[0], 0xE2);
  EXPECT_EQ(evenShared.nonce[0], 0xE3);
  EXPECT_THAT(SessionsOf(ctx), ElementsAre(0x500u));
  EXPECT_EQ(CountTraces("TCS: Tcsip_OSAP_Internal:auth_mgr_add:hContext=" + Hex(ctx) +
                        ",authHandle=0x00000500,result=0x00000000\n"),
            1u);

  // Key entities need their key loaded; without the key cache none loads, and nothing is sent.
  const size_t sent = core_->SentAfterStart().size();
  for (TPM_ENTITY_TYPE keyEntity : {0x0001, 0x0005}) {
    EXPECT_EQ(
        Tcsip_OSAP_Internal(ctx, keyEntity, 0x22330000, Nonce(1), &handle, &even, &evenShared),
        TCS_E_FAIL);
  }
  EXPECT_EQ(Tcsip_DSAP_Internal(ctx, 0x0009, 0x22330000, Nonce(1), 0, nullptr, &handle, &even,
                                &evenShared),
            TCS_E_FAIL);
  EXPECT_EQ(Tcsip_DSAP_Internal(ctx, 0x0002, 0, Nonce(1), 0, nullptr, &handle, &even, &evenShared),
            TCS_E_BAD_PARAMETER);
  const Bytes blob(4056, 0xB1);
  EXPECT_EQ(
      Tcsip_DSAP_Internal(ctx, 0x0007, 0, Nonce(1), 4057, blob.data(), &handle, &even, &evenShared),
      TCS_E_BAD_PARAMETER);
  EXPECT_EQ(core_->SentAfterStart().size(), sent);

  // A delegation blob: key handle 0, the blob after its size, up to the full buffer.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(0x501), Fill(20, 0xE4), Fill(20, 0xE5)}));
  EXPECT_EQ(Tcsip_DSAP_Internal(ctx, 0x0007, 0x22330000, Nonce(0x6B), 4056, blob.data(), &handle,
                                &even, &evenShared),
            TSS_SUCCESS);
  EXPECT_EQ(core_->SentAfterStart().back(),
            Plain(TPM_ORD_DSAP, Cat({U16(7), U32(0), Fill(20, 0x6B), U32(4056), blob})));
  EXPECT_EQ(evenShared.nonce[0], 0xE5);

  // A TPM refusal comes back mapped and adds nothing.
  tpm_->Respond(TPM_RESOURCES);
  EXPECT_EQ(Tcsip_OIAP_Internal(ctx, &handle, &even), 0xE0280015u);
  EXPECT_THAT(SessionsOf(ctx), ElementsAre(0x500u, 0x501u));
}

TEST_F(SessionsTest, UnderTbsASessionSentWithoutContinueIsFreedBeforeTheCommandGoesOut) {
  driver_set_tbs(true);
  const TCS_CONTEXT_HANDLE ctx = OpenContext();
  ASSERT_EQ(Oiap(ctx, 0x600), TSS_SUCCESS);
  ASSERT_EQ(Oiap(ctx, 0x601), TSS_SUCCESS);
  TPM_AUTH ending{};
  ending.AuthHandle = 0x600;
  TPM_AUTH continuing{};
  continuing.AuthHandle = 0x601;
  continuing.fContinueAuthSession = 1;

  // Refused by the TPM: the session is gone from the table already, and no flush follows.
  tpm_->Respond(TPM_AUTHFAIL);
  EXPECT_EQ(Tcsip_OwnerSetDisable_Internal(ctx, 1, &ending), 0xE0280001u);
  EXPECT_EQ(core_->OrdinalsAfterStart().back(), TPM_ORD_OwnerSetDisable);
  EXPECT_THAT(SessionsOf(ctx), ElementsAre(0x601u));

  // A session sent with continue stays.
  tpm_->Respond(TPM_SUCCESS, Cat({Fill(20, 0xE6), {1}, Fill(20, 0x4D)}));
  EXPECT_EQ(Tcsip_OwnerSetDisable_Internal(ctx, 0, &continuing), TSS_SUCCESS);
  EXPECT_THAT(SessionsOf(ctx), ElementsAre(0x601u));
  EXPECT_THAT(tpm_->Mismatches(), IsEmpty());
}

}  // namespace
}  // namespace kesttcs
