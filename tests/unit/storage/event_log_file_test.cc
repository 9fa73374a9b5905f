// The events file: its bytes, pinned; a record cut short; and attaching it to the log of a core
// brought up by the real start-up, with a TPM whose PCRs agree with the file and one whose do not.
#include "storage/event_log_file.h"

#include <openssl/sha.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "temp_dir.h"

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<BYTE>;

LoggedEvent Event(UINT32 pcr, BYTE tag, Bytes data = {0xAA, 0xBB}) {
  LoggedEvent e;
  e.versionInfo = {1, 2, 3, 4};
  e.ulPcrIndex = pcr;
  e.eventType = 5;
  e.ulPcrValueLength = 20;
  e.pcrValue = Bytes(20, tag);
  e.ulEventLength = UINT32(data.size());
  e.event = std::move(data);
  return e;
}

// What a TPM holds after extending the events' digests of one PCR into zeros (OpenSSL's SHA-1).
TPM_PCRVALUE Replayed(const std::vector<LoggedEvent>& events) {
  TPM_PCRVALUE pcr{};
  for (const LoggedEvent& e : events) {
    BYTE both[40];
    std::memcpy(both, pcr.digest, 20);
    std::memcpy(both + 20, e.pcrValue.data(), 20);
    ::SHA1(both, sizeof(both), pcr.digest);
  }
  return pcr;
}

Bytes FileBytes(const std::vector<LoggedEvent>& events) {
  Bytes bytes = EventsFileHeader();
  for (const LoggedEvent& e : events) {
    const Bytes record = EncodeEventRecord(e);
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  return bytes;
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

Bytes ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

TEST(EventsFileTest, BytesArePinnedAndACutRecordIsDropped) {
  const Bytes record = EncodeEventRecord(Event(2, 0x11, {0xAA}));
  Bytes expected = {41, 0, 0, 0,   // length of what follows
                    1,  2, 3, 4,   // versionInfo
                    2,  0, 0, 0,   // PCR index
                    5,  0, 0, 0,   // event type
                    20, 0, 0, 0};  // value length, then the value
  expected.insert(expected.end(), 20, 0x11);
  expected.insert(expected.end(), {1, 0, 0, 0, 0xAA});  // event length, event data
  EXPECT_EQ(record, expected);
  EXPECT_EQ(EventsFileHeader(), (Bytes{'K', 'T', 'E', 'V', 1, 0, 0, 0}));

  Bytes file = FileBytes({Event(0, 1), Event(1, 2)});
  const size_t whole = file.size();
  const Bytes third = EncodeEventRecord(Event(0, 3));
  file.insert(file.end(), third.begin(), third.end() - 1);
  const std::optional<ParsedEventsFile> parsed = ParseEventsFile(file);
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->events.size(), 2u);
  EXPECT_EQ(parsed->wholeLength, whole);
  EXPECT_EQ(parsed->events[1].pcrValue, Bytes(20, 2));
  EXPECT_EQ(parsed->events[1].event, (Bytes{0xAA, 0xBB}));

  // Another file, or a record whose lengths disagree, is not an events file.
  EXPECT_FALSE(ParseEventsFile(Bytes{'K', 'T', 'E', 'V', 2, 0, 0, 0}));
  Bytes bad = FileBytes({Event(0, 1)});
  bad[8] += 1;  // the record claims one byte more than its fields take, and has it
  bad.push_back(0);
  EXPECT_FALSE(ParseEventsFile(bad));
}

TEST(EventsFileTest, ReplayComparesEachLoggedPcrWithTheTpm) {
  const std::vector<LoggedEvent> pcr4 = {Event(4, 1), Event(4, 2)};
  const std::vector<LoggedEvent> pcr9 = {Event(9, 3)};
  std::map<UINT32, TPM_PCRVALUE> tpm = {{4, Replayed(pcr4)}, {9, Replayed(pcr9)}};
  std::vector<UINT32> read;
  const PcrReader reader = [&](UINT32 pcr, TPM_PCRVALUE* value) {
    read.push_back(pcr);
    *value = tpm[pcr];
    return TSS_SUCCESS;
  };
  const std::vector<LoggedEvent> events = {pcr4[0], pcr9[0], pcr4[1]};
  EXPECT_EQ(FirstMismatchingPcr(events, reader), std::nullopt);
  EXPECT_EQ(read, (std::vector<UINT32>{4, 9}));  // PCRs without events are not read

  tpm[9].digest[0] ^= 1;
  EXPECT_EQ(FirstMismatchingPcr(events, reader), 9u);
  LoggedEvent shortDigest = Event(4, 1);
  shortDigest.pcrValue.resize(19);
  EXPECT_EQ(FirstMismatchingPcr(std::vector<LoggedEvent>{shortDigest}, reader), 4u);
  EXPECT_EQ(FirstMismatchingPcr(pcr4, [](UINT32, TPM_PCRVALUE*) { return TCS_E_FAIL; }), 4u);
}

class EventsFileAttachTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    SetEventSink([this](const ServiceEvent& e) { reported_.push_back(e); });
  }
  void TearDown() override { SetEventSink({}); }

  // The log's events, in order, as their digests' first bytes.
  Bytes LoggedTags() {
    UINT32 count = 0;
    TSS_PCR_EVENT* events = nullptr;
    EXPECT_EQ(Tcsi_GetPcrEventLog_Internal(kInternalContextHandle, &count, &events), TSS_SUCCESS);
    Bytes tags;
    for (UINT32 i = 0; i < count; ++i) tags.push_back(events[i].rgbPcrValue[0]);
    return tags;
  }

  TestCore core_;
  TempDir data_;
  fs::path file_ = fs::path(data_.path()) / "events.log";
  std::vector<ServiceEvent> reported_;
};

