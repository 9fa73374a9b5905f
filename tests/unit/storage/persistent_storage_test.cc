// Persistent storage against real files: the file format byte for byte (hand-written fixtures),
// the checksum, loading and its early ends, the index order, and the start-up steps.
#include "storage/persistent_storage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "storage/ps_checksum.h"
#include "storage_test_support.h"

namespace kesttcs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The keys of the three-record fixtures, taken from their hand-written bytes.
constexpr TSS_UUID kKeyA = {0x0A0B0C0D, 0x0E0F, 0x1011,
                            0x12,       0x13,   {0x14, 0x15, 0x16, 0x17, 0x18, 0x19}};
constexpr TSS_UUID kKeyB = {0x2A2B2C2D, 0x2E2F, 0x3031,
                            0x32,       0x33,   {0x34, 0x35, 0x36, 0x37, 0x38, 0x39}};
constexpr TSS_UUID kKeyC = {0x4A4B4C4D, 0x4E4F, 0x5051,
                            0x52,       0x53,   {0x54, 0x55, 0x56, 0x57, 0x58, 0x59}};
constexpr TSS_UUID kKeyD = {0x6A6B6C6D, 0x6E6F, 0x7071,
                            0x72,       0x73,   {0x74, 0x75, 0x76, 0x77, 0x78, 0x79}};
// Record offsets and the two record shapes of those fixtures.
constexpr std::size_t kRecord1 = 117;
constexpr std::size_t kRecord2 = 226;
constexpr std::size_t kShortBlob = 59;  // after 38 + 12
constexpr std::size_t kLongBlob = 67;   // after 38 + 20

Bytes Slice(const Bytes& bytes, std::size_t offset, std::size_t size) {
  return Bytes(bytes.begin() + std::ptrdiff_t(offset),
               bytes.begin() + std::ptrdiff_t(offset + size));
}

std::vector<TSS_UUID> Uuids(const std::vector<StoredKey>& keys) {
  std::vector<TSS_UUID> uuids;
  for (const StoredKey& k : keys) uuids.push_back(k.uuid);
  return uuids;
}

TEST(PsChecksumTest, Crc16XmodemWhoseHighBitsStay) {
  PsChecksum checksum;
  const std::string check = "123456789";
  checksum.Update(std::span(reinterpret_cast<const BYTE*>(check.data()), check.size()));
  // The low half is CRC-16/XMODEM's check value 0x31C3; the bits shifted above bit 15 stay.
  EXPECT_EQ(checksum.value(), 0x8D9A31C3u);

  // Fed in pieces, the same bytes give the same value.
  PsChecksum pieces;
  pieces.Update(std::span(reinterpret_cast<const BYTE*>(check.data()), 4));
  pieces.Update(std::span(reinterpret_cast<const BYTE*>(check.data()) + 4, 5));
  EXPECT_EQ(pieces.value(), checksum.value());
}

TEST_F(StorageTest, ChecksumOfKnownFilesAndOfFilesReadInSeveralChunks) {
  for (const char* name :
       {"srk_placeholder.hex", "three_records_one_deleted.hex", "three_records_one_reused.hex"}) {
    SCOPED_TRACE(name);
    Bytes bytes = ReadHexFixture(name);
    WriteFileBytes(dataFile_, bytes);
    EXPECT_TRUE(ps_checkFile(dataFile_));
    bytes[bytes.size() / 2] ^= 0x01;
    WriteFileBytes(dataFile_, bytes);
    EXPECT_FALSE(ps_checkFile(dataFile_));
  }
  // Fewer than 4 bytes, or no file: no match.
  WriteFileBytes(dataFile_, {0, 0, 0});
  EXPECT_FALSE(ps_checkFile(dataFile_));
  EXPECT_FALSE(ps_checkFile((dir_ / "missing").string()));

  // 5000 bytes span three 2048-byte chunks; the stored value is the one of bytes 4..4999.
  Bytes big(5000);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = BYTE(i * 7 + 3);
  PsChecksum expected;
  expected.Update(std::span(big).subspan(4));
  for (int i = 0; i < 4; ++i) big[std::size_t(i)] = BYTE(expected.value() >> (8 * i));
  WriteFileBytes(dataFile_, big);
  EXPECT_TRUE(ps_checkFile(dataFile_));
}

