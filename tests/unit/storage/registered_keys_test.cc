// The TCS operations on registered keys: their results in the designed edge cases, what
// TSS_KM_KEYINFO carries, and the hooks through which the key cache and the owner-held key list
// answer first.
#include "storage/registered_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "storage_test_support.h"

namespace kesttcs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr TCS_CONTEXT_HANDLE kInternal = kInternalContextHandle;

class RegisteredKeysTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  }

  // Enumeration from `uuid` (null: everything): the result, and the key infos it gave.
  TSS_RESULT Enumerate(const TSS_UUID* uuid, std::vector<TSS_KM_KEYINFO>* out,
                       TCS_CONTEXT_HANDLE hContext = kInternal) {
    UINT32 count = 99;
    TSS_KM_KEYINFO* infos = nullptr;
    const TSS_RESULT r = Tcsi_EnumRegisteredKeys_Internal(hContext, uuid, &count, &infos);
    out->clear();
    if (r == TCS_E_INVALID_CONTEXT) return r;  // outputs untouched
    // An empty result, and any failure, is a count of 0 and no array.
    EXPECT_EQ(infos == nullptr, count == 0);
    if (infos != nullptr) out->assign(infos, infos + count);
    for (const TSS_KM_KEYINFO& info : *out) {
      EXPECT_EQ(info.ulVendorDataLength, 0u);
      EXPECT_EQ(info.rgbVendorData, nullptr);
    }
    return r;
  }

  static std::vector<TSS_UUID> UuidsOf(const std::vector<TSS_KM_KEYINFO>& infos) {
    std::vector<TSS_UUID> uuids;
    for (const TSS_KM_KEYINFO& info : infos) uuids.push_back(info.keyUUID);
    return uuids;
  }

  TSS_RESULT BlobOf(const TSS_UUID& uuid, Bytes* blob) {
    UINT32 size = 0;
    BYTE* bytes = nullptr;
    const TSS_RESULT r = Tcsi_GetRegisteredKeyBlob_Internal(kInternal, uuid, &size, &bytes);
    blob->assign(bytes, bytes + size);
    return r;
  }
};