TEST_F(EventsFileAttachTest, AMatchingFileIsReplayedAndNewEventsFollowIt) {
  const std::vector<LoggedEvent> kept = {Event(0, 1), Event(0, 2)};
  Bytes bytes = FileBytes(kept);
  const size_t whole = bytes.size();
  bytes.insert(bytes.end(), {0x30, 0, 0, 0, 1});  // a record cut short by a crash
  WriteFile(file_, bytes);
  const TPM_PCRVALUE pcr0 = Replayed(kept);
  ASSERT_EQ(event_log_attach_file(data_.path(),
                                  [&](UINT32, TPM_PCRVALUE* value) {
                                    *value = pcr0;
                                    return TSS_SUCCESS;
                                  }),
            TSS_SUCCESS);
  EXPECT_EQ(LoggedTags(), (Bytes{1, 2}));
  EXPECT_TRUE(reported_.empty());

  LoggedEvent third = Event(5, 3);
  TSS_PCR_EVENT c{third.versionInfo, 5, 5, 20, third.pcrValue.data(), 2, third.event.data()};
  UINT32 number = 0;
  ASSERT_EQ(Tcsi_LogPcrEvent_Internal(kInternalContextHandle, c, &number), TSS_SUCCESS);
  const Bytes after = ReadFile(file_);
  Bytes expected(bytes.begin(), bytes.begin() + std::ptrdiff_t(whole));
  const Bytes record = EncodeEventRecord(third);
  expected.insert(expected.end(), record.begin(), record.end());
  EXPECT_EQ(after, expected);
  EXPECT_FALSE(fs::exists(fs::path(data_.path()) / "events.log.bak"));
}

TEST_F(EventsFileAttachTest, AFileTheTpmNoLongerMatchesIsSetAside) {
  const Bytes old = FileBytes({Event(0, 1)});
  WriteFile(file_, old);
  ASSERT_EQ(event_log_attach_file(data_.path(),
                                  [](UINT32, TPM_PCRVALUE* value) {
                                    *value = TPM_PCRVALUE{};  // reset since
                                    return TSS_SUCCESS;
                                  }),
            TSS_SUCCESS);
  EXPECT_TRUE(LoggedTags().empty());
  ASSERT_EQ(reported_.size(), 1u);
  EXPECT_EQ(reported_[0].eventCode, kEventEventsFileSetAside);
  EXPECT_EQ(reported_[0].type, kEventWarning);
  ASSERT_EQ(reported_[0].strings.size(), 1u);
  EXPECT_NE(
      reported_[0].strings[0].find("events.log.bak: replaying PCR 0 does not give the TPM's value"),
      std::string::npos);
  EXPECT_EQ(ReadFile(fs::path(data_.path()) / "events.log.bak"), old);
  EXPECT_EQ(ReadFile(file_), EventsFileHeader());
}

}  // namespace
}  // namespace kesttcs::testing