TEST_F(StorageTest, RegisteringUnregisteringAndReusingASlotWriteTheFixturesByteForByte) {
  const Bytes deleted = ReadHexFixture("three_records_one_deleted.hex");
  const Bytes reused = ReadHexFixture("three_records_one_reused.hex");
  const Bytes blobA = Slice(deleted, 8 + 38 + 12, kShortBlob);
  const Bytes blobC = Slice(deleted, kRecord2 + 38 + 20, kLongBlob);
  const Bytes blobD = Slice(reused, kRecord1 + 38 + 12, kShortBlob);
  Bytes blobB = blobA;
  blobB[10] = 1;  // authorisation always
  std::fill(blobB.begin() + 43, blobB.begin() + 51, 0xB1);

  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  ASSERT_EQ(Register(kKeyA, kSrk, blobA), TSS_SUCCESS);
  // A new file's first record lands at offset 8 and the count becomes 1.
  EXPECT_EQ(Slice(DataFileBytes(), 4, 4), (Bytes{1, 0, 0, 0}));
  EXPECT_EQ(Slice(DataFileBytes(), 8, 16), Slice(deleted, 8, 16));
  ASSERT_EQ(Register(kKeyB, kKeyA, blobB), TSS_SUCCESS);
  ASSERT_EQ(Register(kKeyC, kSrk, blobC), TSS_SUCCESS);
  const Bytes beforeUnregister = DataFileBytes();
  ASSERT_EQ(Tcsip_UnregisterKey_Internal(kInternalContextHandle, kKeyB), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), deleted);
  // The .tmp copy holds the file as it was before the change.
  EXPECT_EQ(ReadFileBytes(TmpFile()), beforeUnregister);

  ASSERT_EQ(Register(kKeyD, kKeyA, blobD), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), reused);
  EXPECT_EQ(ReadFileBytes(TmpFile()), deleted);
  // Registered since start-up: newest first, D in the node B had.
  EXPECT_THAT(Uuids(StoredKeys()), ElementsAre(kKeyC, kKeyD, kKeyA));

  // Loaded from the file: file order. Closing wipes nothing more: the file stays as it is.
  Restart();
  EXPECT_EQ(DataFileBytes(), reused);
  EXPECT_THAT(StoredKeys(),
              ElementsAre(StoredKey{kKeyA, kSrk, blobA}, StoredKey{kKeyD, kKeyA, blobD},
                          StoredKey{kKeyC, kSrk, blobC}));
  // A key of other sizes is appended, and the count grows.
  ASSERT_EQ(Tcsip_UnregisterKey_Internal(kInternalContextHandle, kKeyD), TSS_SUCCESS);
  ASSERT_EQ(Register(MakeUuid(1), kSrk, KeyBlob({.modulusSize = 9})), TSS_SUCCESS);
  EXPECT_EQ(Slice(DataFileBytes(), 4, 4), (Bytes{4, 0, 0, 0}));
  EXPECT_EQ(DataFileBytes().size(), reused.size() + 38 + 13 + KeyBlob({.modulusSize = 9}).size());
}

TEST_F(StorageTest, AnOwnedTpmGetsTheSrkPlaceholderWhichEntersTheKeyCache) {
  std::vector<TPM_KEY> srks;
  const StorageHooks hooks{.addSrkToKeyCache = [&](const TPM_KEY& key) { srks.push_back(key); }};

  // Without an owner an empty file stays empty.
  ps_RegisterHooks(hooks);
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  EXPECT_THAT(DataFileBytes(), IsEmpty());
  EXPECT_THAT(srks, IsEmpty());
  ps_close();

  ps_RegisterHooks(hooks);
  ASSERT_EQ(ps_init(dataFile_, true), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), ReadHexFixture("srk_placeholder.hex"));
  ASSERT_EQ(srks.size(), 1u);
  EXPECT_EQ(srks[0].keyUsage, 0x0011);
  EXPECT_EQ(srks[0].authDataUsage, 1);
  EXPECT_EQ(srks[0].algorithmParms.encScheme, 3);
  EXPECT_EQ(srks[0].algorithmParms.parms, (Bytes{0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0}));
  EXPECT_EQ(srks[0].pubKey.keyLength, 0u);
  EXPECT_THAT(Uuids(StoredKeys()), ElementsAre(kSrk));

  // Found the next time: not written again.
  ps_close();
  srks.clear();
  ps_RegisterHooks(hooks);
  ASSERT_EQ(ps_init(dataFile_, true), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), ReadHexFixture("srk_placeholder.hex"));
  EXPECT_EQ(srks.size(), 1u);
}