TEST_F(RegisteredKeysTest, RegistrationChecksParentAndUuidAndStoresOnlyParsingBlobs) {
  const TSS_UUID key = MakeUuid(1);
  const Bytes blob = KeyBlob({});
  EXPECT_EQ(Register(key, MakeUuid(7), blob), TCS_E_KEY_NOT_REGISTERED);
  ASSERT_EQ(Register(key, kSrk, blob), TSS_SUCCESS);
  EXPECT_EQ(Register(key, kSrk, blob), TCS_E_KEY_ALREADY_REGISTERED);
  // The SRK's UUID always counts as registered, record or not.
  EXPECT_EQ(Register(kSrk, kSrk, blob), TCS_E_KEY_ALREADY_REGISTERED);
  EXPECT_EQ(Register(MakeUuid(2), key, Bytes(blob.begin(), blob.end() - 1)), TCS_E_FAIL);
  EXPECT_EQ(Register(MakeUuid(2), key, KeyBlob({.modulusSize = 2045})), TCS_E_FAIL);
  EXPECT_EQ(Tcsi_RegisterKey_Internal(kInternal, kSrk, MakeUuid(2), 4, nullptr, 0, nullptr),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsi_RegisterKey_Internal(0x12345678, kSrk, MakeUuid(2), UINT32(blob.size()),
                                      blob.data(), 0, nullptr),
            TCS_E_INVALID_CONTEXT);

  // Vendor data is not stored: the record is the one without it.
  const BYTE vendor[3] = {1, 2, 3};
  ASSERT_EQ(Tcsi_RegisterKey_Internal(kInternal, key, MakeUuid(3), UINT32(blob.size()), blob.data(),
                                      3, vendor),
            TSS_SUCCESS);
  EXPECT_EQ(StoredKeys()[0], (StoredKey{MakeUuid(3), key, blob}));

  EXPECT_EQ(Tcsip_UnregisterKey_Internal(kInternal, MakeUuid(3)), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_UnregisterKey_Internal(kInternal, MakeUuid(3)), TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(Tcsip_UnregisterKey_Internal(0x12345678, key), TCS_E_INVALID_CONTEXT);

  // Storage closed: the check cannot be made.
  ps_close();
  EXPECT_EQ(Register(MakeUuid(4), kSrk, blob), TCS_E_INTERNAL_ERROR);
}

TEST_F(RegisteredKeysTest, EnumerationListsEverythingOrWalksUpAtMostTenKeys) {
  std::vector<TSS_KM_KEYINFO> infos;
  EXPECT_EQ(Enumerate(nullptr, &infos), TSS_SUCCESS);
  EXPECT_TRUE(infos.empty());
  const TSS_UUID unknown = MakeUuid(99);
  EXPECT_EQ(Enumerate(&unknown, &infos), TCS_E_KEY_NOT_REGISTERED);
  // The SRK without a record: registered, but nothing to list.
  EXPECT_EQ(Enumerate(&kSrk, &infos), TSS_SUCCESS);
  EXPECT_TRUE(infos.empty());

  // A chain of 12 keys, 1 under the SRK, each next one under the one before.
  std::vector<TSS_UUID> chain;
  TSS_UUID parent = kSrk;
  for (UINT32 i = 1; i <= 12; ++i) {
    chain.push_back(MakeUuid(i));
    ASSERT_EQ(Register(chain.back(), parent, KeyBlob({.authDataUsage = BYTE(i % 2)})), TSS_SUCCESS);
    parent = chain.back();
  }
  ASSERT_EQ(Enumerate(&chain[11], &infos), TSS_SUCCESS);
  EXPECT_THAT(UuidsOf(infos),
              ElementsAreArray(std::vector<TSS_UUID>(chain.rbegin(), chain.rbegin() + 10)));
  EXPECT_EQ(infos[0].parentKeyUUID, chain[10]);
  EXPECT_EQ(infos[0].bAuthDataUsage, 0);  // key 12
  EXPECT_EQ(infos[1].bAuthDataUsage, 1);  // key 11
  EXPECT_EQ(infos[0].versionInfo.bMajor, 1);
  EXPECT_EQ(infos[0].versionInfo.bMinor, 1);
  EXPECT_EQ(infos[0].fIsLoaded, 0);
  // From key 3: 3, 2, 1, then the SRK, which has no record.
  ASSERT_EQ(Enumerate(&chain[2], &infos), TSS_SUCCESS);
  EXPECT_THAT(UuidsOf(infos), ElementsAre(chain[2], chain[1], chain[0]));

  // Everything, newest first.
  ASSERT_EQ(Enumerate(nullptr, &infos), TSS_SUCCESS);
  EXPECT_EQ(infos.size(), 12u);
  EXPECT_EQ(infos.front().keyUUID, chain.back());

  // A blob beyond 2048 bytes fails the whole enumeration.
  ASSERT_EQ(Register(MakeUuid(50), kSrk, KeyBlob({.modulusSize = 1100, .encSize = 1000})),
            TSS_SUCCESS);
  EXPECT_EQ(Enumerate(nullptr, &infos), TCS_E_INTERNAL_ERROR);
  EXPECT_TRUE(infos.empty());
  EXPECT_EQ(Enumerate(&chain[0], &infos), TSS_SUCCESS);

  UINT32 count = 0;
  TSS_KM_KEYINFO* out = nullptr;
  EXPECT_EQ(Tcsi_EnumRegisteredKeys_Internal(kInternal, nullptr, nullptr, &out),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsi_EnumRegisteredKeys_Internal(kInternal, nullptr, &count, nullptr),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Enumerate(nullptr, &infos, 0x12345678), TCS_E_INVALID_CONTEXT);
}

TEST_F(RegisteredKeysTest, SingleKeyOperationsReadAtMost1024Bytes) {
  const TSS_UUID small = MakeUuid(1), exact = MakeUuid(2), large = MakeUuid(3);
  const Bytes smallBlob = KeyBlob({.authDataUsage = 1});
  // 47 fixed bytes plus modulus and encrypted part.
  const Bytes exactBlob = KeyBlob({.modulusSize = 500, .encSize = 1024 - 47 - 500});
  const Bytes largeBlob = KeyBlob({.modulusSize = 500, .encSize = 1025 - 47 - 500});
  ASSERT_EQ(exactBlob.size(), 1024u);
  ASSERT_EQ(Register(small, kSrk, smallBlob), TSS_SUCCESS);
  ASSERT_EQ(Register(exact, small, exactBlob), TSS_SUCCESS);
  ASSERT_EQ(Register(large, small, largeBlob), TSS_SUCCESS);

  TSS_KM_KEYINFO* info = nullptr;
  ASSERT_EQ(Tcsi_GetRegisteredKey_Internal(kInternal, exact, &info), TSS_SUCCESS);
  EXPECT_EQ(info->keyUUID, exact);
  EXPECT_EQ(info->parentKeyUUID, small);
  EXPECT_EQ(info->fIsLoaded, 0);
  ASSERT_EQ(Tcsi_GetRegisteredKey_Internal(kInternal, small, &info), TSS_SUCCESS);
  EXPECT_EQ(info->bAuthDataUsage, 1);
  EXPECT_EQ(Tcsi_GetRegisteredKey_Internal(kInternal, large, &info), TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(Tcsi_GetRegisteredKey_Internal(kInternal, MakeUuid(9), &info),
            TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(Tcsi_GetRegisteredKey_Internal(kInternal, small, nullptr), TCS_E_BAD_PARAMETER);

  Bytes blob;
  EXPECT_EQ(BlobOf(exact, &blob), TSS_SUCCESS);
  EXPECT_EQ(blob, exactBlob);
  EXPECT_EQ(BlobOf(large, &blob), TCS_E_KEY_NOT_REGISTERED);

  // By public info: RSA only, the bare modulus.
  UINT32 size = 0;
  BYTE* bytes = nullptr;
  const Bytes modulus(smallBlob.begin() + 43, smallBlob.begin() + 51);
  ASSERT_EQ(Tcsip_GetRegisteredKeyByPublicInfo_Internal(kInternal, 1, UINT32(modulus.size()),
                                                        modulus.data(), &size, &bytes),
            TSS_SUCCESS);
  EXPECT_EQ(Bytes(bytes, bytes + size), smallBlob);
  EXPECT_EQ(Tcsip_GetRegisteredKeyByPublicInfo_Internal(kInternal, 2, UINT32(modulus.size()),
                                                        modulus.data(), &size, &bytes),
            TCS_E_FAIL);
  const Bytes largeModulus(largeBlob.begin() + 43, largeBlob.begin() + 543);
  EXPECT_EQ(Tcsip_GetRegisteredKeyByPublicInfo_Internal(kInternal, 1, UINT32(largeModulus.size()),
                                                        largeModulus.data(), &size, &bytes),
            TCS_E_KEY_NOT_REGISTERED);
  EXPECT_EQ(
      Tcsip_GetRegisteredKeyByPublicInfo_Internal(kInternal, 1, 3, modulus.data(), &size, &bytes),
      TCS_E_KEY_NOT_REGISTERED);
}

// A record whose blob is empty (its size field 0, as a damaged or foreign file may have it): the
// blob lookup hands out nothing, without copying from the empty blob's missing bytes.
TEST_F(RegisteredKeysTest, AnEmptyStoredBlobIsHandedOutEmpty) {
  const TSS_UUID key = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 7}};
  Bytes file = {0, 0, 0, 0, 1, 0, 0, 0};  // checksum (not checked here), one record
  const Bytes uuid(15, 0);
  file.insert(file.end(), uuid.begin(), uuid.end());
  file.push_back(7);  // the key's UUID
  file.insert(file.end(), uuid.begin(), uuid.end());
  file.push_back(1);                               // its parent, the SRK
  file.insert(file.end(), {0, 0, 0, 0, 0x03, 0});  // no public data, no blob; valid, system parent
  ps_close();
  WriteFileBytes(dataFile_, file);
  ASSERT_EQ(ps_init(dataFile_, false), TSS_SUCCESS);
  Bytes blob = {1};
  EXPECT_EQ(BlobOf(key, &blob), TSS_SUCCESS);
  EXPECT_TRUE(blob.empty());
}

TEST_F(RegisteredKeysTest, KeyCacheAndOwnerHeldListAnswerThroughTheirHooks) {
  const TSS_UUID loaded = MakeUuid(1), cachedOnly = MakeUuid(2), stored = MakeUuid(3);
  for (const TSS_UUID& u : {loaded, cachedOnly, stored}) {
    ASSERT_EQ(Register(u, kSrk, KeyBlob({})), TSS_SUCCESS);
  }
  TPM_KEY held;
  held.ver = {1, 2, 3, 4};
  held.keyUsage = 0x0014;
  held.algorithmParms.algorithmID = 1;
  ps_RegisterHooks({
      .findCachedKey = [&](const TSS_UUID& uuid) -> std::optional<CachedKeyFacts> {
        if (uuid == loaded) return CachedKeyFacts{{1, 2, 0, 0}, 3, 0x01000005};
        if (uuid == cachedOnly) return CachedKeyFacts{{1, 2, 0, 0}, 1, kNoTpmHandle};
        return std::nullopt;
      },
      .findOwnerHeldKey = [&](const TSS_UUID& uuid) -> std::optional<TPM_KEY> {
        if (uuid == stored) return held;
        return std::nullopt;
      },
  });

  std::vector<TSS_KM_KEYINFO> infos;
  ASSERT_EQ(Enumerate(nullptr, &infos), TSS_SUCCESS);
  ASSERT_EQ(infos.size(), 3u);
  // stored, cachedOnly, loaded: newest first.
  EXPECT_EQ(infos[0].versionInfo.bMinor, 1);
  EXPECT_EQ(infos[0].fIsLoaded, 0);
  EXPECT_EQ(infos[1].versionInfo.bMinor, 2);
  EXPECT_EQ(infos[1].bAuthDataUsage, 1);
  EXPECT_EQ(infos[1].fIsLoaded, 0);
  EXPECT_EQ(infos[2].bAuthDataUsage, 3);
  EXPECT_EQ(infos[2].fIsLoaded, 1);

  // The owner-held list answers first, with the key marshalled as a TCPA_KEY.
  Bytes blob;
  ASSERT_EQ(BlobOf(stored, &blob), TSS_SUCCESS);
  EXPECT_EQ(blob.size(), 35u);  // 4 + 2 + 4 + 1 + 12 + 4 + 4 + 4: no variable part
  EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 6), (Bytes{1, 2, 3, 4, 0x00, 0x14}));
  ASSERT_EQ(BlobOf(loaded, &blob), TSS_SUCCESS);
  EXPECT_EQ(blob, KeyBlob({}));
}

}  // namespace
}  // namespace kesttcs::testing
