// The audit log's records byte for byte against a hand-written fixture, rotation to a stamped
// name, the audited list's rules, and what a missing audit directory does.
#include "storage/audit_log.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "storage/audit_list.h"
#include "temp_dir.h"

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<BYTE>;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class AuditLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetNeedLog(true);
    SetTraceSink([this](std::string_view line) { traces_.emplace_back(line); });
    // 2007-05-14 09:05:07
    SetLocalTimeSource([] {
      std::tm t{};
      t.tm_year = 107;
      t.tm_mon = 4;
      t.tm_mday = 14;
      t.tm_hour = 9;
      t.tm_min = 5;
      t.tm_sec = 7;
      return t;
    });
    audit_log_init(dir_.path());
  }
  void TearDown() override {
    audit_log_final();
    ResetLogging();
  }
  std::string LogPath() const { return dir_.path() + "/Audit.log"; }

  TempDir dir_;
  std::vector<std::string> traces_;
};

TEST_F(AuditLogTest, EveryRecordKindIsWrittenAsTheFixtureShows) {
  const std::string comment = "service started";
  auditLog_write(kAuditComment, UINT32(comment.size()),
                 reinterpret_cast<const BYTE*>(comment.data()), false);
  // A 17-byte command dumps as a line of 16 and a line of 1.
  const Bytes command = {0x00, 0xC1, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00, 0x00,
                         0x46, 0x00, 0x00, 0x00, 0x10, 0xAA, 0xBB, 0xCC};
  auditLog_write(kAuditData, UINT32(command.size()), command.data(), true);
  const Bytes response = {0x00, 0xC4, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00};
  auditLog_write(kAuditData, UINT32(response.size()), response.data(), false);
  const std::string digestText = "0123456789ABCDEF0123456789ABCDEF01234567";
  auditLog_write(kAuditDigest, 40, reinterpret_cast<const BYTE*>(digestText.data()), false);
  Bytes signedDigest(21);
  for (size_t i = 0; i < signedDigest.size(); ++i) signedDigest[i] = BYTE(i);
  auditLog_write(kAuditDigestSigned, 21, signedDigest.data(), false);
  auditLog_write(4, 17, command.data(), true);  // no such kind: nothing

  const std::string expected =
      ReadFile(std::string(KESTTCS_SOURCE_DIR) + "/tests/unit/storage/testdata/audit_records.log");
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(ReadFile(LogPath()), expected);
  // The comment header's last two bytes are the full-width colon of GB2312.
  EXPECT_EQ(ReadFile(LogPath()).substr(0, 14), std::string("//-- Comment\xA3\xBA"));
  EXPECT_THAT(traces_, IsEmpty());
}

TEST_F(AuditLogTest, EdgesOfTheDumpAndRotation) {
  // No bytes: the header and the closing line end only; a null pointer counts as no bytes.
  auditLog_write(kAuditData, 5, nullptr, true);
  // Exactly 16 bytes: one line.
  const Bytes sixteen(16, 0xAB);
  auditLog_write(kAuditDigestSigned, 16, sixteen.data(), false);
  std::string line;
  for (int i = 0; i < 16; ++i) line += "AB ";
  EXPECT_EQ(ReadFile(LogPath()),
            "//--Send Data To TPM.Time:20070514090507\n\n//-- Audit Digest "
            "Signed\n" +
                line + "\n\n");

  auditLog_rotate();
  EXPECT_FALSE(fs::exists(LogPath()));
  EXPECT_TRUE(fs::exists(dir_.path() + "/Audit20070514090507.log"));
  // Nothing to rotate: nothing happens.
  auditLog_rotate();
  EXPECT_TRUE(fs::exists(dir_.path() + "/Audit20070514090507.log"));
  // The next record starts a new file.
  auditLog_write(kAuditDigestSigned, 1, sixteen.data(), false);
  EXPECT_EQ(ReadFile(LogPath()), "//-- Audit Digest Signed\nAB \n\n");
}

TEST_F(AuditLogTest, TheAuditedListKeepsEachOrdinalOnceInInsertionOrder) {
  EXPECT_THAT(audit_ordinals(), IsEmpty());  // empty after every start
  EXPECT_EQ(audit_add(0x46), TSS_SUCCESS);
  EXPECT_EQ(audit_add(0x14), TSS_SUCCESS);
  EXPECT_EQ(audit_add(0x46), TSS_SUCCESS);
  EXPECT_THAT(audit_ordinals(), ElementsAre(0x46u, 0x14u));
  EXPECT_TRUE(audit_isAudited(0x46));
  EXPECT_FALSE(audit_isAudited(0x15));
  audit_remove(0x46);
  audit_remove(0x99);  // absent: nothing
  EXPECT_THAT(audit_ordinals(), ElementsAre(0x14u));
  EXPECT_FALSE(audit_isAudited(0x46));
  audit_clear();
  EXPECT_THAT(audit_ordinals(), IsEmpty());
  // Stopping empties the list too.
  ASSERT_EQ(audit_add(0x46), TSS_SUCCESS);
  audit_log_final();
  EXPECT_FALSE(audit_isAudited(0x46));
  audit_log_init(dir_.path());
  EXPECT_THAT(audit_ordinals(), IsEmpty());
}

TEST_F(AuditLogTest, AMissingDirectoryGivesOnlyTheOpenError) {
  fs::remove_all(dir_.path());
  const Bytes command(17, 0x01);
  auditLog_write(kAuditComment, 3, command.data(), false);
  auditLog_write(kAuditData, 17, command.data(), true);
  auditLog_write(kAuditDigestSigned, 17, command.data(), false);
  auditLog_rotate();
  EXPECT_THAT(traces_,
              ElementsAre("TCS:Open Audit log file error.\n", "TCS:Open Audit log file error.\n",
                          "TCS:Open Audit log file error.\n"));
  EXPECT_FALSE(fs::exists(dir_.path()));
}

// Records of many threads stay whole: each record's dump holds only its own thread's bytes, and the
// audited list stays consistent while it changes under the readers.
TEST(AuditLogThreadsTest, RecordsOfManyThreadsDoNotInterleave) {
  TempDir dir;
  audit_log_init(dir.path());
  constexpr int kThreads = 8;
  constexpr int kRecords = 20;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const Bytes data(4096, BYTE(0xA0 + t));  // a dump larger than a stdio buffer
      for (int i = 0; i < kRecords; ++i) {
        auditLog_write(kAuditData, UINT32(data.size()), data.data(), i % 2 == 0);
        static_cast<void>(audit_isAudited(0x46));
      }
    });
  }
  threads.emplace_back([] {
    for (int i = 0; i < kRecords; ++i) {
      EXPECT_EQ(audit_add(UINT32(i % 7)), TSS_SUCCESS);
      audit_remove(UINT32((i + 3) % 7));
    }
  });
  for (std::thread& t : threads) t.join();
  audit_log_final();

  std::istringstream log(ReadFile(dir.path() + "/Audit.log"));
  int headers = 0;
  std::string expectedGroup;
  for (std::string line; std::getline(log, line);) {
    if (line.rfind("//--", 0) == 0) {
      ++headers;
      expectedGroup.clear();
    } else if (!line.empty()) {
      // Every group of a record's dump is its thread's byte.
      const std::string first = line.substr(0, 3);
      if (expectedGroup.empty()) expectedGroup = first;
      for (size_t at = 0; at < line.size(); at += 3) {
        ASSERT_EQ(line.substr(at, 3), expectedGroup) << "record " << headers;
      }
    }
  }
  EXPECT_EQ(headers, kThreads * kRecords);
}

}  // namespace
}  // namespace kesttcs::testing