TEST_F(StorageTest, LoadingEndsAtAnOversizeRecordOrOneBeyondTheFileKeepingWhatCameBefore) {
  const Bytes reused = ReadHexFixture("three_records_one_reused.hex");
  struct Case {
    const char* what;
    std::size_t at;
    Bytes patch;
  };
  for (const Case& c : {Case{"pub data size 2049", kRecord1 + 32, {0x01, 0x08}},
                        Case{"blob size 4097", kRecord1 + 34, {0x01, 0x10}}}) {
    SCOPED_TRACE(c.what);
    Bytes bytes = reused;
    std::copy(c.patch.begin(), c.patch.end(), bytes.begin() + std::ptrdiff_t(c.at));
    WriteFileBytes(dataFile_, bytes);
    ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
    EXPECT_THAT(Uuids(StoredKeys()), ElementsAre(kKeyA));
    EXPECT_FALSE(isUUIDRegistered(kKeyC));
    // Closing wipes the slot loading stopped at (a deleted node), but not beyond the file's end.
    ps_close();
    EXPECT_EQ(DataFileBytes().size(), bytes.size());
    EXPECT_EQ(DataFileBytes()[kRecord1], 0);
  }

  // A file that ends inside the last record: the records before it load.
  WriteFileBytes(dataFile_, Slice(reused, 0, reused.size() - 1));
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  EXPECT_THAT(Uuids(StoredKeys()), ElementsAre(kKeyA, kKeyD));
  ps_close();

  // A count of 0 leaves the index empty whatever follows.
  Bytes zeroCount = reused;
  std::fill(zeroCount.begin() + 4, zeroCount.begin() + 8, 0);
  WriteFileBytes(dataFile_, zeroCount);
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  EXPECT_THAT(StoredKeys(), IsEmpty());
}

TEST_F(StorageTest, LookupsOfTheIndexAndTheFile) {
  const Bytes reused = ReadHexFixture("three_records_one_reused.hex");
  Bytes bytes = reused;
  bytes[kRecord2 + 36] = 0x01;  // C's parent not in the system storage
  WriteFileBytes(dataFile_, bytes);
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);

  EXPECT_TRUE(isUUIDRegistered(kSrk));
  EXPECT_TRUE(isUUIDRegistered(kKeyD));
  EXPECT_FALSE(isUUIDRegistered(kKeyB));
  EXPECT_FALSE(isUUIDRegistered(TSS_UUID{}));

  TSS_UUID parent{};
  EXPECT_EQ(getParentUUIDByUUID(kKeyD, &parent), TSS_SUCCESS);
  EXPECT_EQ(parent, kKeyA);
  EXPECT_EQ(getParentUUIDByUUID(kKeyB, &parent), TCS_E_FAIL);

  EXPECT_EQ(getParentPSTypeByUUID(kSrk), 2);
  EXPECT_EQ(getParentPSTypeByUUID(kKeyA), 2);
  EXPECT_EQ(getParentPSTypeByUUID(kKeyC), 1);
  EXPECT_EQ(getParentPSTypeByUUID(kKeyB), -2);
  // A key registered under C: its parent is not in the system storage, so neither flag 0x2.
  const TSS_UUID underC = MakeUuid(3);
  ASSERT_EQ(Register(underC, kKeyC, KeyBlob({})), TSS_SUCCESS);
  EXPECT_EQ(getParentPSTypeByUUID(underC), 1);

  Bytes blob(kShortBlob);
  UINT16 size = 0;
  EXPECT_EQ(getKeyBlobByUUID(kKeyD, blob, &size), TSS_SUCCESS);
  EXPECT_EQ(size, kShortBlob);
  EXPECT_EQ(blob, Slice(reused, kRecord1 + 38 + 12, kShortBlob));
  Bytes small(kShortBlob - 1);
  EXPECT_EQ(getKeyBlobByUUID(kKeyD, small, &size), TCS_E_FAIL);
  EXPECT_EQ(getKeyBlobByUUID(kKeyB, blob, &size), TCS_E_FAIL);

  const Bytes modulusC = Slice(reused, kRecord2 + 38 + 4, 16);
  EXPECT_EQ(getUUIDByPub(modulusC), kKeyC);
  EXPECT_TRUE(isPubRegistered(Slice(reused, 8 + 38 + 4, 8)));
  EXPECT_FALSE(getUUIDByPub(Slice(modulusC, 0, 15)).has_value());
  EXPECT_FALSE(isPubRegistered(Bytes(8, 0)));
}

