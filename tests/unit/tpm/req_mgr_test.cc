// The request manager against a scripted TPM: admission rules, the retry loop, session clean-up
// after a failed exchange, response checks, the self-test path and transport state.

#include "tpm/req_mgr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "tpm/driver.h"
#include "tpm/fake_tpm_backend.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Blob = std::array<BYTE, kTpmBlobSize>;

Blob GetRandom(UINT32 bytes) {
  Blob blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  EXPECT_EQ(LoadBlob_UINT32(w, bytes), TSS_SUCCESS);
  EXPECT_EQ(LoadBlob_Header(TPM_TAG_RQU_COMMAND, w.offset(), TPM_ORD_GetRandom, blob), TSS_SUCCESS);
  return blob;
}

Blob Plain(UINT32 ordinal) {
  Blob blob{};
  EXPECT_EQ(LoadBlob_Header(TPM_TAG_RQU_COMMAND, kTpmHeaderSize, ordinal, blob), TSS_SUCCESS);
  return blob;
}

TPM_AUTH Auth(UINT32 handle, bool continueSession) {
  TPM_AUTH auth{};
  auth.AuthHandle = handle;
  auth.fContinueAuthSession = continueSession ? 1 : 0;
  return auth;
}

// A command with some parameter bytes and one or two authorisation trailers.
Blob Authorised(UINT32 ordinal, std::vector<TPM_AUTH> auths) {
  Blob blob{};
  BlobWriter w(blob, kTpmHeaderSize);
  EXPECT_EQ(LoadBlob_UINT32(w, 0x40000000), TSS_SUCCESS);
  for (const TPM_AUTH& auth : auths) EXPECT_EQ(LoadBlob_Auth(w, auth), TSS_SUCCESS);
  TPM_TAG tag = auths.size() == 1 ? TPM_TAG_RQU_AUTH1_COMMAND : TPM_TAG_RQU_AUTH2_COMMAND;
  EXPECT_EQ(LoadBlob_Header(tag, w.offset(), ordinal, blob), TSS_SUCCESS);
  return blob;
}

UINT32 U32At(std::span<const BYTE> bytes, size_t offset) {
  return ArrayToUINT32(bytes.subspan(offset).first<4>());
}

class ReqMgrTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto fake = std::make_unique<FakeTpmBackend>();
    tpm_ = fake.get();
    driver_use_backend(std::move(fake));
  }
  void TearDown() override {
    static_cast<void>(req_mgr_final());
    driver_unbind();
    SetAuditHook(nullptr, nullptr);
    SetTpmIsVersion12(true);
    driver_set_tbs(false);
  }
  // Opens the driver; the start-up sequence's ContinueSelfTest is answered with success.
  void Init() {
    tpm_->Respond(TPM_SUCCESS);
    ASSERT_EQ(req_mgr_init(), TSS_SUCCESS);
    ASSERT_THAT(tpm_->SentOrdinals(), ElementsAre(TPM_ORD_ContinueSelfTest));
  }
  std::vector<UINT32> OrdinalsAfterInit() {
    std::vector<UINT32> all = tpm_->SentOrdinals();
    return std::vector<UINT32>(all.begin() + 1, all.end());
  }

  FakeTpmBackend* tpm_ = nullptr;  // owned by the driver binding
};

TEST_F(ReqMgrTest, DriverNotOpenedIsCommFailureAndSendsNothing) {
  Blob blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), 0xE0282011u);
  EXPECT_TRUE(tpm_->Sent().empty());
  EXPECT_FALSE(req_mgr_driver_open());
}

TEST_F(ReqMgrTest, InitReturnsOpenFailureUnchangedAndStaysClosed) {
  tpm_->FailOpen(kDriverIoError);
  EXPECT_EQ(req_mgr_init(), kDriverIoError);
  EXPECT_FALSE(req_mgr_driver_open());
  Blob blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TCS_E_COMM_FAILURE);
}

TEST_F(ReqMgrTest, InitStartsTpmThatWasNotStarted) {
  tpm_->Respond(TPM_INVALID_POSTINIT);  // ContinueSelfTest
  tpm_->Respond(TPM_SUCCESS);           // Startup(ST_CLEAR)
  tpm_->Respond(TPM_SUCCESS);           // ContinueSelfTest
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS);
  EXPECT_THAT(tpm_->SentOrdinals(),
              ElementsAre(TPM_ORD_ContinueSelfTest, TPM_ORD_Startup, TPM_ORD_ContinueSelfTest));
  std::vector<BYTE> startup = tpm_->Sent()[1];
  EXPECT_EQ(startup, (std::vector<BYTE>{0x00, 0xC1, 0, 0, 0, 12, 0, 0, 0, 0x99, 0, 1}));
  // A second init while open neither reopens nor restarts.
  EXPECT_EQ(req_mgr_init(), TSS_SUCCESS);
  EXPECT_EQ(tpm_->Sent().size(), 3u);
}

