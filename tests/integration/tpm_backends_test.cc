// Every backend against a real TPM 1.2: libtpms in this process, swtpm processes over Unix and TCP
// sockets, a TDDL library forwarding to swtpm; plus the TDDL binding rules with stand-in libraries.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "swtpm_process.h"
#include "tpm/backends.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_backend.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

using ::testing::HasSubstr;
using testing::SwtpmProcess;
using testing::TempDir;

using Bytes = std::vector<BYTE>;

const Bytes kStartupClear = {0x00, 0xC1, 0, 0, 0, 12, 0, 0, 0, 0x99, 0, 1};
const Bytes kGetRandom16 = {0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x46, 0, 0, 0, 16};
const Bytes kPcrRead15 = {0x00, 0xC1, 0, 0, 0, 14, 0, 0, 0, 0x15, 0, 0, 0, 15};
const Bytes kReadPubek = [] {
  Bytes command = {0x00, 0xC1, 0, 0, 0, 30, 0, 0, 0, 0x7C};
  command.resize(30, 0x5A);  // antiReplay nonce
  return command;
}();

UINT32 U32(const Bytes& bytes, size_t offset) {
  return ArrayToUINT32(std::span<const BYTE>(bytes).subspan(offset).first<4>());
}

// One raw exchange; the response (empty when the transmit failed).
Bytes Exchange(TpmBackend& tpm, const Bytes& command) {
  Bytes response(kTpmBlobSize);
  UINT32 length = 0;
  TSS_RESULT result = tpm.Transmit(command, response, &length, kPriorityNormal);
  EXPECT_EQ(result, TSS_SUCCESS) << ResultName(result);
  response.resize(result == TSS_SUCCESS ? length : 0);
  return response;
}

UINT32 ReturnCode(TpmBackend& tpm, const Bytes& command) {
  Bytes response = Exchange(tpm, command);
  return response.size() >= 10 ? U32(response, 6) : 0xFFFFFFFF;
}

// GetRandom(16) and PCRRead(15) on a started TPM.
void ExpectBasicCommandsWork(TpmBackend& tpm) {
  Bytes random = Exchange(tpm, kGetRandom16);
  ASSERT_EQ(random.size(), 30u);
  EXPECT_EQ(U32(random, 6), 0u);
  EXPECT_EQ(U32(random, 10), 16u);
  Bytes pcr = Exchange(tpm, kPcrRead15);
  ASSERT_EQ(pcr.size(), 30u);
  EXPECT_EQ(U32(pcr, 6), 0u);
  EXPECT_EQ(Bytes(pcr.begin() + 10, pcr.end()), Bytes(20, 0));  // PCR 15 after a reset
}

TEST(LibtpmsBackendTest, FirstStartManufacturesAndStateSurvivesReopen) {
  TempDir dir;
  std::unique_ptr<TpmBackend> tpm = MakeLibtpmsBackend(dir.path() + "/tpm");
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();

  // Only one embedded TPM per process.
  std::unique_ptr<TpmBackend> second = MakeLibtpmsBackend(dir.path() + "/other");
  EXPECT_EQ(second->Open(), kDriverAlreadyOpened);
  EXPECT_THAT(second->LastError(), HasSubstr("already open"));

  // Comes up not started, like a machine's TPM at power-on.
  EXPECT_EQ(ReturnCode(*tpm, kGetRandom16), TPM_INVALID_POSTINIT);
  EXPECT_EQ(ReturnCode(*tpm, kStartupClear), 0u);
  ExpectBasicCommandsWork(*tpm);
  Bytes pubek = Exchange(*tpm, kReadPubek);
  ASSERT_GE(pubek.size(), 10u);
  ASSERT_EQ(U32(pubek, 6), 0u) << "endorsement key missing";
  EXPECT_GT(pubek.size(), 256u);
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);
  EXPECT_EQ(tpm->Close(), kDriverAlreadyClosed);
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/tpm/00.permall"));

  // Reopened: the same endorsement key, no new manufacture.
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  EXPECT_EQ(ReturnCode(*tpm, kStartupClear), 0u);
  Bytes again = Exchange(*tpm, kReadPubek);
  EXPECT_EQ(Bytes(again.begin(), again.end() - 20), Bytes(pubek.begin(), pubek.end() - 20));
  EXPECT_EQ(tpm->Cancel(), TSS_SUCCESS);
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);

  // Once closed, another state directory may be opened.
  ASSERT_EQ(second->Open(), TSS_SUCCESS) << second->LastError();
  EXPECT_EQ(second->Close(), TSS_SUCCESS);
}

