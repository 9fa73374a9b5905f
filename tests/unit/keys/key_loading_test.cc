// Key loading, eviction and swapping against the scripted TPM, with the core brought up by the real
// start-up on an owned TPM (the SRK is cached; its secret is the well-known one): what a load sends
// and records, the reload of a key already resident, a swapped-out parent swapped in first, the
// chain under a parent that needs authorisation, the eviction rounds and their victims, the saved
// context limit, references shared by contexts, a lost context, and the two clean-ups of the TPM.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_eviction.h"
#include "keys/key_loading.h"
#include "keys/key_swapping.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/persistent_storage.h"
#include "storage/ps_format.h"
#include "storage/test_keys.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using Bytes = std::vector<BYTE>;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

Bytes U32(UINT32 v) { return {BYTE(v >> 24), BYTE(v >> 16), BYTE(v >> 8), BYTE(v)}; }
Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}
UINT32 U32At(const Bytes& b, size_t offset) {
  return UINT32(b[offset]) << 24 | UINT32(b[offset + 1]) << 16 | UINT32(b[offset + 2]) << 8 |
         b[offset + 3];
}

Bytes BlobOf(BYTE fill, BYTE authDataUsage = 0) {
  return testing::KeyBlob({.fill = fill, .authDataUsage = authDataUsage, .keyUsage = 0x0011});
}

class KeyLoadingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    core_.TakeTraces();
  }
  void TearDown() override {
    EXPECT_THAT(core_.fake().Mismatches(), IsEmpty());
    EXPECT_EQ(core_.fake().Unanswered(), 0u);
  }

  void Answer(UINT32 ordinal, const Bytes& body = {}, UINT32 code = TPM_SUCCESS) {
    core_.fake().Expect({FakeTpmBackend::Response(code, body), TSS_SUCCESS, ordinal});
  }
  // TPM_GetCapability(TPM_CAP_KEY_HANDLE) answered with `handles`.
  void AnswerKeyHandles(const std::vector<TPM_KEY_HANDLE>& handles) {
    Bytes body = Cat({U32(UINT32(2 + 4 * handles.size())), {0, BYTE(handles.size())}});
    for (TPM_KEY_HANDLE h : handles) body = Cat({body, U32(h)});
    Answer(TPM_ORD_GetCapability, body);
  }
  // TPM_GetCapability(TPM_CAP_CHECK_LOADED) answered with `fits`.
  void AnswerFits(bool fits) { Answer(TPM_ORD_GetCapability, Cat({U32(1), {BYTE(fits)}})); }
  // A load under the SRK: room, the service's own OIAP session, the authorised LoadKey2.
  void AnswerSrkLoad(TPM_KEY_HANDLE slot) {
    AnswerFits(true);
    Answer(TPM_ORD_OIAP, Cat({U32(0x02000000 + slot), Bytes(20, 0x11)}));
    Answer(TPM_ORD_LoadKey2, Cat({U32(slot), Bytes(41, 0)}));
  }
  TCS_KEY_HANDLE LoadUnderSrk(const Bytes& blob, TPM_KEY_HANDLE slot) {
    AnswerSrkLoad(slot);
    TCS_KEY_HANDLE handle = 0;
    EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                            nullptr, &handle),
              TSS_SUCCESS);
    return handle;
  }
  // A load under a resident parent other than the SRK: is the parent there, room, LoadKey2.
  TCS_KEY_HANDLE LoadUnder(TCS_KEY_HANDLE parent, TPM_KEY_HANDLE parentSlot, const Bytes& blob,
                           TPM_KEY_HANDLE slot) {
    AnswerKeyHandles({parentSlot});
    AnswerFits(true);
    Answer(TPM_ORD_LoadKey2, U32(slot));
    TCS_KEY_HANDLE handle = 0;
    EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, parent, UINT32(blob.size()), blob.data(), nullptr,
                                            &handle),
              TSS_SUCCESS);
    return handle;
  }
  std::vector<Bytes> SentSince(size_t before) const {
    const std::vector<Bytes> all = core_.SentAfterStart();
    return {all.begin() + std::ptrdiff_t(before), all.end()};
  }
  std::vector<UINT32> OrdinalsSince(size_t before) const {
    const std::vector<UINT32> all = core_.OrdinalsAfterStart();
    return {all.begin() + std::ptrdiff_t(before), all.end()};
  }
  size_t Sent() const { return core_.OrdinalsAfterStart().size(); }
  static mem_cache_entry Entry(TCS_KEY_HANDLE handle) {
    std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(handle);
    EXPECT_TRUE(entry.has_value());
    return entry.value_or(mem_cache_entry{});
  }

  testing::TestCore core_{testing::CoreOptions().Owned().NeedLog()};
  TCS_CONTEXT_HANDLE ctx_ = 0;
};