TEST_F(ReqMgrTest, ResponseReplacesRequestAndFinalClosesDriver) {
  Init();
  std::vector<BYTE> body = {0, 0, 0, 16};  // randomBytesSize, then 16 bytes of 0xAB
  body.resize(20, 0xAB);
  tpm_->Respond(TPM_SUCCESS, body);
  Blob blob = GetRandom(16);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  UINT32 paramSize = 0;
  EXPECT_EQ(UnloadBlob_Header(blob, &paramSize), TSS_SUCCESS);
  EXPECT_EQ(paramSize, 30u);
  EXPECT_EQ(blob[29], 0xAB);
  // A TPM error is still a working exchange; the caller maps it.
  tpm_->Respond(TPM_BAD_PARAMETER);
  blob = GetRandom(16);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_EQ(UnloadBlob_Header(blob, &paramSize), 0xE0280003u);

  EXPECT_EQ(req_mgr_final(), TSS_SUCCESS);
  EXPECT_EQ(tpm_->cancels(), 1);
  EXPECT_FALSE(tpm_->is_open());
  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TCS_E_COMM_FAILURE);
}

TEST_F(ReqMgrTest, RetryIsResentUntilAnotherCode) {
  Init();
  for (int i = 0; i < 5; ++i) tpm_->Respond(TPM_RETRY);
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  Blob blob = GetRandom(16);
  const std::vector<BYTE> request(blob.begin(), blob.begin() + 14);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  std::vector<std::vector<BYTE>> sent = tpm_->Sent();
  ASSERT_EQ(sent.size(), 7u);
  for (size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i], request) << "exchange " << i;
  EXPECT_EQ(U32At(blob, 6), TPM_SUCCESS);
  EXPECT_EQ(tpm_->Unanswered(), 0u);
}

TEST_F(ReqMgrTest, FailedTransmitReleasesSessionsThatWereNotToContinue) {
  Init();
  // One authorisation, continue 0: one FlushSpecific(handle, 4).
  tpm_->Fail(kDriverIoError);
  tpm_->Respond(TPM_SUCCESS);
  Blob blob = Authorised(TPM_ORD_Seal, {Auth(0x01020304, false)});
  EXPECT_EQ(req_mgr_submit(blob), kDriverIoError);
  std::vector<std::vector<BYTE>> sent = tpm_->Sent();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[2],
            (std::vector<BYTE>{0x00, 0xC1, 0, 0, 0, 18, 0, 0, 0, 0xBA, 1, 2, 3, 4, 0, 0, 0, 4}));

  // One authorisation, continue 1: nothing released.
  tpm_->Fail(kDriverIoError);
  blob = Authorised(TPM_ORD_Seal, {Auth(0x01020304, true)});
  EXPECT_EQ(req_mgr_submit(blob), kDriverIoError);
  EXPECT_EQ(tpm_->Sent().size(), 4u);

  // Two authorisations, both continue 0: first with type 2, second with type 4.
  tpm_->Fail(kDriverFail);
  tpm_->Respond(TPM_SUCCESS);
  tpm_->Respond(TPM_SUCCESS);
  blob = Authorised(TPM_ORD_ChangeAuth, {Auth(0xAAAA0001, false), Auth(0xBBBB0002, false)});
  EXPECT_EQ(req_mgr_submit(blob), kDriverFail);
  sent = tpm_->Sent();
  ASSERT_EQ(sent.size(), 7u);
  EXPECT_EQ(U32At(sent[5], 6), TPM_ORD_FlushSpecific);
  EXPECT_EQ(U32At(sent[5], 10), 0xAAAA0001u);
  EXPECT_EQ(U32At(sent[5], 14), TPM_RT_AUTH);
  EXPECT_EQ(U32At(sent[6], 10), 0xBBBB0002u);
  EXPECT_EQ(U32At(sent[6], 14), TPM_RT_TRANS);

  // Two authorisations, only the second to be dropped; on a TPM before 1.2 with Terminate_Handle.
  SetTpmIsVersion12(false);
  tpm_->Fail(kDriverFail);
  tpm_->Respond(TPM_SUCCESS);
  blob = Authorised(TPM_ORD_ChangeAuth, {Auth(0xAAAA0001, true), Auth(0xBBBB0002, false)});
  EXPECT_EQ(req_mgr_submit(blob), kDriverFail);
  sent = tpm_->Sent();
  ASSERT_EQ(sent.size(), 9u);
  EXPECT_EQ(sent[8], (std::vector<BYTE>{0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x96, 0xBB, 0xBB, 0, 2}));
  EXPECT_EQ(tpm_->Unanswered(), 0u);
}

