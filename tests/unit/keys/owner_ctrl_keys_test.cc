// Owner-held keys against the scripted TPM, with the core brought up by the real start-up on an
// owned TPM: the start-up step that re-enters listed keys still loaded (and its match flag that is
// not cleared between records, and its failure), the list asked first for a registered key's blob,
// the swapper and the TPM clean-up leaving owner-held keys alone, and TPM_KeyControlOwner's bytes
// and the list it keeps in step, until the owner is cleared.
#include "keys/owner_ctrl_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_key_control.h"
#include "commands/tcsip_owner.h"
#include "commands/tcsip_sessions.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_eviction.h"
#include "keys/key_loading.h"
#include "keys/key_swapping.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/owner_held_keys.h"
#include "storage/registered_keys.h"
#include "storage/storage_test_support.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

namespace fs = std::filesystem;
using namespace command_bytes;  // NOLINT: the byte builders read as a notation
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr TSS_UUID kUuidGone = {1, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};
constexpr TSS_UUID kUuidLoaded = {2, 0, 0, 0, 0, {0, 0, 0, 0, 0, 2}};
constexpr TSS_UUID kUuidAfterMatch = {3, 0, 0, 0, 0, {0, 0, 0, 0, 0, 3}};
constexpr TSS_UUID kFirstOwnerEvictUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 1, 0}};
constexpr TCS_AUTHHANDLE kSession = 0x02000077;

Bytes BlobOf(BYTE fill) { return testing::KeyBlob({.fill = fill}); }

// The TPM_PUBKEY of a testing::KeyBlob: its key parameters and its public key.
Bytes PubKeyOf(const Bytes& blob) {
  return Cat(
      {Bytes(blob.begin() + 11, blob.begin() + 35), Bytes(blob.begin() + 39, blob.end() - 8)});
}

class OwnerCtrlKeysTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_THAT(core_.fake().Mismatches(), IsEmpty());
    EXPECT_EQ(core_.fake().Unanswered(), 0u);
  }
  fs::path CtrlFile() const { return fs::path(core_.home()) / "data" / "KestCtrl.dat"; }
  void Answer(UINT32 ordinal, const Bytes& body = {}) {
    core_.fake().Expect({FakeTpmBackend::Response(TPM_SUCCESS, body), TSS_SUCCESS, ordinal});
  }
  void AnswerKeyHandles(const std::vector<TPM_KEY_HANDLE>& handles) {
    Bytes body = Cat({U32(UINT32(2 + 4 * handles.size())), U16(UINT16(handles.size()))});
    for (TPM_KEY_HANDLE h : handles) body = Cat({body, U32(h)});
    Answer(TPM_ORD_GetCapability, body);
  }
  size_t Sent() const { return core_.SentAfterStart().size(); }

  testing::TestCore core_{testing::CoreOptions().Owned()};
  TCS_CONTEXT_HANDLE ctx_ = 0;
};