TEST_F(KeyLoadingTest, ALoadUnderTheSrkIsAuthorisedByTheServiceAndALoadAgainSendsNoLoad) {
  const Bytes blob = BlobOf(1);
  const size_t before = Sent();
  const TCS_KEY_HANDLE handle = LoadUnderSrk(blob, 0x01000001);
  EXPECT_EQ(handle, kFirstTcsKeyHandle);
  const std::vector<Bytes> sent = SentSince(before);
  ASSERT_EQ(sent.size(), 3u);
  // LoadKey2 with one session: the SRK, the exact blob, the trailer with continue 0.
  const Bytes& load = sent[2];
  EXPECT_EQ(load[1], 0xC2);
  EXPECT_EQ(U32At(load, 10), kSrkKeyHandle);
  EXPECT_TRUE(std::equal(blob.begin(), blob.end(), load.begin() + 14));
  EXPECT_EQ(U32At(load, 14 + blob.size()), 0x02000000u + 0x01000001u);
  EXPECT_EQ(load[14 + blob.size() + 24], 0);
  const mem_cache_entry entry = Entry(handle);
  EXPECT_EQ(entry.tpmHandle, 0x01000001u);
  EXPECT_TRUE(entry.inTpm);
  EXPECT_EQ(entry.refCount, 1);
  EXPECT_EQ(entry.keyBlob, blob);
  EXPECT_THAT(core_.TakeTraces(),
              Contains("TCS: tcskcm:tcsip_LoadKey2ByBlob_internal:Create_OIAP_Session_For_UseSRK "
                       "End\n"));

  // A second context loads the same blob: only the residence question is asked.
  TCS_CONTEXT_HANDLE other = 0;
  ASSERT_EQ(Tcsi_OpenContext_Internal(&other), TSS_SUCCESS);
  AnswerKeyHandles({0x01000001});
  const size_t again = Sent();
  TCS_KEY_HANDLE second = 0;
  ASSERT_EQ(Tcsip_LoadKey2ByBlob_Internal(other, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                          nullptr, &second),
            TSS_SUCCESS);
  EXPECT_EQ(second, handle);
  EXPECT_THAT(OrdinalsSince(again), ElementsAre(TPM_ORD_GetCapability));
  EXPECT_EQ(Entry(handle).refCount, 2);

  // Evicting from one context keeps the key for the other; the last reference evicts it.
  const size_t evicts = Sent();
  EXPECT_EQ(Tcsip_EvictKey_Internal(ctx_, handle), TSS_SUCCESS);
  EXPECT_THAT(OrdinalsSince(evicts), IsEmpty());
  EXPECT_EQ(Entry(handle).refCount, 1);
  Answer(TPM_ORD_FlushSpecific);
  EXPECT_EQ(Tcsip_EvictKey_Internal(other, handle), TSS_SUCCESS);
  EXPECT_THAT(OrdinalsSince(evicts), ElementsAre(TPM_ORD_FlushSpecific));
  EXPECT_FALSE(getKeyEntryByKeyHandle(handle).has_value());
  EXPECT_EQ(Tcsip_EvictKey_Internal(other, handle), TCS_E_FAIL);
  EXPECT_EQ(Tcsip_EvictKey_Internal(0x0BADC0DE, handle), TCS_E_INVALID_CONTEXT);
}