TEST_F(ReqMgrTest, AuthTrailerThatCannotFitIsNotReleased) {
  Init();
  // Tag C2 but only 20 bytes: no trailer can be found counting back, so nothing is released.
  Blob blob{};
  ASSERT_EQ(LoadBlob_Header(TPM_TAG_RQU_AUTH1_COMMAND, 20, TPM_ORD_Seal, blob), TSS_SUCCESS);
  tpm_->Fail(kDriverIoError);
  EXPECT_EQ(req_mgr_submit(blob), kDriverIoError);
  EXPECT_EQ(tpm_->Sent().size(), 2u);
}

TEST_F(ReqMgrTest, ExclusiveTransportAdmitsOnlyTransportOrdinals) {
  Init();
  SetTransportAttributes(TPM_TRANSPORT_EXCLUSIVE);
  tpm_->Respond(TPM_SUCCESS);
  Blob blob = Plain(TPM_ORD_EstablishTransport);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_TRUE(GetTransportState().active);

  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), 0xE02820CDu);
  tpm_->Respond(TPM_SUCCESS);
  blob = Plain(TPM_ORD_ExecuteTransport);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  tpm_->Respond(TPM_SUCCESS);
  blob = Plain(TPM_ORD_ReleaseTransportSigned);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_THAT(OrdinalsAfterInit(), ElementsAre(TPM_ORD_EstablishTransport, TPM_ORD_ExecuteTransport,
                                               TPM_ORD_ReleaseTransportSigned));

  // A failed ExecuteTransport ends the session: GetRandom passes again.
  SetTransportHandle(0x02000001);
  tpm_->Respond(TPM_AUTHFAIL);
  blob = Plain(TPM_ORD_ExecuteTransport);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  TransportState state = GetTransportState();
  EXPECT_FALSE(state.active);
  EXPECT_EQ(state.attributes, 0u);
  EXPECT_EQ(state.handle, 0u);
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
}

TEST_F(ReqMgrTest, NonExclusiveOrFailedEstablishTransportLeavesOthersAdmitted) {
  Init();
  SetTransportAttributes(0x00000001);  // encrypted, not exclusive
  tpm_->Respond(TPM_SUCCESS);
  Blob blob = Plain(TPM_ORD_EstablishTransport);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_FALSE(GetTransportState().active);
  SetTransportAttributes(TPM_TRANSPORT_EXCLUSIVE);
  tpm_->Respond(TPM_AUTHFAIL);
  blob = Plain(TPM_ORD_EstablishTransport);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_FALSE(GetTransportState().active);
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
}

TEST_F(ReqMgrTest, VendorExclusiveModeAdmitsOnlyVendorOrdinals) {
  Init();
  SetVendorExclusiveMode(true);
  Blob blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), 0xE0282401u);
  for (UINT32 ordinal : {kVendorOrdinalOpen, kVendorOrdinalContinue, kVendorOrdinalEnd}) {
    tpm_->Respond(TPM_SUCCESS);
    blob = Plain(ordinal);
    EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  }
  // Vendor mode is checked before the transport rule.
  SetTransportAttributes(TPM_TRANSPORT_EXCLUSIVE);
  tpm_->Respond(TPM_SUCCESS);
  blob = Plain(TPM_ORD_EstablishTransport);
  EXPECT_EQ(req_mgr_submit(blob), 0xE0282401u);
  SetVendorExclusiveMode(false);
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_THAT(OrdinalsAfterInit(), ElementsAre(kVendorOrdinalOpen, kVendorOrdinalContinue,
                                               kVendorOrdinalEnd, TPM_ORD_GetRandom));
}