TEST_F(StorageTest, BlobUpdateStopsAtTheFirstNodeThatHasTheUuidOrIsDeleted) {
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  const TSS_UUID a = MakeUuid(1), b = MakeUuid(2), c = MakeUuid(3);
  const Bytes blob = KeyBlob({});
  for (const TSS_UUID& u : {a, b, c}) ASSERT_EQ(Register(u, kSrk, blob), TSS_SUCCESS);
  // The index is c, b, a.
  Bytes changed = KeyBlob({.fill = 0x30});
  ASSERT_EQ(updateKeyBlob(b, changed), TSS_SUCCESS);
  EXPECT_EQ(StoredKeys()[1], (StoredKey{b, kSrk, changed}));
  // A longer blob writes only the stored length; a shorter one is refused.
  Bytes longer = KeyBlob({.fill = 0x40});
  longer.push_back(0xEE);
  ASSERT_EQ(updateKeyBlob(c, longer), TSS_SUCCESS);
  EXPECT_EQ(StoredKeys()[0].blob, KeyBlob({.fill = 0x40}));
  EXPECT_EQ(updateKeyBlob(c, Slice(blob, 0, blob.size() - 1)), TCS_E_FAIL);

  // With b deleted the walk stops at b's node, so a's blob stays as it was.
  ASSERT_EQ(Tcsip_UnregisterKey_Internal(kInternalContextHandle, b), TSS_SUCCESS);
  ASSERT_EQ(updateKeyBlob(a, KeyBlob({.fill = 0x50})), TSS_SUCCESS);
  EXPECT_EQ(StoredKeys()[1], (StoredKey{a, kSrk, blob}));
  // A UUID no node has (behind the deleted node, too) is no failure.
  EXPECT_EQ(updateKeyBlob(MakeUuid(9), blob), TSS_SUCCESS);
  EXPECT_TRUE(ps_checkFile(dataFile_));
}

