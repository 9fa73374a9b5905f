// The key cache with the core brought up by the real start-up: what the first entry and later ones
// start with, the absent answers, reference counts driven by contexts, slot updates, key
// equality, removal with eviction through the scripted TPM, copies that outlive their entry, the
// SRK from storage and from replaceEntry, and encData updates that reach storage byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_equality.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/key_blob.h"
#include "storage/persistent_storage.h"
#include "storage/ps_format.h"
#include "storage/registered_keys.h"
#include "storage/test_keys.h"

namespace kesttcs {
namespace {

using Bytes = std::vector<BYTE>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr UINT32 kFlushSpecific = 0xBA;
constexpr TCS_KEY_HANDLE kFirst = kFirstTcsKeyHandle;

TPM_KEY KeyFrom(const Bytes& blob) {
  TPM_KEY key;
  EXPECT_TRUE(ParseKeyBlob(blob, &key));
  return key;
}
// A storage key whose modulus counts up from `fill`, with 4 bytes of encData.
Bytes BlobOf(BYTE fill) { return testing::KeyBlob({.fill = fill}); }
TPM_KEY Key(BYTE fill) { return KeyFrom(BlobOf(fill)); }

Bytes U32(UINT32 v) { return {BYTE(v >> 24), BYTE(v >> 16), BYTE(v >> 8), BYTE(v)}; }
// TPM_FlushSpecific(handle, TPM_RT_KEY).
Bytes Flush(TPM_KEY_HANDLE handle) {
  Bytes b = {0x00, 0xC1, 0, 0, 0, 18, 0, 0, 0, kFlushSpecific};
  for (const Bytes& part : {U32(handle), U32(1)}) b.insert(b.end(), part.begin(), part.end());
  return b;
}

class MemCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText(); }
  void TearDown() override { EXPECT_THAT(core_.fake().Mismatches(), IsEmpty()); }

  static std::int32_t RefCount(TCS_KEY_HANDLE handle) {
    std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(handle);
    EXPECT_TRUE(entry.has_value()) << std::hex << handle;
    return entry ? entry->refCount : -1;
  }
  void ExpectFlush() {
    core_.fake().Expect({FakeTpmBackend::Response(TPM_SUCCESS), TSS_SUCCESS, kFlushSpecific});
  }

  testing::TestCore core_{testing::CoreOptions().NeedLog()};
};

TEST_F(MemCacheTest, AnEmptyCacheAnswersAbsentValuesAndTheSrkHandleItself) {
  EXPECT_EQ(getSlotByHandle(kSrkKeyHandle), kSrkKeyHandle);
  EXPECT_EQ(getSlotByHandle(kFirst), kNoTpmHandle);
  EXPECT_EQ(getHandleBySlot(0x01000000), kNoTcsKeyHandle);
  EXPECT_FALSE(getKeyEntryByKeyHandle(kSrkKeyHandle).has_value());
  EXPECT_FALSE(getKeyBySlot(kNoTpmHandle).has_value());
  EXPECT_EQ(getHandleByEncData(Key(1).encData), 0u);
  EXPECT_EQ(getHandleByKey(Key(1)), kNoTcsKeyHandle);
  TPM_KEY key;
  EXPECT_EQ(getKeyByUuid(kSrkUuid, &key), TCS_E_FAIL);
  EXPECT_EQ(removeEntryByHandle(kFirst), TCS_E_FAIL);
  EXPECT_EQ(incKeyRefCount(kFirst), TCS_E_FAIL);
  EXPECT_EQ(decKeyRefCount(kFirst), TCS_E_FAIL);
  EXPECT_EQ(setSlotBySlot(1, 2), TCS_E_FAIL);
  EXPECT_EQ(replaceEncData(Key(1).encData, Key(2).encData), TCS_E_INTERNAL_ERROR);
  // The counters start afresh with every start-up.
  EXPECT_EQ(nextTcsKeyHandle(), kFirstTcsKeyHandle);
  EXPECT_EQ(nextTcsKeyHandle(), kFirstTcsKeyHandle + 1);
  EXPECT_EQ(nextLoadStamp(), kFirstLoadStamp);
}