TEST_F(OwnerCtrlKeysTest, StartUpReentersLoadedKeysAndKeepsARecordAfterTheFirstMatch) {
  const std::vector<OwnerHeldKey> records = {{kUuidGone, 0x01000001, BlobOf(0x10)},
                                             {kUuidLoaded, 0x01000005, BlobOf(0x20)},
                                             {kUuidAfterMatch, 0x01000009, BlobOf(0x30)}};
  fs::create_directories(CtrlFile().parent_path());
  testing::WriteFileBytes(CtrlFile(), EncodeOwnerHeldFile(records));
  AnswerKeyHandles({0x01000005});
  ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
  ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);

  // The gone record before any match is dropped; the gone one after it stays (the flag is kept).
  const std::vector<OwnerHeldKey> kept = {records[1], records[2]};
  EXPECT_EQ(testing::ReadFileBytes(CtrlFile()), EncodeOwnerHeldFile(kept));
  const TCS_KEY_HANDLE held = getHandleBySlot(0x01000005);
  ASSERT_NE(held, kNoTcsKeyHandle);
  const std::optional<mem_cache_entry> entry = getKeyEntryByKeyHandle(held);
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->refCount, 1) << "the list holds the key";
  EXPECT_TRUE(entry->inTpm);
  EXPECT_EQ(entry->uuid, kUuidLoaded);
  EXPECT_EQ(entry->keyBlob, records[1].blob);
  EXPECT_EQ(getHandleBySlot(0x01000009), kNoTcsKeyHandle) << "only loaded keys are cached";

  // A registered key's blob is asked of the list first.
  UINT32 size = 0;
  BYTE* blob = nullptr;
  ASSERT_EQ(Tcsi_GetRegisteredKeyBlob_Internal(ctx_, kUuidLoaded, &size, &blob), TSS_SUCCESS);
  EXPECT_EQ(Bytes(blob, blob + size), records[1].blob);
  EXPECT_EQ(ctx_ReleaseMemory(ctx_, blob), TSS_SUCCESS);

  // Neither the swapper nor the clean-up of the TPM touch it: only the key-handle lists are sent.
  const size_t before = Sent();
  AnswerKeyHandles({0x01000005});
  EXPECT_EQ(evictFirstKey(kNoTcsKeyHandle), TSS_SUCCESS);
  AnswerKeyHandles({0x40000000, 0x01000005});
  EXPECT_EQ(clearKeysFromChip(ctx_), TSS_SUCCESS);
  EXPECT_EQ(Sent(), before + 2);
  EXPECT_TRUE(getKeyEntryByKeyHandle(held)->inTpm);

  // A context that closes leaves it cached.
  ASSERT_EQ(Tcsi_CloseContext_Internal(ctx_), TSS_SUCCESS);
  EXPECT_EQ(getHandleBySlot(0x01000005), held);
}

TEST(OwnerCtrlKeysStartTest, AStartUpThatCannotAskTheTpmFailsTracedAndKeepsTheFile) {
  testing::TestCore core(testing::CoreOptions().Owned().NeedLog());
  const fs::path file = fs::path(core.home()) / "data" / "KestCtrl.dat";
  fs::create_directories(file.parent_path());
  const Bytes bytes = EncodeOwnerHeldFile({{{kUuidLoaded, 0x01000005, BlobOf(0x20)}}});
  testing::WriteFileBytes(file, bytes);
  core.fake().Expect({FakeTpmBackend::Response(TPM_FAIL), TSS_SUCCESS, TPM_ORD_GetCapability});
  EXPECT_EQ(core.Start(), TpmResult(TPM_FAIL));
  EXPECT_THAT(core.Traces(), Contains(HasSubstr("KestTcs_startup:InitOwnerCtrlKey Fail!")));
  EXPECT_THAT(owner_keys_list(), IsEmpty()) << "released again";
  EXPECT_EQ(testing::ReadFileBytes(file), bytes);
}

