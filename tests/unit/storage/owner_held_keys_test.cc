// The owner-held key list and its file "KestCtrl.dat": the hand-written fixture read and written
// back byte for byte, the file made when absent, a damaged checksum, records over the blob limit
// or cut short, and changes that either reach the disk whole or leave the list as it was.
#include "storage/owner_held_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "storage/fake_file_system.h"
#include "storage/storage_test_support.h"
#include "temp_dir.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<BYTE>;
using testing::FaultInjectionFileSystem;
using testing::KeyBlob;
using testing::ReadFileBytes;
using testing::ReadHexFixture;
using testing::WriteFileBytes;

constexpr TSS_UUID kFirstOwnerEvictUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 1, 0}};
constexpr TSS_UUID kFixtureUuid = {0x12345678, 0x9abc, 0xdef0, 0x11, 0x22, {1, 2, 3, 4, 5, 6}};

Bytes Le32(UINT32 v) { return {BYTE(v), BYTE(v >> 8), BYTE(v >> 16), BYTE(v >> 24)}; }

class OwnerHeldKeysTest : public ::testing::Test {
 protected:
  ~OwnerHeldKeysTest() override { ReleaseOwnCtrl(); }
  std::string File() const { return (fs::path(dir_.path()) / "KestCtrl.dat").string(); }

  testing::TempDir dir_;
};

TEST_F(OwnerHeldKeysTest, TheFixtureReadsAsWrittenDownAndWritesBackByteForByte) {
  const Bytes fixture = ReadHexFixture("owner_held_two_records.hex");
  const OwnerHeldFileContents contents = DecodeOwnerHeldFile(fixture);
  EXPECT_TRUE(contents.checksumMatched);
  ASSERT_EQ(contents.keys.size(), 2u);
  EXPECT_EQ(contents.keys[0].uuid, kFirstOwnerEvictUuid);
  EXPECT_EQ(contents.keys[0].tpmHandle, 0x01000005u);
  EXPECT_EQ(contents.keys[0].blob, Bytes(fixture.begin() + 32, fixture.begin() + 79));
  EXPECT_EQ(contents.keys[1].uuid, kFixtureUuid);
  EXPECT_EQ(contents.keys[1].tpmHandle, 0x01000007u);
  EXPECT_EQ(contents.keys[1].blob, Bytes(fixture.begin() + 103, fixture.end()));
  EXPECT_EQ(EncodeOwnerHeldFile(contents.keys), fixture);

  WriteFileBytes(File(), fixture);
  ASSERT_EQ(owner_keys_open(File()), TSS_SUCCESS);
  EXPECT_TRUE(owner_keys_holds(0x01000007));
  ASSERT_TRUE(owner_keys_find(kFixtureUuid).has_value());
  EXPECT_EQ(owner_keys_find(kFixtureUuid)->tpmHandle, 0x01000007u);
  EXPECT_EQ(ReadFileBytes(File()), fixture) << "a sound file is left as it is";
}