TEST_F(StorageTest, TheChangeStepsAndTheRecordWriterOnTheirOwn) {
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  // writeKeyToPS makes no registration checks; a NULL parent counts as the system storage.
  ASSERT_EQ(writeKeyToPS(MakeUuid(1), TSS_UUID{}, KeyBlob({})), TSS_SUCCESS);
  ASSERT_EQ(writeKeyToPS(MakeUuid(2), MakeUuid(7), KeyBlob({})), TCS_E_FAIL);
  EXPECT_EQ(DataFileBytes()[8 + 36], 0x03);
  EXPECT_EQ(getParentPSTypeByUUID(MakeUuid(1)), 2);

  ASSERT_EQ(ps_backupToTmp(), TSS_SUCCESS);
  EXPECT_EQ(ReadFileBytes(TmpFile()), DataFileBytes());
  Bytes bytes = DataFileBytes();
  bytes[0] ^= 0xFF;
  WriteFileBytes(dataFile_, bytes);
  EXPECT_FALSE(ps_checkFile(dataFile_));
  ASSERT_EQ(ps_updateChecksum(), TSS_SUCCESS);
  EXPECT_TRUE(ps_checkFile(dataFile_));

  ps_close();
  EXPECT_EQ(writeKeyToPS(MakeUuid(3), kSrk, KeyBlob({})), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(ps_updateChecksum(), TCS_E_INTERNAL_ERROR);
}

TEST_F(StorageTest, DeleteRemovesTheFileAndEmptiesTheIndex) {
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  ASSERT_EQ(Register(MakeUuid(1), kSrk, KeyBlob({})), TSS_SUCCESS);
  ASSERT_EQ(ps_delete(), TSS_SUCCESS);
  EXPECT_FALSE(fs::exists(dataFile_));
  EXPECT_FALSE(isUUIDRegistered(MakeUuid(1)));
  // The next registration starts a new file.
  ASSERT_EQ(Register(MakeUuid(2), kSrk, KeyBlob({})), TSS_SUCCESS);
  EXPECT_EQ(Slice(DataFileBytes(), 4, 4), (Bytes{1, 0, 0, 0}));
  ps_close();
  EXPECT_EQ(ps_delete(), TCS_E_INTERNAL_ERROR);
}

TEST_F(StorageTest, OwnerlessStartSetsTheFileAsideUnlessABackupIsThere) {
  const fs::path bak = dir_ / "KestData.dat.bak";
  // An empty file stays in place.
  WriteFileBytes(dataFile_, {});
  ASSERT_EQ(ps_moveToBak(dataFile_), TSS_SUCCESS);
  EXPECT_TRUE(fs::exists(dataFile_));
  EXPECT_FALSE(fs::exists(bak));

  const Bytes keys = ReadHexFixture("three_records_one_reused.hex");
  WriteFileBytes(dataFile_, keys);
  ASSERT_EQ(ps_moveToBak(dataFile_), TSS_SUCCESS);
  EXPECT_FALSE(fs::exists(dataFile_));
  EXPECT_EQ(ReadFileBytes(bak), keys);

  // With a ".bak" there, the file stays and the backup is kept.
  const Bytes newer = ReadHexFixture("srk_placeholder.hex");
  WriteFileBytes(dataFile_, newer);
  ASSERT_EQ(ps_moveToBak(dataFile_), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), newer);
  EXPECT_EQ(ReadFileBytes(bak), keys);
}

TEST_F(StorageTest, ChecksumMismatchAtStartUpRestoresFromTheCopyOrLoadsWhatParses) {
  const Bytes good = ReadHexFixture("three_records_one_reused.hex");
  Bytes damaged = good;
  damaged[kRecord2 + 40] ^= 0xFF;  // inside C's public data

  // A matching file, or an empty one, is not touched and nothing is reported.
  WriteFileBytes(dataFile_, good);
  ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
  WriteFileBytes(dataFile_, {});
  ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
  EXPECT_THAT(events_, IsEmpty());

  // With a valid copy: restored from it.
  WriteFileBytes(dataFile_, damaged);
  WriteFileBytes(TmpFile(), good);
  ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), good);
  EXPECT_FALSE(fs::exists(TmpFile()));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].eventCode, TCS_E_FAIL);
  EXPECT_EQ(events_[0].strings,
            (std::vector<std::string>{"KestData.dat checksum mismatch; restored from KestData.tmp",
                                      dataFile_}));

  // With a copy that does not match either: the file is kept and what parses loads.
  WriteFileBytes(dataFile_, damaged);
  Bytes badCopy = good;
  badCopy[20] ^= 1;
  WriteFileBytes(TmpFile(), badCopy);
  ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
  EXPECT_EQ(DataFileBytes(), damaged);
  ASSERT_EQ(events_.size(), 2u);
  EXPECT_EQ(
      events_[1].strings[0],
      "KestData.dat checksum mismatch; no usable KestData.tmp, loading the records that parse");
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  EXPECT_THAT(Uuids(StoredKeys()), ElementsAre(kKeyA, kKeyD, kKeyC));

  // An empty copy is the copy of an empty file.
  ps_close();
  WriteFileBytes(dataFile_, damaged);
  WriteFileBytes(TmpFile(), {});
  ASSERT_EQ(ps_checkAndRestore(dataFile_), TSS_SUCCESS);
  EXPECT_THAT(DataFileBytes(), IsEmpty());
}

}  // namespace
}  // namespace kesttcs::testing