TEST_F(OwnerCtrlKeysTest, KeyControlOwnerSendsTheKeyAndKeepsTheListInStep) {
  ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
  ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
  const Bytes blob = BlobOf(0x40);
  // Loaded under the SRK with the service's own session.
  Answer(TPM_ORD_GetCapability, Cat({U32(1), {1}}));
  Answer(TPM_ORD_OIAP, Cat({U32(0x02000001), Fill(20, 0x11)}));
  Answer(TPM_ORD_LoadKey2, Cat({U32(0x01000003), Fill(41, 0)}));
  TCS_KEY_HANDLE key = 0;
  ASSERT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                          nullptr, &key),
            TSS_SUCCESS);
  Answer(TPM_ORD_OIAP, Cat({U32(kSession), Fill(20, 0x0E)}));
  TCS_AUTHHANDLE session = 0;
  TPM_NONCE nonceEven;
  ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &session, &nonceEven), TSS_SUCCESS);

  TPM_AUTH auth{};
  auth.AuthHandle = kSession;
  auth.NonceOdd = Nonce(0x0D);
  auth.fContinueAuthSession = 1;
  std::fill(std::begin(auth.HMAC.authdata), std::end(auth.HMAC.authdata), BYTE{0x4A});
  const Bytes pub = PubKeyOf(blob);
  const Bytes trailer = Cat({U32(kSession), Fill(20, 0x0D), {1}, Fill(20, 0x4A)});
  // The key is looked up in the TPM before the command (ensureKeyIsLoaded).
  AnswerKeyHandles({0x01000003});
  Answer(TPM_ORD_KeyControlOwner, Cat({Fill(20, 0xE7), {1}, Fill(20, 0x4E)}));
  TSS_UUID uuid{};
  ASSERT_EQ(Tcsip_KeyControlOwner_Internal(ctx_, key, UINT32(pub.size()), pub.data(),
                                           TPM_KEY_CONTROL_OWNER_EVICT, 1, &auth, &uuid),
            TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(0x00C2, TPM_ORD_KeyControlOwner,
                    Cat({U32(0x01000003), pub, U32(TPM_KEY_CONTROL_OWNER_EVICT), {1}, trailer})));
  EXPECT_EQ(uuid, kFirstOwnerEvictUuid);
  const std::vector<OwnerHeldKey> listed = {{kFirstOwnerEvictUuid, 0x01000003, blob}};
  EXPECT_EQ(testing::ReadFileBytes(CtrlFile()), EncodeOwnerHeldFile(listed));
  EXPECT_EQ(getKeyEntryByKeyHandle(key)->refCount, 2) << "the context's and the list's";

  // The client's eviction drops its own reference; the TPM keeps the key, so the cache does too.
  ASSERT_EQ(Tcsip_EvictKey_Internal(ctx_, key), TSS_SUCCESS);
  EXPECT_EQ(getKeyEntryByKeyHandle(key)->refCount, 1);

  // Clearing the bit forgets the key again.
  AnswerKeyHandles({0x01000003});
  Answer(TPM_ORD_KeyControlOwner, Cat({Fill(20, 0xE8), {1}, Fill(20, 0x4F)}));
  uuid = {};
  ASSERT_EQ(Tcsip_KeyControlOwner_Internal(ctx_, key, UINT32(pub.size()), pub.data(),
                                           TPM_KEY_CONTROL_OWNER_EVICT, 0, &auth, &uuid),
            TSS_SUCCESS);
  EXPECT_EQ(uuid, kFirstOwnerEvictUuid);
  EXPECT_EQ(testing::ReadFileBytes(CtrlFile()), Bytes(8, 0));
  EXPECT_EQ(getKeyEntryByKeyHandle(key)->refCount, 0);

  // Set once more, then the owner is cleared: the TPM flushed the key with it.
  AnswerKeyHandles({0x01000003});
  Answer(TPM_ORD_KeyControlOwner, Cat({Fill(20, 0xE9), {1}, Fill(20, 0x50)}));
  ASSERT_EQ(Tcsip_KeyControlOwner_Internal(ctx_, key, UINT32(pub.size()), pub.data(),
                                           TPM_KEY_CONTROL_OWNER_EVICT, 1, &auth, &uuid),
            TSS_SUCCESS);
  EXPECT_TRUE(owner_keys_holds(0x01000003));
  Answer(TPM_ORD_OwnerClear, Cat({Fill(20, 0xEA), {1}, Fill(20, 0x51)}));
  ASSERT_EQ(Tcsip_OwnerClear_Internal(ctx_, &auth), TSS_SUCCESS);
  EXPECT_THAT(owner_keys_list(), IsEmpty());
  EXPECT_EQ(testing::ReadFileBytes(CtrlFile()), Bytes(8, 0));
  EXPECT_EQ(getSlotByHandle(key), kNoTpmHandle);
  EXPECT_EQ(getKeyEntryByKeyHandle(key)->refCount, 0);

  // A public key that is not exactly one TPM_PUBKEY is refused before anything is sent.
  const size_t before = Sent();
  EXPECT_EQ(Tcsip_KeyControlOwner_Internal(ctx_, key, UINT32(pub.size() - 1), pub.data(),
                                           TPM_KEY_CONTROL_OWNER_EVICT, 1, &auth, &uuid),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_KeyControlOwner_Internal(ctx_, key, UINT32(pub.size()), pub.data(),
                                           TPM_KEY_CONTROL_OWNER_EVICT, 1, nullptr, &uuid),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Sent(), before);
}

}  // namespace
}  // namespace kesttcs