// A new TPM makes its endorsement key only for the first command that needs it; a service stopped
// before that makes it on a later start.
TEST(LibtpmsBackendTest, NewTpmMakesItsEndorsementKeyWhenFirstNeeded) {
  TempDir dir;
  const std::string pending = dir.path() + "/tpm/endorsement-key.pending";
  // TPM_GetCapability(TPM_CAP_PROPERTY, TPM_CAP_PROP_PCR) and (TPM_CAP_FLAG, permanent flags).
  const Bytes pcrCount = {0x00, 0xC1, 0, 0, 0, 22, 0, 0, 0, 0x65, 0,
                          0,    0,    5, 0, 0, 0,  4, 0, 0, 1,    1};
  const Bytes permanentFlags = {0x00, 0xC1, 0, 0, 0, 22, 0, 0, 0, 0x65, 0,
                                0,    0,    4, 0, 0, 0,  4, 0, 0, 1,    8};
  std::unique_ptr<TpmBackend> tpm = MakeLibtpmsBackend(dir.path() + "/tpm");
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  EXPECT_TRUE(std::filesystem::exists(pending));
  // The service's start-up commands, and a command refused before TPM_Startup, leave it pending.
  EXPECT_EQ(ReturnCode(*tpm, kReadPubek), TPM_INVALID_POSTINIT);
  EXPECT_EQ(ReturnCode(*tpm, kStartupClear), 0u);
  EXPECT_EQ(ReturnCode(*tpm, pcrCount), 0u);
  ExpectBasicCommandsWork(*tpm);
  EXPECT_TRUE(std::filesystem::exists(pending));
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);

  // Started again: reading the flags (which tell whether a key was made) makes the key first.
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  EXPECT_EQ(ReturnCode(*tpm, kStartupClear), 0u);
  EXPECT_TRUE(std::filesystem::exists(pending));
  EXPECT_EQ(ReturnCode(*tpm, permanentFlags), 0u);
  EXPECT_FALSE(std::filesystem::exists(pending));
  Bytes pubek = Exchange(*tpm, kReadPubek);
  ASSERT_GE(pubek.size(), 10u);
  ASSERT_EQ(U32(pubek, 6), 0u) << "endorsement key missing";
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);

  // Made once: the same key on the next start.
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  EXPECT_EQ(ReturnCode(*tpm, kStartupClear), 0u);
  Bytes again = Exchange(*tpm, kReadPubek);
  EXPECT_EQ(Bytes(again.begin(), again.end() - 20), Bytes(pubek.begin(), pubek.end() - 20));
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);
}

// GetRandom(16) through the request manager, which must already be started.
void ExpectGetRandomThroughReqMgr() {
  std::array<BYTE, kTpmBlobSize> blob{};
  std::copy(kGetRandom16.begin(), kGetRandom16.end(), blob.begin());
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  UINT32 paramSize = 0;
  EXPECT_EQ(UnloadBlob_Header(blob, &paramSize), TSS_SUCCESS);
  EXPECT_EQ(paramSize, 30u);
}

// Leaves the process-wide driver binding and request manager as it found them.
class DriverTest : public ::testing::Test {
 protected:
  void TearDown() override {
    static_cast<void>(req_mgr_final());
    driver_unbind();
    driver_configure("auto", ".");
  }
};

TEST_F(DriverTest, ReqMgrInitStartsTheEmbeddedTpm) {
  TempDir dir;
  driver_configure("libtpms:" + dir.path() + "/tpm", dir.path());
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS) << driver_last_error();
  ExpectGetRandomThroughReqMgr();
  EXPECT_EQ(req_mgr_final(), TSS_SUCCESS);
}

class SwtpmBackendTest : public DriverTest {
 protected:
  void SetUp() override {
    if (!testing::SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  }
};

TEST_F(SwtpmBackendTest, UnixSocketsCommandsAndCancel) {
  SwtpmProcess swtpm(/*startupClear=*/true);
  ASSERT_TRUE(swtpm.WaitReady());
  std::string error;
  std::unique_ptr<TpmBackend> tpm = CreateTpmBackend(swtpm.UnixConfig(), "/tmp", &error);
  ASSERT_NE(tpm, nullptr) << error;
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  ExpectBasicCommandsWork(*tpm);
  EXPECT_EQ(tpm->Cancel(), TSS_SUCCESS);
  ExpectBasicCommandsWork(*tpm);  // the data channel is unaffected by the control channel
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);
}

TEST_F(SwtpmBackendTest, TcpSocketsCommandsAndCancel) {
  int data = SwtpmProcess::FreePort();
  int ctrl = SwtpmProcess::FreePort();
  ASSERT_NE(data, ctrl);
  SwtpmProcess swtpm(/*startupClear=*/true, {data, ctrl});
  ASSERT_TRUE(swtpm.WaitReady());
  std::string error;
  std::unique_ptr<TpmBackend> tpm = CreateTpmBackend(
      "swtpm:tcp:127.0.0.1:" + std::to_string(data) + ":" + std::to_string(ctrl), "/tmp", &error);
  ASSERT_NE(tpm, nullptr) << error;
  ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  ExpectBasicCommandsWork(*tpm);
  EXPECT_EQ(tpm->Cancel(), TSS_SUCCESS);
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);
}