TEST_F(MemCacheTest, InsertingKeepsTheFirstEntryAndOnlyTheFirstEverStartsReferenced) {
  core_.TakeTraces();
  ASSERT_EQ(add_mem_cache_entry(kFirst, 0x01000001, Key(1), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  // A second insert under the same handle changes nothing and succeeds.
  EXPECT_EQ(add_mem_cache_entry(kFirst, 0x01000009, Key(9), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  EXPECT_EQ(getSlotByHandle(kFirst), 0x01000001u);
  EXPECT_TRUE(keysEqual(*getKeyByHandle(kFirst), Key(1)));

  const TSS_UUID uuid = testing::MakeUuid(7);
  ASSERT_EQ(removeEntryByHandle(kFirst), TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst, 0x01000001, Key(1), uuid, kNoTcsKeyHandle), TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 1, kNoTpmHandle, Key(2), std::nullopt, kFirst),
            TSS_SUCCESS);
  // An unknown parent adds nothing.
  EXPECT_EQ(add_mem_cache_entry(kFirst + 2, kNoTpmHandle, Key(3), std::nullopt, 0x22339999),
            TCS_E_FAIL);
  EXPECT_FALSE(getKeyEntryByKeyHandle(kFirst + 2).has_value());

  // The table was empty again before the re-insert, so that entry counts as the first one.
  EXPECT_EQ(RefCount(kFirst), 1);
  EXPECT_EQ(RefCount(kFirst + 1), 0);
  const mem_cache_entry child = *getKeyEntryByKeyHandle(kFirst + 1);
  EXPECT_EQ(child.parentTcsHandle, kFirst);
  EXPECT_TRUE(SameUuid(child.parentUuid, uuid));
  EXPECT_TRUE(SameUuid(child.uuid, kNullUuid));
  EXPECT_TRUE(child.inTpm);
  EXPECT_EQ(child.loadStamp, 0u);  // no slot, no stamp
  EXPECT_TRUE(pubKeysEqual(*getParentPubKeyByPubKey(Key(2).pubKey), Key(1).pubKey));
  EXPECT_TRUE(keysEqual(*getParentKeyByKey(Key(2)), Key(1)));
  EXPECT_FALSE(getParentKeyByKey(Key(1)).has_value());
  EXPECT_TRUE(SameUuid(*getUuidByEncData(Key(1).encData), uuid));
  EXPECT_FALSE(getUuidByEncData(Key(2).encData).has_value());  // the NULL UUID is no answer
  EXPECT_EQ(getHandleByEncData(Key(2).encData), kFirst + 1);

  EXPECT_THAT(core_.TakeTraces(),
              ::testing::Contains("TCS:add_mem_cache_entry: parent =0x22330000\n"));
}

TEST_F(MemCacheTest, ContextsDriveReferenceCountsAndTheFirstKeyOutlivesItsContext) {
  ASSERT_EQ(add_mem_cache_entry(kFirst, kNoTpmHandle, Key(1), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 1, kNoTpmHandle, Key(2), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  TCS_CONTEXT_HANDLE ctx = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx), TSS_SUCCESS);
  ASSERT_EQ(ctx_AddKeyReference(ctx, kFirst), TSS_SUCCESS);
  ASSERT_EQ(ctx_AddKeyReference(ctx, kFirst + 1), TSS_SUCCESS);
  EXPECT_EQ(ctx_AddKeyReference(ctx, kFirst + 7), TCS_E_FAIL);  // the cache's answer
  EXPECT_EQ(RefCount(kFirst), 2);
  EXPECT_EQ(RefCount(kFirst + 1), 1);

  ASSERT_EQ(Tcsi_CloseContext_Internal(ctx), TSS_SUCCESS);
  EXPECT_EQ(RefCount(kFirst), 1);
  EXPECT_FALSE(getKeyEntryByKeyHandle(kFirst + 1).has_value());

  // At 0 a release succeeds and the count stays.
  ASSERT_EQ(add_mem_cache_entry(kFirst + 2, kNoTpmHandle, Key(3), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  EXPECT_EQ(decKeyRefCount(kFirst + 2), TSS_SUCCESS);
  EXPECT_EQ(RefCount(kFirst + 2), 0);
  EXPECT_THAT(core_.OrdinalsAfterStart(), IsEmpty());  // none of them was in a slot
}

TEST_F(MemCacheTest, SlotUpdatesMoveStampsAndOnlyTheSlotSideClearsResidence) {
  ASSERT_EQ(add_mem_cache_entry(kFirst, 0x01000001, Key(1), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 1, 0x01000002, Key(2), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  const UINT32 firstStamp = getKeyEntryByKeyHandle(kFirst)->loadStamp;
  EXPECT_GT(getKeyEntryByKeyHandle(kFirst + 1)->loadStamp, firstStamp);

  ASSERT_EQ(touchSlot(0x01000001), TSS_SUCCESS);
  EXPECT_GT(getKeyEntryByKeyHandle(kFirst)->loadStamp,
            getKeyEntryByKeyHandle(kFirst + 1)->loadStamp);

  ASSERT_EQ(setSlotByHandle(kFirst, kNoTpmHandle), TSS_SUCCESS);
  mem_cache_entry entry = *getKeyEntryByKeyHandle(kFirst);
  EXPECT_EQ(entry.tpmHandle, kNoTpmHandle);
  EXPECT_EQ(entry.loadStamp, 0u);
  EXPECT_TRUE(entry.inTpm);

  ASSERT_EQ(setSlotBySlot(0x01000002, kNoTpmHandle), TSS_SUCCESS);
  entry = *getKeyEntryByKeyHandle(kFirst + 1);
  EXPECT_EQ(entry.loadStamp, 0u);
  EXPECT_FALSE(entry.inTpm);

  // Back into a slot: a fresh stamp and the new handle.
  ASSERT_EQ(setSlotByHandle(kFirst + 1, 0x01000005), TSS_SUCCESS);
  EXPECT_EQ(getHandleBySlot(0x01000005), kFirst + 1);
  EXPECT_GT(getKeyEntryByKeyHandle(kFirst + 1)->loadStamp, 0u);
  EXPECT_EQ(getSlotByPubKey(Key(2).pubKey), 0x01000005u);
  EXPECT_EQ(getHandleByPubKey(Key(2).pubKey), kFirst + 1);

  EXPECT_EQ(setParentByHandle(kFirst + 1, kFirst), TSS_SUCCESS);
  EXPECT_EQ(setParentByHandle(kFirst + 1, 0x22339999), TCS_E_FAIL);
  EXPECT_EQ(getKeyEntryByKeyHandle(kFirst + 1)->parentTcsHandle, kFirst);
}

TEST_F(MemCacheTest, KeysMatchByPublicKeyAndEncDataAndAStrippedKeyMatchesAStrippedOne) {
  TPM_KEY stripped = Key(1);
  stripped.encData.clear();  // encSize kept
  ASSERT_EQ(add_mem_cache_entry(kFirst, 0x01000001, stripped, std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 1, 0x01000002, Key(2), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);

  EXPECT_EQ(getHandleByKey(stripped), kFirst);
  EXPECT_EQ(getHandleByKey(Key(1)), kNoTcsKeyHandle);  // exactly one side without encData
  EXPECT_EQ(getSlotByKey(Key(2)), 0x01000002u);
  TPM_KEY otherEnc = Key(2);
  otherEnc.encData[0] ^= 1;
  EXPECT_EQ(getHandleByKey(otherEnc), kNoTcsKeyHandle);
  TPM_KEY otherSize = Key(2);
  otherSize.encSize = 5;
  EXPECT_EQ(getHandleByKey(otherSize), kNoTcsKeyHandle);

  EXPECT_TRUE(isKeyInCache(Key(2)));
  EXPECT_FALSE(isKeyInCache(otherEnc));
  EXPECT_TRUE(versionsEqual(Key(1).ver, Key(2).ver));
  TPM_KEY_PARMS parms = Key(1).algorithmParms;
  EXPECT_TRUE(keyParmsEqual(parms, Key(2).algorithmParms));
  parms.parms.back() ^= 1;
  EXPECT_FALSE(keyParmsEqual(parms, Key(2).algorithmParms));
}

TEST_F(MemCacheTest, UnreferencedResidentKeysAreEvictedAndReferencedOnesStay) {
  // The first key (referenced by being first), a resident one, one without a slot, one evicted
  // from its slot, and one a context holds.
  ASSERT_EQ(add_mem_cache_entry(kFirst, 0x01000001, Key(1), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 1, 0x01000002, Key(2), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 2, kNoTpmHandle, Key(3), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 3, 0x01000004, Key(4), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(setSlotBySlot(0x01000004, kNoTpmHandle), TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst + 4, 0x01000005, Key(5), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  TCS_CONTEXT_HANDLE ctx = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx), TSS_SUCCESS);
  ASSERT_EQ(ctx_AddKeyReference(ctx, kFirst + 4), TSS_SUCCESS);

  ExpectFlush();
  removeUnreferencedKeys();
  EXPECT_THAT(core_.SentAfterStart(), ElementsAre(Flush(0x01000002)));
  EXPECT_TRUE(getKeyEntryByKeyHandle(kFirst).has_value());
  EXPECT_TRUE(getKeyEntryByKeyHandle(kFirst + 4).has_value());
  for (TCS_KEY_HANDLE gone : {kFirst + 1, kFirst + 2, kFirst + 3}) {
    EXPECT_FALSE(getKeyEntryByKeyHandle(gone).has_value()) << std::hex << gone;
  }

  // Closing the context releases its key: evicted too. A TPM that refuses does not keep it.
  core_.fake().Expect({FakeTpmBackend::Response(TPM_BAD_PARAMETER), TSS_SUCCESS, kFlushSpecific});
  ASSERT_EQ(Tcsi_CloseContext_Internal(ctx), TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(), Flush(0x01000005));
  EXPECT_FALSE(getKeyEntryByKeyHandle(kFirst + 4).has_value());

  ExpectFlush();
  removeAllKeys();
  EXPECT_EQ(core_.SentAfterStart().back(), Flush(0x01000001));
  EXPECT_FALSE(getKeyEntryByKeyHandle(kFirst).has_value());
  EXPECT_EQ(core_.fake().Unanswered(), 0u);
}

TEST_F(MemCacheTest, CopiesStayValidAfterTheirEntryIsRemoved) {
  ASSERT_EQ(add_mem_cache_entry(kFirst, kNoTpmHandle, Key(1), testing::MakeUuid(1), kNoTcsKeyHandle,
                                BlobOf(1)),
            TSS_SUCCESS);
  const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(kFirst);
  const std::optional<TPM_KEY> key = getKeyCopyByHandle(kFirst);
  const std::optional<TPM_PUBKEY> pub = getKeyParmsAndPubByHandle(kFirst);
  const std::optional<std::vector<BYTE>> blob = getKeyBlobByHandle(kFirst);
  ASSERT_TRUE(entry && key && pub && blob);
  ASSERT_EQ(removeEntryByHandle(kFirst), TSS_SUCCESS);
  EXPECT_EQ(removeEntryByHandle(kFirst), TCS_E_FAIL);

  EXPECT_TRUE(keysEqual(entry->key, Key(1)));
  EXPECT_TRUE(keysEqual(*key, Key(1)));
  EXPECT_TRUE(keyParmsEqual(pub->algorithmParms, Key(1).algorithmParms));
  EXPECT_TRUE(pubKeysEqual(pub->pubKey, Key(1).pubKey));
  EXPECT_EQ(*blob, BlobOf(1));
  EXPECT_EQ(entry->keyBlob, BlobOf(1));
}

TEST_F(MemCacheTest, ReplaceEntryRecordsANewSrk) {
  TPM_KEY oldSrk = Key(1);
  oldSrk.PCRInfo = {1, 2, 3};
  oldSrk.PCRInfoSize = 3;
  ASSERT_EQ(add_mem_cache_entry(kSrkKeyHandle, kSrkKeyHandle, oldSrk, kSrkUuid, kNoTcsKeyHandle),
            TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst, kNoTpmHandle, Key(2), std::nullopt, kNoTcsKeyHandle),
            TSS_SUCCESS);
  EXPECT_EQ(getKeyByHandle(kSrkKeyHandle)->PCRInfo, (Bytes{1, 2, 3}));  // copied with the key

  ASSERT_EQ(replaceEntry(kSrkKeyHandle, kSrkKeyHandle, Key(3)), TSS_SUCCESS);
  TPM_KEY srk;
  ASSERT_EQ(getKeyByUuid(kSrkUuid, &srk), TSS_SUCCESS);
  EXPECT_TRUE(keysEqual(srk, Key(3)));
  const mem_cache_entry entry = *getKeyEntryByKeyHandle(kSrkKeyHandle);
  EXPECT_EQ(entry.refCount, 1);
  EXPECT_EQ(entry.tpmHandle, kSrkKeyHandle);
  EXPECT_GT(entry.loadStamp, 0u);
  EXPECT_EQ(getHandleByKey(oldSrk), kNoTcsKeyHandle);  // the old SRK is gone, not shadowed
  EXPECT_EQ(getHandleBySlot(kSrkKeyHandle), kSrkKeyHandle);
}

TEST_F(MemCacheTest, EncDataUpdatesKeepTheExactBytesAndReachStorage) {
  // A key flag the marshaller drops (0x8) must survive in the bytes written back.
  Bytes blob = BlobOf(1);
  blob[9] = 0x08;
  const TSS_UUID uuid = testing::MakeUuid(3);
  ASSERT_EQ(writeKeyToPS(uuid, kSrkUuid, blob), TSS_SUCCESS);
  ASSERT_EQ(add_mem_cache_entry(kFirst, kNoTpmHandle, KeyFrom(blob), uuid, kNoTcsKeyHandle, blob),
            TSS_SUCCESS);
  const Bytes oldEnc = Key(1).encData;
  const Bytes newEnc = {9, 8, 7, 6};

  EXPECT_EQ(updateRegisteredEncData(uuid, newEnc, oldEnc), TCS_E_FAIL);  // holds other encData
  EXPECT_EQ(updateRegisteredEncData(uuid, oldEnc, Bytes{1}), TCS_E_BAD_PARAMETER);
  ASSERT_EQ(updateRegisteredEncData(uuid, oldEnc, newEnc), TSS_SUCCESS);
  Bytes expected = blob;
  std::copy(newEnc.begin(), newEnc.end(), expected.end() - 4);
  std::array<BYTE, 1024> stored{};
  UINT16 size = stored.size();
  ASSERT_EQ(getKeyBlobByUUID(uuid, stored, &size), TSS_SUCCESS);
  EXPECT_EQ(Bytes(stored.begin(), stored.begin() + size), expected);
  EXPECT_EQ(*getKeyBlobByHandle(kFirst), expected);

  // In the cache alone: by encData, and by handle with a new length.
  ASSERT_EQ(replaceEncData(newEnc, oldEnc), TSS_SUCCESS);
  EXPECT_EQ(getKeyByHandle(kFirst)->encData, oldEnc);
  EXPECT_EQ(replaceEncData(oldEnc, Bytes{1, 2}), TCS_E_BAD_PARAMETER);
  ASSERT_EQ(setEncDataByHandle(kFirst, Bytes{5, 5, 5, 5, 5, 5}), TSS_SUCCESS);
  const mem_cache_entry entry = *getKeyEntryByKeyHandle(kFirst);
  EXPECT_EQ(entry.key.encSize, 6u);
  TPM_KEY reparsed;
  ASSERT_TRUE(ParseKeyBlob(entry.keyBlob, &reparsed));
  EXPECT_TRUE(keysEqual(reparsed, entry.key));
  EXPECT_EQ(entry.keyBlob[9], 0x08);
}

// With an owner, storage makes sure its file has an SRK record; loading it enters the SRK into the
// cache, and storage's enumeration then answers from the cache.
TEST(MemCacheStartupTest, TheStoredSrkIsCachedAtStartUpAndEnumerationSeesIt) {
  testing::TestCore core(testing::CoreOptions().Owned());
  ASSERT_EQ(core.Start(), TSS_SUCCESS) << StartupFailureText();

  const std::optional<mem_cache_entry> srk = getKeyEntryByKeyHandle(kSrkKeyHandle);
  ASSERT_TRUE(srk.has_value());
  EXPECT_EQ(srk->tpmHandle, kSrkKeyHandle);
  EXPECT_TRUE(SameUuid(srk->uuid, kSrkUuid));
  EXPECT_EQ(srk->refCount, 1);
  EXPECT_EQ(srk->key.keyUsage, 0x0011);  // the placeholder: a storage key without a modulus
  EXPECT_EQ(srk->key.pubKey.keyLength, 0u);

  TCS_CONTEXT_HANDLE ctx = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx), TSS_SUCCESS);
  UINT32 count = 0;
  TSS_KM_KEYINFO* infos = nullptr;
  ASSERT_EQ(Tcsi_EnumRegisteredKeys_Internal(ctx, nullptr, &count, &infos), TSS_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(infos[0].fIsLoaded, 1);
  EXPECT_EQ(infos[0].bAuthDataUsage, 1);

  // Shut-down closes storage and empties the cache.
  core.Stop();
  EXPECT_FALSE(getKeyEntryByKeyHandle(kSrkKeyHandle).has_value());
}

}  // namespace
}  // namespace kesttcs