TEST_F(KeyLoadingTest, ASwappedOutParentIsSwappedInBeforeItsChildLoads) {
  const TCS_KEY_HANDLE parent = LoadUnderSrk(BlobOf(1), 0x01000001);
  // Swap the parent out: TPM_SaveContext with its label, then the flush.
  const Bytes context(300, 0xC7);
  Answer(TPM_ORD_SaveContext, Cat({U32(UINT32(context.size())), context}));
  Answer(TPM_ORD_FlushSpecific);
  const size_t save = Sent();
  ASSERT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000001), TSS_SUCCESS);
  const std::vector<Bytes> saved = SentSince(save);
  const Bytes label = {'f', 'o', 's', 'a', 'v', 'e', 'k', 'e',
                       'y', 'c', 'o', 'n', 't', 'e', 'x', 't'};
  EXPECT_TRUE(std::equal(label.begin(), label.end(), saved[0].begin() + 18));
  mem_cache_entry out = Entry(parent);
  EXPECT_FALSE(out.inTpm);
  EXPECT_EQ(out.tpmHandle, 0x01000001u);  // kept for the swap-in
  EXPECT_EQ(out.contextSize, context.size());
  EXPECT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000001), TSS_SUCCESS);  // already out: nothing sent

  // The child's load swaps the parent in (keeping its handle as the hint) and loads under it.
  AnswerFits(true);
  Answer(TPM_ORD_LoadContext, U32(0x01000007));
  AnswerFits(true);
  Answer(TPM_ORD_LoadKey2, U32(0x01000002));
  const Bytes child = BlobOf(2);
  const size_t load = Sent();
  TCS_KEY_HANDLE handle = 0;
  ASSERT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, parent, UINT32(child.size()), child.data(), nullptr,
                                          &handle),
            TSS_SUCCESS);
  const std::vector<Bytes> sent = SentSince(load);
  ASSERT_THAT(OrdinalsSince(load), ElementsAre(TPM_ORD_GetCapability, TPM_ORD_LoadContext,
                                               TPM_ORD_GetCapability, TPM_ORD_LoadKey2));
  EXPECT_EQ(U32At(sent[1], 10), 0x01000001u);  // the old handle as hint
  EXPECT_EQ(sent[1][14], 1);                   // keepHandle
  EXPECT_EQ(U32At(sent[1], 15), context.size());
  EXPECT_EQ(sent[3][1], 0xC1);
  EXPECT_EQ(U32At(sent[3], 10), 0x01000007u);  // under the parent's new slot
  out = Entry(parent);
  EXPECT_TRUE(out.inTpm);
  EXPECT_EQ(out.tpmHandle, 0x01000007u);
  EXPECT_EQ(out.contextSize, 0u);
  EXPECT_EQ(Entry(handle).parentTcsHandle, parent);
}

TEST_F(KeyLoadingTest, AChainUnderAParentThatNeedsAuthorisationIsNotReloaded) {
  const TCS_KEY_HANDLE root = LoadUnderSrk(BlobOf(1, /*authDataUsage=*/1), 0x01000001);
  const TCS_KEY_HANDLE middle = LoadUnder(root, 0x01000001, BlobOf(2), 0x01000002);
  const TCS_KEY_HANDLE leaf = LoadUnder(middle, 0x01000002, BlobOf(3), 0x01000003);
  for (auto [handle, slot] : {std::pair{leaf, 0x01000003u}, std::pair{middle, 0x01000002u}}) {
    Answer(TPM_ORD_FlushSpecific);
    ASSERT_EQ(evictKeyByHandle(ctx_, handle), TSS_SUCCESS);
    EXPECT_EQ(Entry(handle).tpmHandle, kNoTpmHandle) << slot;
  }
  core_.TakeTraces();
  const size_t before = Sent();
  TPM_KEY_HANDLE slot = 0;
  EXPECT_EQ(ensureKeyIsLoaded(ctx_, leaf, &slot), TCS_E_INVALID_KEY);
  EXPECT_EQ(TCS_E_INVALID_KEY, 0xE02820CAu);
  EXPECT_THAT(OrdinalsSince(before), IsEmpty());
  EXPECT_THAT(core_.TakeTraces(), Contains("TCS:Parent key need auth,LoadKeyShim_New Fail\n"));
}

