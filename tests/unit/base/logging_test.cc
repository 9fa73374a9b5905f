#include "base/logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <kesttcs/tcs_results.h>

namespace kesttcs {
namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::tm At(int year, int month, int day, int hour, int minute, int second) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return t;
}

class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetLogging();
    SetTraceSink([this](std::string_view line) { lines_.emplace_back(line); });
    SetEventSink([this](const ServiceEvent& event) { events_.push_back(event); });
    SetLocalTimeSource([this] { return now_; });
    char pattern[] = "/tmp/kesttcs_logging_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    SetTrafficLogDirectory(dir_.string());
  }
  void TearDown() override {
    ResetLogging();
    fs::remove_all(dir_);
  }

  std::vector<std::string> lines_;
  std::vector<ServiceEvent> events_;
  std::tm now_ = At(2007, 5, 14, 9, 5, 7);
  fs::path dir_;
};

TEST_F(LoggingTest, TraceLinesAreExactAndCutToTheBuffer) {
  SetNeedLog(true);
  const TSS_RESULT result = TCS_E_INVALID_CONTEXT;
  TcsTrace("TCS service Starting ...", nullptr);
  TcsTrace("kesttcs_shutdown:auth_mgr_final fail", &result);
  TcsTracef("RecvApiCall:Tcsip_Seal start:hContext=0x%.8X", 0x1234abcdu);
  TcsTrace(nullptr, &result);
  EXPECT_THAT(lines_, ::testing::ElementsAre(
                          "TCS:TCS service Starting ...\n",
                          "TCS:kesttcs_shutdown:auth_mgr_final fail result = 0xe02820c1\n",
                          "TCS:RecvApiCall:Tcsip_Seal start:hContext=0x1234ABCD\n"));

  // Over-long texts lose their end, never the result part or the line end.
  lines_.clear();
  const std::string long_text(400, 'x');
  TcsTrace(long_text.c_str(), nullptr);
  TcsTrace(long_text.c_str(), &result);
  TcsTracef("%s", long_text.c_str());
  ASSERT_EQ(lines_.size(), 3u);
  EXPECT_EQ(lines_[0], "TCS:" + std::string(250, 'x') + "\n");
  EXPECT_EQ(lines_[1], "TCS:" + std::string(230, 'x') + " result = 0xe02820c1\n");
  EXPECT_EQ(lines_[2], lines_[0]);
  for (const std::string& line : lines_) EXPECT_EQ(line.size(), 255u);
}

TEST_F(LoggingTest, NothingIsWrittenWhileLoggingIsOff) {
  const TSS_RESULT result = 0;
  TcsTrace("hidden", &result);
  TcsTracef("hidden %d", 1);
  const BYTE command[] = {0x00, 0xC1};
  LogTransDataWithTpm(sizeof(command), command, kTrafficSend);
  LogTransDataWithTpm(0, reinterpret_cast<const BYTE*>("text"), kTrafficText);
  EXPECT_TRUE(lines_.empty());
  EXPECT_TRUE(fs::is_empty(dir_));
  EXPECT_TRUE(events_.empty());

  // Texts the host writes directly bypass the switch.
  WriteDebugLine("Could not report the event.");
  EXPECT_THAT(lines_, ::testing::ElementsAre("Could not report the event.\n"));
}

TEST_F(LoggingTest, TrafficRecordsMatchTheFixture) {
  SetNeedLog(true);
  std::vector<BYTE> sixteen(16);
  for (int i = 0; i < 16; ++i) sixteen[i] = BYTE(i);
  const BYTE seventeen[] = {0x00, 0xC4, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00,
                            0x00, 0xAB, 0xCD, 0xEF, 0x7F, 0x80, 0xFF, 0x10};
  LogTransDataWithTpm(16, sixteen.data(), kTrafficSend);
  now_.tm_sec = 8;
  LogTransDataWithTpm(sizeof(seventeen), seventeen, kTrafficReceive);
  now_.tm_sec = 9;
  LogTransDataWithTpm(0, sixteen.data(), kTrafficSend);
  LogTransDataWithTpm(4, nullptr, kTrafficReceive);  // no bytes to dump: header only
  LogTransDataWithTpm(999, reinterpret_cast<const BYTE*>("Tddli_TransmitData:0xE0281001"),
                      kTrafficText);

  const fs::path file = dir_ / "LogTransDataWithTpm2007-05-14-09.txt";
  ASSERT_EQ(TrafficLogFileName(), file.string());
  EXPECT_EQ(ReadFile(file),
            ReadFile(fs::path(KESTTCS_SOURCE_DIR) / "tests/unit/base/testdata/traffic_log.txt"));
  EXPECT_TRUE(events_.empty());
}