TEST_F(SwtpmBackendTest, TpmWaitingForStartupIsStartedByReqMgrInit) {
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  driver_configure(swtpm.UnixConfig(), "/tmp");
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS) << driver_last_error();
  std::array<BYTE, kTpmBlobSize> blob{};
  std::copy(kPcrRead15.begin(), kPcrRead15.end(), blob.begin());
  ASSERT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  UINT32 paramSize = 0;
  EXPECT_EQ(UnloadBlob_Header(blob, &paramSize), TSS_SUCCESS);  // not TPM_INVALID_POSTINIT
  EXPECT_EQ(req_mgr_final(), TSS_SUCCESS);
}

TEST_F(SwtpmBackendTest, DeadSwtpmGivesIoErrorNotAHang) {
  std::string error;
  std::unique_ptr<TpmBackend> tpm;
  {
    SwtpmProcess swtpm(/*startupClear=*/true);
    ASSERT_TRUE(swtpm.WaitReady());
    tpm = CreateTpmBackend(swtpm.UnixConfig(), "/tmp", &error);
    ASSERT_EQ(tpm->Open(), TSS_SUCCESS) << tpm->LastError();
  }
  Bytes response(kTpmBlobSize);
  UINT32 length = 0;
  EXPECT_EQ(tpm->Transmit(kGetRandom16, response, &length, kPriorityNormal), kDriverIoError);
  EXPECT_EQ(tpm->Cancel(), kDriverIoError);
  EXPECT_EQ(tpm->Close(), TSS_SUCCESS);
}

TEST_F(SwtpmBackendTest, TddlLibraryForwardingToSwtpm) {
  SwtpmProcess swtpm(/*startupClear=*/false);
  ASSERT_TRUE(swtpm.WaitReady());
  ::setenv("KESTTCS_TDDL_SWTPM_DATA", swtpm.data_path().c_str(), 1);
  ::setenv("KESTTCS_TDDL_SWTPM_CTRL", swtpm.ctrl_path().c_str(), 1);
  driver_configure(std::string("tddl:") + KESTTCS_TDDL_SWTPM, "/tmp");
  ASSERT_EQ(req_mgr_init(), TSS_SUCCESS) << driver_last_error();
  ExpectGetRandomThroughReqMgr();
  EXPECT_EQ(req_mgr_cancel(), TSS_SUCCESS);
  EXPECT_EQ(req_mgr_final(), TSS_SUCCESS);
}

// The marker byte of the set that answered a transmit, or the transmit's failure.
struct Bound {
  int bind;
  TSS_RESULT open;
  TSS_RESULT transmit;
  char marker;
};

Bound BindAndTransmit(const char* library) {
  std::unique_ptr<TpmBackend> tpm = MakeTddlBackend(library);
  Bound bound{tpm->Bind(), 0, 0, 0};
  bound.open = tpm->Open();
  Bytes response(kTpmBlobSize);
  UINT32 length = 0;
  bound.transmit = tpm->Transmit(kGetRandom16, response, &length, kPriorityNormal);
  if (bound.transmit == TSS_SUCCESS && length == 11) bound.marker = static_cast<char>(response[10]);
  return bound;
}

TEST_F(DriverTest, TddlNameSetsAndRequiredEntries) {
  Bound upper = BindAndTransmit(KESTTCS_TDDL_UPPER);
  EXPECT_EQ(upper.bind, 0);
  EXPECT_EQ(upper.open, TSS_SUCCESS);
  EXPECT_EQ(upper.marker, 'U');

  Bound mixed = BindAndTransmit(KESTTCS_TDDL_MIXED);
  EXPECT_EQ(mixed.bind, 0);
  EXPECT_EQ(mixed.marker, 'm');

  Bound both = BindAndTransmit(KESTTCS_TDDL_BOTH);  // the TDDL_* set wins
  EXPECT_EQ(both.bind, 0);
  EXPECT_EQ(both.marker, 'U');

  Bound noTransmit = BindAndTransmit(KESTTCS_TDDL_NO_TRANSMIT);  // binds all the same
  EXPECT_EQ(noTransmit.bind, 0);
  EXPECT_EQ(noTransmit.open, TSS_SUCCESS);
  EXPECT_EQ(noTransmit.transmit, 0xE0281087u);

  Bound noCancel = BindAndTransmit(KESTTCS_TDDL_NO_CANCEL);
  EXPECT_EQ(noCancel.bind, 1);
  EXPECT_EQ(noCancel.open, 1u);
  EXPECT_EQ(noCancel.transmit, 0xE0281087u);

  Bound missing = BindAndTransmit("/nonexistent/libtddl.so");
  EXPECT_EQ(missing.bind, 1);
  EXPECT_EQ(missing.transmit, 0xE0281087u);

  // Through the driver binding: a library that cannot bind leaves every operation failing.
  driver_configure("tddl:/nonexistent/libtddl.so", "/tmp");
  EXPECT_EQ(bind_driver(), 1);
  EXPECT_THAT(driver_last_error(), HasSubstr("/nonexistent/libtddl.so"));
  EXPECT_EQ(req_mgr_init(), 1u);
}

}  // namespace
}  // namespace kesttcs