TEST_F(KeyLoadingTest, RoomIsMadeByFourSwapsOfTheLeastRecentlyUsedUnprotectedKeys) {
  const TCS_KEY_HANDLE first = LoadUnderSrk(BlobOf(1), 0x01000001);
  const TCS_KEY_HANDLE second = LoadUnderSrk(BlobOf(2), 0x01000002);
  const TCS_KEY_HANDLE third = LoadUnderSrk(BlobOf(3), 0x01000003);
  // Using the first key makes the second the least recently used.
  AnswerKeyHandles({0x01000001, 0x01000002, 0x01000003});
  TPM_KEY_HANDLE slot = 0;
  ASSERT_EQ(ensureKeyIsLoaded(ctx_, first, &slot), TSS_SUCCESS);
  EXPECT_EQ(slot, 0x01000001u);

  // A fourth key never fits: each round lists the TPM's keys, swaps one out and asks again; the
  // fourth round finds no victim left, and the load gives up.
  AnswerFits(false);
  std::vector<TPM_KEY_HANDLE> resident = {0x01000001, 0x01000002, 0x01000003};
  for (TPM_KEY_HANDLE victim : {0x01000002u, 0x01000003u, 0x01000001u}) {
    AnswerKeyHandles(resident);
    Answer(TPM_ORD_SaveContext, Cat({U32(4), Bytes(4, 0xC0)}));
    Answer(TPM_ORD_FlushSpecific);
    AnswerFits(false);
    resident.erase(std::find(resident.begin(), resident.end(), victim));
  }
  AnswerKeyHandles({});
  AnswerFits(false);
  core_.TakeTraces();
  const size_t before = Sent();
  const Bytes blob = BlobOf(4);
  TCS_KEY_HANDLE handle = 0;
  EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                          nullptr, &handle),
            TCS_E_INVALID_KEY);
  std::vector<TPM_KEY_HANDLE> saved;
  for (const Bytes& command : SentSince(before)) {
    if (U32At(command, 6) == TPM_ORD_SaveContext) saved.push_back(U32At(command, 10));
  }
  EXPECT_THAT(saved, ElementsAre(0x01000002u, 0x01000003u, 0x01000001u));
  EXPECT_THAT(OrdinalsSince(before), Not(Contains(TPM_ORD_LoadKey2)));
  const std::vector<std::string> traces = core_.TakeTraces();
  char eviction[96];
  std::snprintf(eviction, sizeof eviction,
                "TCS: tcskcm:tcsip_LoadKey2ByBlob_internal:evictFirstKey second.hContext=0x%.8x.\n",
                ctx_);
  EXPECT_EQ(std::count(traces.begin(), traces.end(), std::string(eviction)), 4);
  EXPECT_THAT(traces,
              Contains("TCS: tcskcm:tcsip_LoadKey2ByBlob_internal:CanILoadThisKey has exec 3 "
                       "times,fail.\n"));
  for (TCS_KEY_HANDLE h : {first, second, third}) EXPECT_FALSE(Entry(h).inTpm);
}

TEST_F(KeyLoadingTest, ASavedContextOverTheLimitIsRefusedAndTheKeyStaysResident) {
  const TCS_KEY_HANDLE handle = LoadUnderSrk(BlobOf(1), 0x01000001);
  Answer(TPM_ORD_SaveContext, Cat({U32(2049), Bytes(2049, 0xC0)}));
  const size_t before = Sent();
  EXPECT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000001), TCS_E_OUTOFMEMORY);
  EXPECT_THAT(OrdinalsSince(before), ElementsAre(TPM_ORD_SaveContext));  // no flush
  const mem_cache_entry entry = Entry(handle);
  EXPECT_TRUE(entry.inTpm);
  EXPECT_EQ(entry.contextSize, 0u);
  EXPECT_EQ(entry.tpmHandle, 0x01000001u);
  // The bounds of the call itself.
  EXPECT_EQ(saveKeyContext(TPM_RT_AUTH, 0x01000001), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000099), TCS_E_FAIL);
  TPM_KEY_HANDLE newHandle = 0;
  EXPECT_EQ(internal_LoadContext(TPM_RT_KEY, 0x01000001, &newHandle), TCS_E_FAIL);  // resident
  EXPECT_EQ(internal_LoadContext(TPM_RT_AUTH, 0x01000001, &newHandle), TCS_E_BAD_PARAMETER);
}

TEST_F(KeyLoadingTest, AKeyWhoseSavedContextIsLostIsLoadedAgainFromItsExactBytes) {
  // Key flags 0x8 and 0x10 are dropped by the unpacked structure, but the TPM's digest covers them.
  Bytes blob = BlobOf(1);
  blob[9] = 0x18;
  const TCS_KEY_HANDLE handle = LoadUnderSrk(blob, 0x01000001);
  Answer(TPM_ORD_SaveContext, Cat({U32(4), Bytes(4, 0xC0)}));
  Answer(TPM_ORD_FlushSpecific);
  ASSERT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000001), TSS_SUCCESS);

  // The TPM restarted: its saved contexts are void.
  AnswerFits(true);
  Answer(TPM_ORD_LoadContext, {}, TPM_BADCONTEXT);
  AnswerSrkLoad(0x01000004);
  const size_t before = Sent();
  TPM_KEY_HANDLE slot = 0;
  ASSERT_EQ(ensureKeyIsLoaded(ctx_, handle, &slot), TSS_SUCCESS);
  EXPECT_EQ(slot, 0x01000004u);
  const std::vector<Bytes> sent = SentSince(before);
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_TRUE(std::equal(blob.begin(), blob.end(), sent[4].begin() + 14));
  const mem_cache_entry entry = Entry(handle);
  EXPECT_TRUE(entry.inTpm);
  EXPECT_EQ(entry.tpmHandle, 0x01000004u);
  EXPECT_EQ(entry.refCount, 1);
}