TEST_F(LoggingTest, MissingLogDirectoryReportsOncePerFileName) {
  SetNeedLog(true);
  const fs::path missing = dir_ / "log";
  SetTrafficLogDirectory(missing.string());
  const BYTE byte = 0x01;
  LogTransDataWithTpm(1, &byte, kTrafficSend);
  LogTransDataWithTpm(1, &byte, kTrafficReceive);
  now_.tm_hour = 10;
  LogTransDataWithTpm(1, &byte, kTrafficSend);
  LogTransDataWithTpm(0, reinterpret_cast<const BYTE*>("x"), kTrafficText);

  ASSERT_EQ(events_.size(), 2u);
  const char* hours[] = {"09", "10"};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(events_[i].type, kEventError);
    EXPECT_EQ(events_[i].eventCode, TCS_E_FAIL);
    EXPECT_THAT(events_[i].strings,
                ::testing::ElementsAre(
                    "Open File failed",
                    (missing / ("LogTransDataWithTpm2007-05-14-" + std::string(hours[i]) + ".txt"))
                        .string()));
  }
  EXPECT_FALSE(fs::exists(missing));
}

TEST_F(LoggingTest, TimeStrings) {
  now_ = At(2007, 5, 4, 9, 5, 7);
  char buffer[32];
  FormatDateString(buffer, sizeof(buffer), '-');
  EXPECT_STREQ(buffer, "2007-05-04");
  FormatTimeString(buffer, sizeof(buffer), ':');
  EXPECT_STREQ(buffer, "09:05:07");
  FormatCompactStamp(buffer, sizeof(buffer));
  EXPECT_STREQ(buffer, "20070504090507");
  FormatHourStamp(buffer, sizeof(buffer));
  EXPECT_STREQ(buffer, "2007-05-04-09");
  FormatMinuteStamp(buffer, sizeof(buffer));
  EXPECT_STREQ(buffer, "2007-05-04 09 05");
  FormatHourStamp(buffer, 5);
  EXPECT_STREQ(buffer, "2007");

  FormatDateString(nullptr, 32, '-');
  FormatTimeString(nullptr, 32, ':');
  FormatCompactStamp(nullptr, 32);
  FormatHourStamp(nullptr, 32);
  FormatMinuteStamp(nullptr, 32);
}

TEST_F(LoggingTest, EventTypeComesFromTheTopTwoBits) {
  EXPECT_EQ(EventTypeFromCode(0xE0282002), kEventError);
  EXPECT_EQ(EventTypeFromCode(TpmResult(TPM_BAD_MODE)), kEventError);
  EXPECT_EQ(EventTypeFromCode(0x80000001), kEventWarning);
  EXPECT_EQ(EventTypeFromCode(0x40000000), kEventInformation);
  EXPECT_EQ(EventTypeFromCode(0x3FFFFFFF), kEventSuccess);

  const char* strings[] = {"first", nullptr, "third"};
  ReportServiceEvent(0x80001234, 7, 3, strings);
  ReportServiceEvent(0xE0282005, 0, 0, nullptr);
  ASSERT_EQ(events_.size(), 2u);
  EXPECT_EQ(events_[0].type, kEventWarning);
  EXPECT_EQ(events_[0].category, 7);
  EXPECT_EQ(events_[0].eventCode, 0x80001234u);
  EXPECT_THAT(events_[0].strings, ::testing::ElementsAre("first", "", "third"));
  EXPECT_EQ(events_[1].type, kEventError);
  EXPECT_TRUE(events_[1].strings.empty());
}

}  // namespace
}  // namespace kesttcs
