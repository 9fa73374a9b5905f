// kesttcs-cli's side of the registered keys: UUID text, usage names, the tree `keys list` prints,
// and its own reader of the storage file, against the hand-written fixtures of the storage tests.
#include <gtest/gtest.h>

#include "storage/hex_fixture.h"
#include "tools/kestdata_check.h"
#include "tools/key_format.h"
#include "tools/key_tree.h"

namespace kesttcs::cli {
namespace {

using kesttcs::testing::ReadHexFixture;
using Bytes = std::vector<BYTE>;

TEST(KeysCliTest, UuidsReadAndPrintInTheirUsualForm) {
  const std::optional<TSS_UUID> uuid = ParseUuid("0A0B0C0D-0e0f-1011-1213-141516171819");
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(uuid->ulTimeLow, 0x0A0B0C0Du);
  EXPECT_EQ(uuid->usTimeMid, 0x0E0F);
  EXPECT_EQ(uuid->usTimeHigh, 0x1011);
  EXPECT_EQ(uuid->bClockSeqHigh, 0x12);
  EXPECT_EQ(uuid->bClockSeqLow, 0x13);
  EXPECT_EQ(uuid->rgbNode[5], 0x19);
  EXPECT_EQ(UuidText(*uuid), "0a0b0c0d-0e0f-1011-1213-141516171819");
  EXPECT_TRUE(ParseUuid("{0a0b0c0d-0e0f-1011-1213-141516171819}").has_value());
  EXPECT_TRUE(SameUuid(*ParseUuid("srk"), kSrkUuid));
  EXPECT_EQ(UuidText(kSrkUuid), "00000000-0000-0000-0000-000000000001");
  for (const char* bad :
       {"", "0a0b0c0d-0e0f-1011-1213-14151617181", "0a0b0c0d0e0f-1011-1213-141516171819",
        "0a0b0c0d-0e0f-1011-1213-1415161718190", "0a0b0c0d-0e0f-1011-1213-14151617181g",
        "{0a0b0c0d-0e0f-1011-1213-141516171819", "+a0b0c0d-0e0f-1011-1213-141516171819"}) {
    EXPECT_FALSE(ParseUuid(bad).has_value()) << bad;
  }

  EXPECT_EQ(KeyUsageName(Bytes{1, 1, 0, 0, 0x00, 0x11}), "storage");
  EXPECT_EQ(KeyUsageName(Bytes{1, 1, 0, 0, 0x00, 0x10, 0}), "signing");
  EXPECT_EQ(KeyUsageName(Bytes{1, 1, 0, 0, 0x01, 0x10}), "0x0110");
  EXPECT_EQ(KeyUsageName(Bytes{1, 1, 0, 0, 0x00}), "unknown");
  EXPECT_EQ(AuthDataUsageName(0), "never");
  EXPECT_EQ(AuthDataUsageName(3), "private-use-only");
  EXPECT_EQ(AuthDataUsageName(7), "0x07");
}

ListedKey Listed(const std::string& uuid, const std::string& parent, const char* usage,
                 BYTE auth = 0, bool loaded = false) {
  ListedKey key;
  key.info.keyUUID = *ParseUuid(uuid);
  key.info.parentKeyUUID = *ParseUuid(parent);
  key.info.bAuthDataUsage = auth;
  key.info.fIsLoaded = loaded ? 1 : 0;
  key.usage = usage;
  return key;
}

TEST(KeysCliTest, KeysListAsATreeUnderTheSrk) {
  const std::string a = "00000000-0000-0000-0000-00000000000a";
  const std::string b = "00000000-0000-0000-0000-00000000000b";
  const std::string c = "00000000-0000-0000-0000-00000000000c";
  const std::string x = "00000000-0000-0000-0000-0000000000ee";
  const std::string y = "00000000-0000-0000-0000-0000000000ff";
  // Listed newest first, children before their parents; x and y are each other's parent.
  const std::vector<ListedKey> keys = {
      Listed(b, a, "bind"),           Listed(x, y, "signing"), Listed(c, "srk", "storage", 1, true),
      Listed(a, "srk", "storage", 1), Listed(y, x, "legacy"),
  };
  const KeyTree tree = BuildKeyTree(keys);
  EXPECT_EQ(KeyTreeText(tree),
            "00000000-0000-0000-0000-000000000001  (SRK, no record)\n"
            "  " +
                c +
                "  storage  auth always  loaded\n"
                "  " +
                a +
                "  storage  auth always  not loaded\n"
                "    " +
                b +
                "  bind  auth never  not loaded\n"
                "not under the SRK:\n"
                "  " +
                x + "  signing  auth never  not loaded  parent " + y +
                "\n"
                "  " +
                y + "  legacy  auth never  not loaded  parent " + x + "\n");
  const nlohmann::ordered_json json = KeyTreeJson(tree);
  EXPECT_EQ(json["keys"][0]["record"], false);
  EXPECT_EQ(json["keys"][0]["children"][1]["uuid"], a);
  EXPECT_EQ(json["keys"][0]["children"][1]["children"][0]["parent"], a);
  EXPECT_EQ(json["keys"][0]["children"][0]["loaded"], true);
  EXPECT_EQ(json["not_under_srk"].size(), 2u);

  // With its record the SRK is a key like the others.
  const std::vector<ListedKey> withSrk = {
      Listed(a, "srk", "storage"),
      Listed("srk", "00000000-0000-0000-0000-000000000000", "storage", 1)};
  EXPECT_EQ(KeyTreeText(BuildKeyTree(withSrk)),
            "00000000-0000-0000-0000-000000000001  storage  auth always  not loaded\n"
            "  " +
                a + "  storage  auth never  not loaded\n");
}

TEST(KeysCliTest, CheckFindsChecksumAndRecordProblemsOfTheFile) {
  const Bytes reused = ReadHexFixture("three_records_one_reused.hex");
  KestDataReport r = CheckKestData(reused);
  EXPECT_TRUE(r.checksumMatches());
  EXPECT_EQ(r.storedChecksum, 0xBBFD8EB5u);
  EXPECT_EQ(r.recordCount, 3u);
  EXPECT_EQ(r.validRecords, 3u);
  EXPECT_TRUE(r.problems.empty());
  r = CheckKestData(ReadHexFixture("three_records_one_deleted.hex"));
  EXPECT_TRUE(r.checksumMatches());
  EXPECT_EQ(r.validRecords, 2u);
  EXPECT_EQ(r.deletedRecords, 1u);
  EXPECT_TRUE(r.problems.empty());
  EXPECT_TRUE(CheckKestData(ReadHexFixture("srk_placeholder.hex")).checksumMatches());
  EXPECT_TRUE(CheckKestData({}).empty);

  Bytes damaged = reused;
  damaged[300] ^= 1;
  r = CheckKestData(damaged);
  EXPECT_FALSE(r.checksumMatches());
  EXPECT_TRUE(r.problems.empty());

  struct Case {
    const char* what;
    std::size_t at;
    Bytes bytes;
    const char* problem;
  };
  for (const Case& c : {
           Case{"pub data size 2049",
                117 + 32,
                {0x01, 0x08},
                "record 1 at offset 117: public data size 2049"},
           Case{"blob size 4097", 226 + 34, {0x01, 0x10}, "record 2 at offset 226: blob size 4097"},
           Case{"valid bit cleared",
                117 + 36,
                {0x02, 0x00},
                "record 1 at offset 117: deleted slot not wiped"},
           Case{"unknown flag", 8 + 36, {0x07, 0x00}, "record 0 at offset 8: unknown flags 7"},
           Case{"count one too many",
                4,
                {0x04},
                "record 3 at offset 351: header beyond the end of the file"},
           Case{"count one too few", 4, {0x02}, "125 bytes after the last record"},
           Case{"key length",
                8 + 38 + 3,
                {0x09},
                "record 0 at offset 8: public data length does not match its size"},
           Case{"same UUID twice",
                226,
                {0x6d, 0x6c, 0x6b, 0x6a, 0x6f, 0x6e, 0x71, 0x70, 0x72, 0x73, 0x74, 0x75, 0x76, 0x77,
                 0x78, 0x79},
                "record 2 at offset 226: UUID 6a6b6c6d-6e6f-7071-7273-747576777879 twice"},
       }) {
    SCOPED_TRACE(c.what);
    Bytes bytes = reused;
    std::copy(c.bytes.begin(), c.bytes.end(), bytes.begin() + std::ptrdiff_t(c.at));
    r = CheckKestData(bytes);
    ASSERT_FALSE(r.problems.empty());
    EXPECT_EQ(r.problems[0], c.problem);
  }
  r = CheckKestData(Bytes(reused.begin(), reused.end() - 1));
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_EQ(r.problems[0], "record 2 at offset 226: data beyond the end of the file");
  EXPECT_EQ(CheckKestData(Bytes{1, 2, 3}).problems.at(0), "file of 3 bytes: no header");
}

}  // namespace
}  // namespace kesttcs::cli