TEST_F(KeyLoadingTest, ClearingTheChipKeepsTheSrkAndEkAndClearingUnknownKeysKeepsCachedOnes) {
  AnswerKeyHandles({0x40000000, 0x01000001, 0x40000001, 0x01000002});
  Answer(TPM_ORD_FlushSpecific);
  Answer(TPM_ORD_FlushSpecific);
  size_t before = Sent();
  ASSERT_EQ(clearKeysFromChip(ctx_), TSS_SUCCESS);
  std::vector<Bytes> sent = SentSince(before);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(U32At(sent[1], 10), 0x01000001u);
  EXPECT_EQ(U32At(sent[2], 10), 0x01000002u);
  // The first failure ends the walk.
  AnswerKeyHandles({0x01000001, 0x01000002});
  Answer(TPM_ORD_FlushSpecific, {}, TPM_BAD_PARAMETER);
  EXPECT_EQ(clearKeysFromChip(ctx_), TpmResult(TPM_BAD_PARAMETER));

  // A cached key that was swapped out but is listed is marked resident; unknown handles are
  // evicted, a key only the owner may evict is passed over.
  const TCS_KEY_HANDLE cached = LoadUnderSrk(BlobOf(1), 0x01000005);
  Answer(TPM_ORD_SaveContext, Cat({U32(4), Bytes(4, 0xC0)}));
  Answer(TPM_ORD_FlushSpecific);
  ASSERT_EQ(saveKeyContext(TPM_RT_KEY, 0x01000005), TSS_SUCCESS);
  AnswerKeyHandles({0x01000009, 0x01000005, 0x0100000A});
  Answer(TPM_ORD_FlushSpecific, {}, TPM_KEY_OWNER_CONTROL);
  Answer(TPM_ORD_FlushSpecific);
  before = Sent();
  ASSERT_EQ(clearUnknownKeys(ctx_), TSS_SUCCESS);
  sent = SentSince(before);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(U32At(sent[1], 10), 0x01000009u);
  EXPECT_EQ(U32At(sent[2], 10), 0x0100000Au);
  EXPECT_TRUE(Entry(cached).inTpm);

  // ResetAllKeyStatus follows the TPM's list alone.
  AnswerKeyHandles({});
  ASSERT_EQ(ResetAllKeyStatus(), TSS_SUCCESS);
  EXPECT_FALSE(Entry(cached).inTpm);
}

TEST_F(KeyLoadingTest, BadInputGetsClearResults) {
  const Bytes shortBlob = {1, 1, 0, 0};
  TCS_KEY_HANDLE handle = 0;
  EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(0x0BADC0DE, kSrkKeyHandle, 4, shortBlob.data(), nullptr,
                                          &handle),
            TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, 4, nullptr, nullptr, &handle),
            TCS_E_BAD_PARAMETER);
  EXPECT_NE(
      Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, 4, shortBlob.data(), nullptr, &handle),
      TSS_SUCCESS);
  // A parent that is not cached cannot be loaded.
  const Bytes blob = BlobOf(1);
  EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, 0x22339999, UINT32(blob.size()), blob.data(),
                                          nullptr, &handle),
            TCS_E_INVALID_KEY);
  EXPECT_EQ(Tcsip_LoadKeyByUUID_Internal(ctx_, testing::MakeUuid(7), nullptr, &handle),
            TCS_E_KEY_NOT_REGISTERED);
  // The SRK by its UUID is resident already: only referenced.
  EXPECT_EQ(Tcsip_LoadKeyByUUID_Internal(ctx_, kSrkUuid, nullptr, &handle), TSS_SUCCESS);
  EXPECT_EQ(handle, kSrkKeyHandle);
  EXPECT_EQ(Entry(kSrkKeyHandle).refCount, 2);
}

}  // namespace
}  // namespace kesttcs
