// The PCR event log through the real kesttcsd: the operations and their results over RPC (both
// forms of Tcsi_GetPcrEvent), many clients logging at once and the whole log in one answer,
// kesttcs-cli events, and the events file across restarts with and without a TPM reset.
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "kesttcsd_process.h"
#include "swtpm_process.h"

namespace kesttcs::testing {
namespace {

using ::testing::HasSubstr;
using Bytes = std::vector<BYTE>;

constexpr UINT32 kPcrCount = 24;  // the embedded TPM's and swtpm's

// An event for `pcr` whose digest is 20 bytes of `tag` and whose data is `data`.
struct TestEvent {
  TestEvent(UINT32 pcr, BYTE tag, Bytes eventData = {1, 2, 3})
      : digest(20, tag), data(std::move(eventData)) {
    c.versionInfo = {1, 2, 0, 0};
    c.ulPcrIndex = pcr;
    c.eventType = 13;
    c.ulPcrValueLength = 20;
    c.rgbPcrValue = digest.data();
    c.ulEventLength = UINT32(data.size());
    c.rgbEvent = data.data();
  }
  Bytes digest;
  Bytes data;
  TSS_PCR_EVENT c{};
};

// The events of a whole-log answer as (PCR, first digest byte, first four data bytes).
struct Seen {
  UINT32 pcr;
  BYTE tag;
  UINT32 serial;
};

std::vector<Seen> WholeLog(TCS_CONTEXT_HANDLE hContext) {
  UINT32 count = 0;
  TSS_PCR_EVENT* events = nullptr;
  EXPECT_EQ(Tcsi_GetPcrEventLog(hContext, &count, &events), TSS_SUCCESS);
  std::vector<Seen> seen;
  for (UINT32 i = 0; i < count; ++i) {
    UINT32 serial = 0;
    if (events[i].ulEventLength >= 4) std::memcpy(&serial, events[i].rgbEvent, 4);
    seen.push_back({events[i].ulPcrIndex, events[i].rgbPcrValue[0], serial});
  }
  Tcs_FreeBuffer(events);
  return seen;
}

class EventLogServiceTest : public ::testing::Test {
 protected:
  fs::path Home() const { return fs::path(dir_.path()) / "home"; }

  // The daemon on `backend`, with the events file switched on when `persist`.
  bool StartService(const std::string& backend = "libtpms", bool persist = false) {
    service_ = std::make_unique<KesttcsdProcess>(Home(), false, backend);
    if (persist) std::ofstream(Home() / "tcs_cfg.ini", std::ios::app) << "[EVENTLOG]\npersist=1\n";
    return service_->Start() && Tcsi_OpenContext(&hContext_) == TSS_SUCCESS;
  }
  void StopService() {
    EXPECT_EQ(service_->Stop(), 0);
    service_.reset();
  }

  // kesttcs-cli with `args`: its exit status and what it printed.
  std::pair<int, std::string> Cli(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {kKesttcsCli, "--endpoint", (Home() / "KestTCS").string()};
    argv.insert(argv.end(), args.begin(), args.end());
    const fs::path log = fs::path(dir_.path()) / "cli.txt";
    fs::remove(log);
    const int status = WaitForExit(Spawn(argv, {}, log));
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    return {status, text.str()};
  }