TEST_F(OwnerHeldKeysTest, AnAbsentFileIsMadeWithItsHeaderAndChangesRewriteIt) {
  ASSERT_EQ(owner_keys_open(File()), TSS_SUCCESS);
  EXPECT_EQ(ReadFileBytes(File()), Bytes(8, 0)) << "checksum 0 over a count of 0";
  EXPECT_TRUE(owner_keys_list().empty());

  const Bytes blobA = KeyBlob({.fill = 0x10});
  const Bytes blobB = KeyBlob({.fill = 0x20});
  ASSERT_EQ(owner_keys_add({kFirstOwnerEvictUuid, 0x01000001, blobA}), TSS_SUCCESS);
  ASSERT_EQ(owner_keys_add({kFixtureUuid, 0x01000002, blobB}), TSS_SUCCESS);
  // A record for a slot already listed replaces it.
  ASSERT_EQ(owner_keys_add({kFixtureUuid, 0x01000001, blobB}), TSS_SUCCESS);
  std::vector<OwnerHeldKey> expected = {{kFixtureUuid, 0x01000002, blobB},
                                        {kFixtureUuid, 0x01000001, blobB}};
  EXPECT_EQ(ReadFileBytes(File()), EncodeOwnerHeldFile(expected));
  EXPECT_FALSE(fs::exists(fs::path(dir_.path()) / "KestCtrl.tmp"));

  ASSERT_EQ(owner_keys_remove(0x01000002), TSS_SUCCESS);
  ASSERT_EQ(owner_keys_remove(0x0100FFFF), TSS_SUCCESS) << "nothing to remove";
  expected.erase(expected.begin());
  EXPECT_EQ(ReadFileBytes(File()), EncodeOwnerHeldFile(expected));
  EXPECT_EQ(owner_keys_add({kFixtureUuid, 0x01000003, Bytes(kOwnerHeldMaxBlobSize + 1, 0)}),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(owner_keys_keep({true, true}), TCS_E_BAD_PARAMETER);

  // Read back at the next start-up.
  ReleaseOwnCtrl();
  EXPECT_EQ(owner_keys_add({kFixtureUuid, 0x01000003, blobA}), TCS_E_INTERNAL_ERROR)
      << "no changes while the list is released";
  ASSERT_EQ(owner_keys_open(File()), TSS_SUCCESS);
  ASSERT_EQ(owner_keys_list().size(), 1u);
  EXPECT_EQ(owner_keys_list()[0].blob, blobB);
}

TEST_F(OwnerHeldKeysTest, ADamagedChecksumKeepsTheRecordsThatParseAndIsRewrittenSound) {
  const Bytes fixture = ReadHexFixture("owner_held_two_records.hex");
  Bytes damaged = fixture;
  damaged[0] ^= 0x01;
  EXPECT_FALSE(DecodeOwnerHeldFile(damaged).checksumMatched);
  WriteFileBytes(File(), damaged);
  ASSERT_EQ(owner_keys_open(File()), TSS_SUCCESS);
  EXPECT_EQ(owner_keys_list().size(), 2u);
  EXPECT_EQ(ReadFileBytes(File()), fixture);

  // A damaged record: its blob no longer parses, so reading stops before it.
  damaged = fixture;
  damaged[103 + 4 + 2 + 4 + 1 + 4 + 4 + 3] = 0xFF;  // record 1's parmSize: far beyond the blob
  const OwnerHeldFileContents contents = DecodeOwnerHeldFile(damaged);
  EXPECT_FALSE(contents.checksumMatched);
  EXPECT_EQ(contents.keys.size(), 1u);
  // Shorter than a header.
  EXPECT_FALSE(DecodeOwnerHeldFile(Bytes(5, 0)).checksumMatched);
  EXPECT_TRUE(DecodeOwnerHeldFile(Bytes(5, 0)).keys.empty());
}

TEST_F(OwnerHeldKeysTest, ReadingEndsAtABlobOverTheLimitOrARecordCutShort) {
  const Bytes blob = KeyBlob({});
  std::vector<OwnerHeldKey> keys = {{kFixtureUuid, 0x01000001, blob}};
  Bytes file = EncodeOwnerHeldFile(keys);
  // A second record that claims 4097 bytes and has them, then a third sound one.
  Bytes tooLong = {};
  tooLong.insert(tooLong.end(), 16, 0x33);
  for (const Bytes& part : {Le32(0x01000002), Le32(kOwnerHeldMaxBlobSize + 1)}) {
    tooLong.insert(tooLong.end(), part.begin(), part.end());
  }
  tooLong.resize(tooLong.size() + kOwnerHeldMaxBlobSize + 1, 0);
  Bytes third = EncodeOwnerHeldFile(keys);
  Bytes withLong = file;
  withLong.insert(withLong.end(), tooLong.begin(), tooLong.end());
  withLong.insert(withLong.end(), third.begin() + 8, third.end());
  withLong[4] = 3;
  EXPECT_EQ(DecodeOwnerHeldFile(withLong).keys.size(), 1u);

  // The count claims two records; the second is cut in its blob.
  keys.push_back({kFirstOwnerEvictUuid, 0x01000003, blob});
  Bytes cut = EncodeOwnerHeldFile(keys);
  cut.resize(cut.size() - 1);
  EXPECT_EQ(DecodeOwnerHeldFile(cut).keys.size(), 1u);
  // Records beyond the count are not read.
  Bytes fewer = EncodeOwnerHeldFile(keys);
  fewer[4] = 1;
  EXPECT_EQ(DecodeOwnerHeldFile(fewer).keys.size(), 1u);
}

TEST_F(OwnerHeldKeysTest, AChangeThatCannotReachTheDiskLeavesListAndFileAsTheyWere) {
  FaultInjectionFileSystem faults;
  ASSERT_EQ(owner_keys_open(File(), faults), TSS_SUCCESS);
  const Bytes blob = KeyBlob({});
  ASSERT_EQ(owner_keys_add({kFixtureUuid, 0x01000001, blob}), TSS_SUCCESS);
  const Bytes before = ReadFileBytes(File());

  faults.Arm(FaultInjectionFileSystem::Fault::kFailRename, faults.counts().renames);
  EXPECT_EQ(owner_keys_add({kFirstOwnerEvictUuid, 0x01000002, blob}), TCS_E_INTERNAL_ERROR);
  faults.Arm(FaultInjectionFileSystem::Fault::kFailSync, faults.counts().syncs);
  EXPECT_EQ(owner_keys_remove(0x01000001), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(owner_keys_list().size(), 1u);
  EXPECT_FALSE(owner_keys_holds(0x01000002));
  EXPECT_EQ(ReadFileBytes(File()), before);
}

}  // namespace
}  // namespace kesttcs