TEST_F(ReqMgrTest, NeedsSelftestSendsContinueSelfTestAndReportsInternalError) {
  Init();
  tpm_->Respond(TPM_NEEDS_SELFTEST);
  tpm_->Respond(TPM_SUCCESS);
  Blob blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), 0xE0282004u);
  EXPECT_THAT(OrdinalsAfterInit(), ElementsAre(TPM_ORD_GetRandom, TPM_ORD_ContinueSelfTest));
  EXPECT_EQ(U32At(blob, 6), TPM_NEEDS_SELFTEST);  // the response is still handed back
}

TEST_F(ReqMgrTest, MalformedRequestsAndResponsesAreRefused) {
  Init();
  // Requests whose paramSize cannot be true: nothing is sent.
  Blob blob = GetRandom(16);
  blob[5] = 9;
  EXPECT_EQ(req_mgr_submit(blob), TCS_E_BAD_PARAMETER);
  blob = GetRandom(16);
  blob[2] = 0x01;  // 0x0100000E
  EXPECT_EQ(req_mgr_submit(blob), TCS_E_BAD_PARAMETER);
  std::array<BYTE, 6> tiny{};
  EXPECT_EQ(req_mgr_submit(tiny), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(tpm_->Sent().size(), 1u);

  // Responses: truncated, paramSize beyond the bytes received, paramSize below a header.
  std::vector<BYTE> truncated = {0x00, 0xC4, 0, 0, 0};
  std::vector<BYTE> overlong = FakeTpmBackend::Response(TPM_SUCCESS);
  overlong[5] = 40;
  std::vector<BYTE> undersized = FakeTpmBackend::Response(TPM_SUCCESS);
  undersized[5] = 4;
  for (const auto& response : {truncated, overlong, undersized}) {
    tpm_->Expect({response, TSS_SUCCESS, TPM_ORD_GetRandom});
    blob = GetRandom(16);
    Blob before = blob;
    EXPECT_EQ(req_mgr_submit(blob), TCS_E_COMM_FAILURE);
    EXPECT_EQ(blob, before);  // the caller's buffer is untouched
  }
  // Extra bytes after a well-formed response are dropped: only paramSize bytes are copied.
  std::vector<BYTE> padded = FakeTpmBackend::Response(TPM_SUCCESS, std::vector<BYTE>{0, 0, 0, 0});
  padded.push_back(0xEE);
  tpm_->Expect({padded, TSS_SUCCESS, TPM_ORD_GetRandom});
  blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  EXPECT_EQ(blob[14], 0x00);  // not the 0xEE past paramSize
  EXPECT_TRUE(tpm_->Mismatches().empty());
}

TEST_F(ReqMgrTest, AuditHookSeesAuditedCommandsAndResponses) {
  Init();
  static std::vector<std::pair<bool, std::vector<BYTE>>> records;
  records.clear();
  SetAuditHook([](UINT32 ordinal) { return ordinal == TPM_ORD_GetRandom; },
               [](UINT32 length, const BYTE* data, bool sent) {
                 records.emplace_back(sent, std::vector<BYTE>(data, data + length));
               });
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  Blob blob = GetRandom(16);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  tpm_->Respond(TPM_SUCCESS);
  blob = Plain(TPM_ORD_ContinueSelfTest);
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_TRUE(records[0].first);
  EXPECT_EQ(records[0].second.size(), 14u);
  EXPECT_FALSE(records[1].first);
  EXPECT_EQ(records[1].second,
            FakeTpmBackend::Response(TPM_SUCCESS, std::vector<BYTE>{0, 0, 0, 0}));
}

TEST_F(ReqMgrTest, TrafficLogAndTraceRecordEachExchange) {
  Init();
  std::string dir = (std::filesystem::temp_directory_path() / "kesttcs-traffic-XXXXXX").string();
  ASSERT_NE(::mkdtemp(dir.data()), nullptr);
  SetTrafficLogDirectory(dir);
  std::vector<std::string> lines;
  SetTraceSink([&](std::string_view line) { lines.emplace_back(line); });
  SetNeedLog(true);
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  Blob blob = GetRandom(16);
  TSS_RESULT ok = req_mgr_submit(blob);
  tpm_->Fail(kDriverIoError);
  blob = GetRandom(16);
  TSS_RESULT failed = req_mgr_submit(blob);
  SetNeedLog(false);
  SetTraceSink(nullptr);
  EXPECT_EQ(ok, TSS_SUCCESS);
  EXPECT_EQ(failed, kDriverIoError);

  ASSERT_GE(lines.size(), 2u);
  EXPECT_THAT(lines.front(),
              ::testing::MatchesRegex("TCS:LockTPM queue_lock=0x[0-9A-F]{8},s3_lock=0x[0-9a-f]{8},"
                                      "curCmdOrdinal=0x00000046\n"));
  EXPECT_EQ(lines.back(), "TCS: ++++++++++++ UnlockTPM ++++++++++++\n");

  std::string traffic;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::ifstream file(entry.path());
    traffic.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  std::filesystem::remove_all(dir);
  EXPECT_THAT(traffic, HasSubstr("Send Data To TPM"));
  EXPECT_THAT(traffic, HasSubstr("00 C1 00 00 00 0E 00 00 00 46 00 00 00 10 "));
  EXPECT_THAT(traffic, HasSubstr("Recv Data From TPM"));
  EXPECT_THAT(traffic, ::testing::ContainsRegex("req_mgr:Consume +[0-9]+\\.[0-9]{5} seconds\n"));
  EXPECT_THAT(traffic, HasSubstr("Tddli_TransmitData:0xE0281087"));
}

TEST_F(ReqMgrTest, S3HoldIsRecursiveAndForgivesStrayReleases) {
  Init();
  // Power handling holds s3 and then queue on one thread; a command on that thread still runs.
  S3Hold hold = S3Hold::Take();
  ASSERT_TRUE(hold.HoldQueueFor(std::chrono::milliseconds(0)));
  tpm_->Respond(TPM_SUCCESS, {0, 0, 0, 0});
  Blob blob = GetRandom(16);
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  // Another thread cannot get the queue while it is held.
  bool other = true;
  std::thread([&] { other = S3Hold().HoldQueueFor(std::chrono::milliseconds(10)); }).join();
  EXPECT_FALSE(other);
  // The hold moves with its locks; what it no longer has, it does not release.
  S3Hold moved = std::move(hold);
  hold.Release();
  std::thread([&] { other = S3Hold().HoldQueueFor(std::chrono::milliseconds(10)); }).join();
  EXPECT_FALSE(other);
  moved.ReleaseQueue();
  moved.Release();
  moved.Release();       // not held: harmless
  moved.ReleaseQueue();  // not held: harmless
  std::thread([&] { other = S3Hold().HoldQueueFor(std::chrono::milliseconds(1000)); }).join();
  EXPECT_TRUE(other);
}

TEST_F(ReqMgrTest, TbsFlagSwitchesResponseCodeMapping) {
  Blob response{};
  ASSERT_EQ(LoadBlob_Header(TPM_TAG_RSP_COMMAND, 10, 0x00010005, response), TSS_SUCCESS);
  UINT32 paramSize = 0;
  EXPECT_FALSE(driver_is_tbs());
  EXPECT_EQ(UnloadBlob_Header(response, &paramSize), 0xE0290005u);
  driver_set_tbs(true);
  EXPECT_TRUE(driver_is_tbs());
  EXPECT_EQ(UnloadBlob_Header(response, &paramSize), 0x00010005u);
  // Binding a configured backend applies the flag's mapping again (nothing is opened).
  SetResponseCodeMapping(ResponseCodeMapping::kTddl);
  driver_unbind();
  driver_configure("libtpms:/nonexistent/state", "/tmp");
  ASSERT_EQ(bind_driver(), 0);
  EXPECT_EQ(UnloadBlob_Header(response, &paramSize), 0x00010005u);
  driver_configure("auto", ".");
}

TEST_F(ReqMgrTest, UnboundDriverAnswersOneAndDriverNotAvailable) {
  driver_unbind();
  driver_configure("nonsense", "/tmp");
  EXPECT_EQ(bind_driver(), 1);
  EXPECT_THAT(driver_last_error(), HasSubstr("bad TPM backend \"nonsense\""));
  EXPECT_EQ(driver_open(), 1u);
  EXPECT_EQ(driver_close(), 1u);
  EXPECT_EQ(driver_cancel(), 1u);
  std::array<BYTE, 10> in{};
  std::array<BYTE, 10> out{};
  UINT32 outLen = 7;
  {
    TpmLockGuard tpm(0);
    EXPECT_EQ(driver_transmit(in, out, &outLen, kPriorityNormal), 0xE0281087u);
  }
  EXPECT_EQ(outLen, 0u);
  EXPECT_EQ(req_mgr_init(), 1u);
  driver_configure("auto", ".");
}

}  // namespace
}  // namespace kesttcs