  TempDir dir_;
  std::unique_ptr<KesttcsdProcess> service_;
  TCS_CONTEXT_HANDLE hContext_ = 0;
};

TEST_F(EventLogServiceTest, OperationsAnswerOverRpcInBothForms) {
  ASSERT_TRUE(StartService());

  // An empty log: count 0, no array, success.
  UINT32 count = 7;
  TSS_PCR_EVENT* events = nullptr;
  EXPECT_EQ(Tcsi_GetPcrEventLog(hContext_, &count, &events), TSS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(events, nullptr);

  UINT32 number = 0;
  EXPECT_EQ(Tcsi_LogPcrEvent(hContext_, TestEvent(kPcrCount, 1).c, &number), TCS_E_BAD_PARAMETER);
  for (UINT32 expected = 1; expected <= 5; ++expected) {
    EXPECT_EQ(Tcsi_LogPcrEvent(hContext_, TestEvent(16, BYTE(expected)).c, &number), TSS_SUCCESS);
    EXPECT_EQ(number, expected);
  }

  // The count form: no event pointer crosses, the number comes back.
  number = 0;
  EXPECT_EQ(Tcsi_GetPcrEvent(hContext_, 16, &number, nullptr), TSS_SUCCESS);
  EXPECT_EQ(number, 5u);
  number = 0;
  EXPECT_EQ(Tcsi_GetPcrEvent(hContext_, 3, &number, nullptr), TSS_SUCCESS);
  EXPECT_EQ(number, 0u);
  // The event form: a copy of the event at a position counted from 0.
  number = 4;
  TSS_PCR_EVENT* one = nullptr;
  ASSERT_EQ(Tcsi_GetPcrEvent(hContext_, 16, &number, &one), TSS_SUCCESS);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(one->ulPcrIndex, 16u);
  EXPECT_EQ(one->eventType, 13u);
  EXPECT_EQ(Bytes(one->rgbPcrValue, one->rgbPcrValue + one->ulPcrValueLength), Bytes(20, 5));
  EXPECT_EQ(Bytes(one->rgbEvent, one->rgbEvent + one->ulEventLength), (Bytes{1, 2, 3}));
  Tcs_FreeBuffer(one);
  number = 5;
  one = nullptr;
  EXPECT_EQ(Tcsi_GetPcrEvent(hContext_, 16, &number, &one), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(one, nullptr);
  EXPECT_EQ(Tcsi_GetPcrEvent(hContext_, kPcrCount, &number, nullptr), TCS_E_BAD_PARAMETER);

  // First 1 and count 2 is the event at position 1 alone.
  count = 2;
  ASSERT_EQ(Tcsi_GetPcrEventsByPcr(hContext_, 16, 1, &count, &events), TSS_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(events[0].rgbPcrValue[0], 2);
  Tcs_FreeBuffer(events);
  EXPECT_EQ(Tcsi_GetPcrEvent(0x12345678, 16, &number, nullptr), TCS_E_INVALID_CONTEXT);
}

TEST_F(EventLogServiceTest, ConcurrentClientsKeepTheirOrderAndTheWholeLogIsOneAnswer) {
  ASSERT_TRUE(StartService());
  constexpr UINT32 kClients = 8;
  constexpr UINT32 kEventsPerClient = 12500;  // 100 000 in all
  const std::string socket = service_->socket();
  std::vector<std::thread> clients;
  for (UINT32 c = 0; c < kClients; ++c) {
    clients.emplace_back([c, &socket] {
      ASSERT_EQ(Tcs_ConnectThread(socket.c_str()), TSS_SUCCESS);
      TCS_CONTEXT_HANDLE hContext = 0;
      ASSERT_EQ(Tcsi_OpenContext(&hContext), TSS_SUCCESS);
      for (UINT32 i = 0; i < kEventsPerClient; ++i) {
        Bytes serial(4);
        std::memcpy(serial.data(), &i, 4);
        UINT32 number = 0;
        // Two clients share each PCR.
        ASSERT_EQ(Tcsi_LogPcrEvent(hContext, TestEvent(c % 4, BYTE(c), serial).c, &number),
                  TSS_SUCCESS);
      }
      EXPECT_EQ(Tcsi_CloseContext(hContext), TSS_SUCCESS);
      Tcs_DisconnectThread();
    });
  }
  for (std::thread& t : clients) t.join();

  const auto start = std::chrono::steady_clock::now();
  const std::vector<Seen> seen = WholeLog(hContext_);
  const auto took = std::chrono::steady_clock::now() - start;
  std::printf("Tcsi_GetPcrEventLog of %zu events: %.0f ms\n", seen.size(),
              std::chrono::duration<double, std::milli>(took).count());
  ASSERT_EQ(seen.size(), kClients * kEventsPerClient);
  std::vector<UINT32> next(kClients, 0);
  UINT32 lastPcr = 0;
  for (const Seen& s : seen) {
    ASSERT_LT(s.tag, kClients);
    EXPECT_EQ(s.pcr, s.tag % 4u);
    EXPECT_GE(s.pcr, lastPcr);  // PCR 0's list first
    lastPcr = s.pcr;
    EXPECT_EQ(s.serial, next[s.tag]++) << "client " << int(s.tag);
  }
  for (UINT32 c = 0; c < kClients; ++c) EXPECT_EQ(next[c], kEventsPerClient);
}

TEST_F(EventLogServiceTest, CliLogsExtendsAndReplaysTheLog) {
  ASSERT_TRUE(StartService());
  const fs::path data = fs::path(dir_.path()) / "measured.bin";
  std::ofstream(data, std::ios::binary) << "kernel image";
  for (int i = 0; i < 2; ++i) {
    const auto [status, text] =
        Cli({"events", "log", "--pcr", "10", "--type", "13", "--data", data.string()});
    EXPECT_EQ(status, 0) << text;
    EXPECT_THAT(text, HasSubstr("event " + std::to_string(i + 1) + " logged"));
  }
  // An event logged without its extend makes PCR 11's log disagree with the TPM.
  UINT32 number = 0;
  ASSERT_EQ(Tcsi_LogPcrEvent(hContext_, TestEvent(11, 0x77).c, &number), TSS_SUCCESS);

  const auto [status, text] = Cli({"--json", "events"});
  ASSERT_EQ(status, 0) << text;
  const nlohmann::json answer = nlohmann::json::parse(text);
  ASSERT_EQ(answer["events"].size(), 3u);
  EXPECT_EQ(answer["events"][0]["pcr"], 10);
  EXPECT_EQ(answer["events"][0]["data"], "6b65726e656c20696d616765");  // "kernel image"
  EXPECT_EQ(answer["events"][1]["number"], 1);
  ASSERT_EQ(answer["pcrs"].size(), 2u);
  EXPECT_EQ(answer["pcrs"][0]["index"], 10);
  EXPECT_EQ(answer["pcrs"][0]["matches"], true);
  EXPECT_EQ(answer["pcrs"][1]["index"], 11);
  EXPECT_EQ(answer["pcrs"][1]["matches"], false);

  const auto [oneStatus, oneText] = Cli({"events", "--pcr", "11"});
  EXPECT_EQ(oneStatus, 0);
  EXPECT_THAT(oneText, HasSubstr("PCR 11: 1 events, replay gives "));
  EXPECT_EQ(Cli({"events", "--pcr", "x"}).first, 2);
  EXPECT_EQ(Cli({"events", "log", "--pcr", "24", "--type", "1", "--data", data.string()}).first, 1);
}

TEST_F(EventLogServiceTest, TheEventsFileOutlivesARestartButNotATpmReset) {
  if (!SwtpmInstalled()) GTEST_SKIP() << "swtpm is not installed";
  auto swtpm = std::make_unique<SwtpmProcess>(true);
  ASSERT_TRUE(swtpm->WaitReady());
  ASSERT_TRUE(StartService(swtpm->UnixConfig(), true));
  const fs::path data = fs::path(dir_.path()) / "measured.bin";
  std::ofstream(data, std::ios::binary) << "config";
  for (const char* pcr : {"12", "12", "13"}) {
    const auto [status, text] =
        Cli({"events", "log", "--pcr", pcr, "--type", "4", "--data", data.string()});
    ASSERT_EQ(status, 0) << text;
  }
  StopService();

  // The same TPM, still holding the extends: the log comes back.
  ASSERT_TRUE(StartService(swtpm->UnixConfig(), true));
  std::vector<Seen> seen = WholeLog(hContext_);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[2].pcr, 13u);
  UINT32 number = 0;
  EXPECT_EQ(Tcsi_GetPcrEvent(hContext_, 12, &number, nullptr), TSS_SUCCESS);
  EXPECT_EQ(number, 2u);
  StopService();

  // A TPM that was reset since: the file is set aside and the log starts empty.
  swtpm = std::make_unique<SwtpmProcess>(true);
  ASSERT_TRUE(swtpm->WaitReady());
  ASSERT_TRUE(StartService(swtpm->UnixConfig(), true));
  EXPECT_TRUE(WholeLog(hContext_).empty());
  EXPECT_TRUE(fs::exists(Home() / "data" / "events.log.bak"));
  StopService();
}

}  // namespace
}  // namespace kesttcs::testing
