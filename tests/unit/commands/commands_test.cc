// The TCS command layer against a scripted TPM: byte-exact commands of every keyless operation,
// outputs and their memory, checks made before anything is sent, the metrics paths no emulator
// offers (TPM 1.1, the maker's own TPM, missing context saving, failures), the vendor classifier,
// the vendor commands with exclusive mode, the TCS's own capabilities, and key eviction.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "command_bytes.h"
#include "commands/capability.h"
#include "commands/tcsip_keyless.h"
#include "commands/tcsip_sessions.h"
#include "commands/tpm_metrics.h"
#include "commands/vendor_commands.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_eviction.h"
#include "tpm/fake_tpm_backend.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using namespace command_bytes;  // NOLINT: the test's vocabulary

// A capability answer: its size, then the bytes.
Bytes Answer(const Bytes& bytes) { return Cat({U32(static_cast<UINT32>(bytes.size())), bytes}); }
Bytes DigestBytes(const TPM_DIGEST& d) { return Bytes(d.digest, d.digest + 20); }
// A small TPM_PUBKEY: RSA parameters (12 bytes) and an 8-byte modulus.
const Bytes kPubkey =
    Cat({U32(1), U16(3), U16(1), U32(12), U32(512), U32(2), U32(0), U32(8), Fill(8, 0xEE)});

class CommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    tpm_ = &core_.fake();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
  }
  void TearDown() override { EXPECT_THAT(tpm_->Mismatches(), ::testing::IsEmpty()); }

  // Commands sent after start-up.
  std::vector<Bytes> Sent() { return core_.SentAfterStart(); }
  std::vector<UINT32> Ordinals() { return core_.OrdinalsAfterStart(); }
  Bytes LastSent() {
    std::vector<Bytes> all = Sent();
    return all.empty() ? Bytes() : all.back();
  }
  // Opens an OIAP session of ctx_ that the TPM numbers `handle`.
  void OpenSession(TCS_AUTHHANDLE handle) {
    tpm_->Respond(TPM_SUCCESS, Cat({U32(handle), Fill(20, 0x0E)}));
    TCS_AUTHHANDLE opened = 0;
    TPM_NONCE nonceEven;
    ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &opened, &nonceEven), TSS_SUCCESS);
  }

  testing::TestCore core_;
  FakeTpmBackend* tpm_ = nullptr;  // the core's
  TCS_CONTEXT_HANDLE ctx_ = 0;
};

// ---- Keyless operations ----

struct Case {
  std::string name;
  std::function<TSS_RESULT(TCS_CONTEXT_HANDLE)> call;
  Bytes expectedCommand;
  Bytes responseBody;
};

TEST_F(CommandsTest, EveryOperationSendsItsCommandByteForByte) {
  static UINT32 bytes;
  static BYTE* out;
  static UINT32 size;
  static TPM_DIGEST digest;
  static TPM_COUNTER_VALUE counter;
  const Bytes data = {1, 2, 3};
  const Bytes selection = {0, 3, 0, 0, 1};
  const Bytes ticks = Cat({U16(0x14), Fill(8, 1), U16(1000), Fill(20, 2)});
  const std::vector<Case> cases = {
      {"GetRandom",
       [](TCS_CONTEXT_HANDLE h) {
         bytes = 16;
         return Tcsip_GetRandom_Internal(h, &bytes, &out);
       },
       Plain(0x46, U32(16)), Cat({U32(16), Fill(16, 7)})},
      {"StirRandom",
       [&](TCS_CONTEXT_HANDLE h) { return Tcsip_StirRandom_Internal(h, 3, data.data()); },
       Plain(0x47, Cat({U32(3), data})),
       {}},
      {"PcrRead", [](TCS_CONTEXT_HANDLE h) { return Tcsip_PcrRead_Internal(h, 7, &digest); },
       Plain(0x15, U32(7)), Fill(20, 9)},
      {"Extend",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_Extend_Internal(h, 5, Digest(0x11), &digest); },
       Plain(0x14, Cat({U32(5), Fill(20, 0x11)})), Fill(20, 9)},
      {"PcrReset",
       [&](TCS_CONTEXT_HANDLE h) { return Tcsip_PcrReset_Internal(h, 5, selection.data()); },
       Plain(0xC8, selection),
       {}},
      {"GetCapability",
       [](TCS_CONTEXT_HANDLE h) {
         const BYTE sub[4] = {0, 0, 1, 3};
         return Tcsip_GetCapability_Internal(h, 5, 4, sub, &size, &out);
       },
       Plain(0x65, Cat({U32(5), U32(4), U32(0x103)})), Answer({'I', 'B', 'M', 0})},
      {"SelfTestFull", Tcsip_SelfTestFull_Internal, Plain(0x50), {}},
      {"ContinueSelfTest", Tcsip_ContinueSelfTest_Internal, Plain(0x53), {}},
      {"GetTestResult",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_GetTestResult_Internal(h, &size, &out); },
       Plain(0x54), Answer({0xAB, 0xCD})},
      {"ReadPubek",
       [](TCS_CONTEXT_HANDLE h) {
         return Tcsip_ReadPubek_Internal(h, Nonce(0x5A), &size, &out, &digest);
       },
       Plain(0x7C, Fill(20, 0x5A)), Cat({kPubkey, Fill(20, 0xC5)})},
      {"ReadCurrentTicks",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_TPM_ReadCurrentTicks_Internal(h, &size, &out); },
       Plain(0xF1), ticks},
      {"ReadCounter",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_ReadCounter_Internal(h, 9, &counter); },
       Plain(0xDE, U32(9)), Cat({U16(0x0E), {'a', 'b', 'c', 'd'}, U32(42)})},
      {"DirRead", [](TCS_CONTEXT_HANDLE h) { return Tcsip_DirRead_Internal(h, 0, &digest); },
       Plain(0x1A, U32(0)), Fill(20, 0)},
      {"PhysicalPresence",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_PhysicalPresence_Internal(h, 0x0020); },
       Plain(0x4000000A, U16(0x0020)),
       {}},
      {"PhysicalEnable", Tcsip_PhysicalEnable_Internal, Plain(0x6F), {}},
      {"PhysicalDisable", Tcsip_PhysicalDisable_Internal, Plain(0x70), {}},
      {"PhysicalSetDeactivated",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_PhysicalSetDeactivated_Internal(h, 1); },
       Plain(0x72, {1}),
       {}},
      {"SetTempDeactivated", Tcsip_SetTempDeactivated_Internal, Plain(0x73), {}},
      {"CreateEndorsementKeyPair",
       [](TCS_CONTEXT_HANDLE h) {
         return Tcsip_CreateEndorsementKeyPair_Internal(h, Nonce(0x33), 24, kPubkey.data(), &size,
                                                        &out, &digest);
       },
       Plain(0x78, Cat({Fill(20, 0x33), Bytes(kPubkey.begin(), kPubkey.begin() + 24)})),
       Cat({kPubkey, Fill(20, 0xC5)})},
      {"ForceClear", Tcsip_ForceClear_Internal, Plain(0x5D), {}},
      {"DisableForceClear", Tcsip_DisableForceClear_Internal, Plain(0x5E), {}},
      {"SetOwnerInstall",
       [](TCS_CONTEXT_HANDLE h) { return Tcsip_SetOwnerInstall_Internal(h, 1); },
       Plain(0x71, {1}),
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tpm_->Respond(TPM_SUCCESS, c.responseBody);
    EXPECT_EQ(c.call(ctx_), TSS_SUCCESS);
    EXPECT_EQ(LastSent(), c.expectedCommand);
    // The TPM's refusal comes back mapped, whatever the operation.
    tpm_->Respond(TPM_DISABLED_CMD);
    EXPECT_EQ(c.call(ctx_), 0xE0280008u);
    // A context nobody opened sends nothing.
    const size_t sent = Sent().size();
    EXPECT_EQ(c.call(0xA0000001), TCS_E_INVALID_CONTEXT);
    EXPECT_EQ(Sent().size(), sent);
  }
  // Only the variable-size outputs took memory: GetRandom, GetCapability, GetTestResult,
  // ReadPubek, ReadCurrentTicks, CreateEndorsementKeyPair.
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 6u);
}

TEST_F(CommandsTest, OutputsAreCopiedOnlyWhenTheWholeResponseIsThere) {
  // GetRandom: the bytes the TPM gave, in a block of the context's memory.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(4), {9, 8, 7, 6}}));
  UINT32 count = 16;
  BYTE* random = nullptr;
  ASSERT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TSS_SUCCESS);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(ToBytes(random, count), (Bytes{9, 8, 7, 6}));
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 1u);
  EXPECT_EQ(Tcsi_FreeMemory_Internal(ctx_, random), TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 0u);

  // Zero bytes: no block at all.
  tpm_->Respond(TPM_SUCCESS, U32(0));
  count = 0;
  ASSERT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TSS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(random, nullptr);

  // A response claiming more than it carries, or stopping inside a structure: nothing written.
  count = 16;
  random = reinterpret_cast<BYTE*>(0x1);
  tpm_->Respond(TPM_SUCCESS, Cat({U32(16), {1, 2, 3}}));
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(count, 16u);
  EXPECT_EQ(random, reinterpret_cast<BYTE*>(0x1));
  TPM_DIGEST digest = Digest(0x77);
  tpm_->Respond(TPM_SUCCESS, Fill(19, 1));
  EXPECT_EQ(Tcsip_PcrRead_Internal(ctx_, 1, &digest), TCS_E_BAD_PARAMETER);
  UINT32 size = 99;
  BYTE* pubek = nullptr;
  tpm_->Respond(TPM_SUCCESS, Cat({kPubkey, Fill(19, 0xC5)}));  // checksum one byte short
  EXPECT_EQ(Tcsip_ReadPubek_Internal(ctx_, Nonce(0), &size, &pubek, &digest), TCS_E_BAD_PARAMETER);
  tpm_->Respond(TPM_SUCCESS, Bytes(kPubkey.begin(), kPubkey.end() - 1));  // modulus cut
  EXPECT_EQ(Tcsip_ReadPubek_Internal(ctx_, Nonce(0), &size, &pubek, &digest), TCS_E_BAD_PARAMETER);
  tpm_->Respond(TPM_SUCCESS, Fill(31, 0));  // TPM_CURRENT_TICKS is 32 bytes
  EXPECT_EQ(Tcsip_TPM_ReadCurrentTicks_Internal(ctx_, &size, &pubek), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(size, 99u);
  EXPECT_EQ(pubek, nullptr);
  EXPECT_EQ(DigestBytes(digest), Fill(20, 0x77));
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 0u);

  // A TPM refusal writes nothing either.
  tpm_->Respond(TPM_INVALID_POSTINIT);
  EXPECT_EQ(Tcsip_PcrRead_Internal(ctx_, 1, &digest), 0xE0280026u);
  EXPECT_EQ(DigestBytes(digest), Fill(20, 0x77));

  // ReadPubek hands out the key blob and the checksum.
  tpm_->Respond(TPM_SUCCESS, Cat({kPubkey, Fill(20, 0xC5)}));
  ASSERT_EQ(Tcsip_ReadPubek_Internal(ctx_, Nonce(0), &size, &pubek, &digest), TSS_SUCCESS);
  EXPECT_EQ(ToBytes(pubek, size), kPubkey);
  EXPECT_EQ(DigestBytes(digest), Fill(20, 0xC5));

  // ReadCounter fills the structure.
  TPM_COUNTER_VALUE counter;
  tpm_->Respond(TPM_SUCCESS, Cat({U16(0x0E), {'a', 'b', 'c', 'd'}, U32(42)}));
  ASSERT_EQ(Tcsip_ReadCounter_Internal(ctx_, 3, &counter), TSS_SUCCESS);
  EXPECT_EQ(counter.tag, 0x0E);
  EXPECT_EQ(counter.counter, 42u);
  EXPECT_EQ(std::memcmp(counter.label, "abcd", 4), 0);
}

TEST_F(CommandsTest, SizeBoundsAndPointersAreCheckedBeforeSending) {
  Bytes big(4096, 0xA5);
  // StirRandom: 4082 bytes make exactly 4096; 4083 are refused.
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_StirRandom_Internal(ctx_, 4082, big.data()), TSS_SUCCESS);
  EXPECT_EQ(LastSent().size(), 4096u);
  EXPECT_EQ(Tcsip_StirRandom_Internal(ctx_, 4083, big.data()), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_StirRandom_Internal(ctx_, 0xFFFFFFFF, big.data()), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_StirRandom_Internal(ctx_, 3, nullptr), TCS_E_BAD_PARAMETER);
  // PcrReset: the selection alone after the header.
  EXPECT_EQ(Tcsip_PcrReset_Internal(ctx_, 4087, big.data()), TCS_E_BAD_PARAMETER);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_PcrReset_Internal(ctx_, 4086, big.data()), TSS_SUCCESS);
  // GetCapability: capArea and subCapSize before the sub-capability.
  UINT32 size = 0;
  BYTE* out = nullptr;
  EXPECT_EQ(Tcsip_GetCapability_Internal(ctx_, 5, 4079, big.data(), &size, &out),
            TCS_E_BAD_PARAMETER);
  tpm_->Respond(TPM_SUCCESS, Answer({}));
  EXPECT_EQ(Tcsip_GetCapability_Internal(ctx_, 5, 4078, big.data(), &size, &out), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_GetCapability_Internal(ctx_, 5, 0, nullptr, nullptr, &out), TCS_E_BAD_PARAMETER);
  // CreateEndorsementKeyPair: the nonce before the key parameters.
  TPM_DIGEST checksum;
  EXPECT_EQ(Tcsip_CreateEndorsementKeyPair_Internal(ctx_, Nonce(0), 4067, big.data(), &size, &out,
                                                    &checksum),
            TCS_E_BAD_PARAMETER);
  // Output pointers.
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, nullptr, &out), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_PcrRead_Internal(ctx_, 0, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_ReadPubek_Internal(ctx_, Nonce(0), &size, &out, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Ordinals(), (std::vector<UINT32>{0x47, 0xC8, 0x65}));
}

TEST_F(CommandsTest, RequestManagerFailuresPassThroughUnchanged) {
  tpm_->Fail(kDriverIoError);
  UINT32 count = 16;
  BYTE* random = nullptr;
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), kDriverIoError);
  SetVendorExclusiveMode(true);
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TCS_E_ORDINAL_NOT_PERMITTED);
  SetVendorExclusiveMode(false);
  static_cast<void>(req_mgr_final());
  EXPECT_EQ(Tcsip_SelfTestFull_Internal(ctx_), TCS_E_COMM_FAILURE);
}

// ---- Metrics ----

// Scripts the answers of one metrics reading on a TPM of `version` and `manufacturer`.
struct MetricsScript {
  FakeTpmBackend* tpm;
  // The manufacturer's three or four characters, zero-padded to four bytes.
  void Manufacturer(std::string_view id) {
    Bytes bytes(id.begin(), id.end());
    bytes.resize(4, 0);
    tpm->Respond(TPM_SUCCESS, Answer(bytes));
  }
  void Version12() {
    tpm->Respond(TPM_SUCCESS, Answer(Cat({U16(0x0030), {1, 2, 18, 158}, U16(2), {3}})));
  }
  void Version11() {
    tpm->Respond(TPM_BAD_MODE);  // TPM_CAP_VERSION_VAL unknown
    tpm->Respond(TPM_SUCCESS, Answer({1, 1, 0, 0}));
  }
  void Flag(BYTE value) { tpm->Respond(TPM_SUCCESS, Answer({value})); }
  void Number(UINT32 value) { tpm->Respond(TPM_SUCCESS, Answer(U32(value))); }
  void Oiap(UINT32 handle) { tpm->Respond(TPM_SUCCESS, Cat({U32(handle), Fill(20, 0x4E)})); }
};

// The capability queries sent, as (area, sub-capability) pairs; other commands as (ordinal, 0).
std::vector<std::pair<UINT32, UINT32>> Queries(const std::vector<Bytes>& sent) {
  std::vector<std::pair<UINT32, UINT32>> queries;
  for (const Bytes& c : sent) {
    UINT32 ordinal = FakeTpmBackend::OrdinalOf(c);
    if (ordinal != 0x65) {
      queries.emplace_back(ordinal, 0);
      continue;
    }
    UINT32 area = ArrayToUINT32(std::span<const BYTE>(c).subspan(10).first<4>());
    UINT32 subSize = ArrayToUINT32(std::span<const BYTE>(c).subspan(14).first<4>());
    UINT32 sub = subSize == 4 ? ArrayToUINT32(std::span<const BYTE>(c).subspan(18).first<4>()) : 0;
    queries.emplace_back(area, sub);
  }
  return queries;
}

TEST_F(CommandsTest, MetricsOfATpm12) {
  MetricsScript s{tpm_};
  s.Manufacturer("IBM");
  s.Version12();
  s.Flag(1);     // SaveContext
  s.Flag(1);     // owner
  s.Number(24);  // PCRs
  s.Number(1);   // DIRs
  s.Number(10);  // key slots (start-up's TPM has 20)
  s.Number(16);  // sessions
  tpm_metrics m;
  ASSERT_EQ(get_tpm_metrics(&m), TSS_SUCCESS);
  EXPECT_THAT(Queries(Sent()),
              ElementsAre(std::pair{5u, 0x103u}, std::pair{0x1Au, 0u}, std::pair{1u, 0xB8u},
                          std::pair{5u, 0x111u}, std::pair{5u, 0x101u}, std::pair{5u, 0x102u},
                          std::pair{5u, 0x104u}, std::pair{5u, 0x10Du}));
  EXPECT_EQ(m.pcrCount, 24u);
  EXPECT_EQ(m.dirCount, 1u);
  EXPECT_EQ(m.keySlots, 10u);
  EXPECT_EQ(m.maxAuthSessions, 16u);
  EXPECT_EQ(m.canSaveKeyContext, 1);
  EXPECT_EQ(m.canSaveAuthContext, 1);
  EXPECT_EQ((Bytes{m.version.major, m.version.minor, m.version.revMajor, m.version.revMinor}),
            (Bytes{1, 2, 18, 158}));
  EXPECT_TRUE(tpmHasOwner());
  EXPECT_FALSE(isOwnVendorTpm());
  EXPECT_TRUE(TpmIsVersion12());
  EXPECT_EQ(tpm_metrics_current().keySlots, 10u);
}

TEST_F(CommandsTest, Tpm12WithoutSaveContextHasBothFlagsClear) {
  MetricsScript s{tpm_};
  s.Manufacturer("STM");
  s.Version12();
  s.Flag(0);  // no SaveContext
  s.Flag(0);  // no owner
  for (UINT32 v : {24u, 1u, 10u, 3u}) s.Number(v);
  tpm_metrics m;
  ASSERT_EQ(get_tpm_metrics(&m), TSS_SUCCESS);
  EXPECT_EQ(m.canSaveKeyContext, 0);
  EXPECT_EQ(m.canSaveAuthContext, 0);
  EXPECT_EQ(m.maxAuthSessions, 3u);
  EXPECT_FALSE(tpmHasOwner());
}

TEST_F(CommandsTest, Tpm11SessionsAreProbedAndEveryProbeReleased) {
  MetricsScript s{tpm_};
  s.Manufacturer("ATML");
  s.Version11();
  s.Flag(1);  // SaveKeyContext
  s.Flag(0);  // SaveAuthContext
  for (UINT32 v : {16u, 1u, 10u}) s.Number(v);
  s.Oiap(0x100);
  s.Oiap(0x101);
  s.Oiap(0x102);
  tpm_->Respond(TPM_RESOURCES);
  for (int i = 0; i < 3; ++i) tpm_->Respond(TPM_SUCCESS);
  tpm_metrics m;
  ASSERT_EQ(get_tpm_metrics(&m), TSS_SUCCESS);
  EXPECT_EQ(m.maxAuthSessions, 3u);
  EXPECT_EQ(m.canSaveKeyContext, 1);
  EXPECT_EQ(m.canSaveAuthContext, 0);
  EXPECT_FALSE(TpmIsVersion12());
  EXPECT_THAT(Queries(Sent()),
              ElementsAre(std::pair{5u, 0x103u}, std::pair{0x1Au, 0u}, std::pair{6u, 0u},
                          std::pair{1u, 0xB4u}, std::pair{1u, 0xB6u}, std::pair{5u, 0x101u},
                          std::pair{5u, 0x102u}, std::pair{5u, 0x104u}, std::pair{0x0Au, 0u},
                          std::pair{0x0Au, 0u}, std::pair{0x0Au, 0u}, std::pair{0x0Au, 0u},
                          std::pair{0x96u, 0u}, std::pair{0x96u, 0u}, std::pair{0x96u, 0u}));
  // A TPM 1.1 drops a session with TPM_Terminate_Handle(handle).
  std::vector<Bytes> sent = Sent();
  EXPECT_EQ(sent[12], Plain(0x96, U32(0x100)));
  EXPECT_EQ(sent[14], Plain(0x96, U32(0x102)));
  EXPECT_EQ(tpm_->Unanswered(), 0u);
}

TEST_F(CommandsTest, Tpm11ThatNeverRefusesIsProbedUpTo1024) {
  MetricsScript s{tpm_};
  s.Manufacturer("IFX");
  s.Version11();
  s.Flag(1);
  s.Flag(1);
  for (UINT32 v : {16u, 1u, 10u}) s.Number(v);
  for (UINT32 i = 0; i < 1024; ++i) s.Oiap(0x1000 + i);
  for (UINT32 i = 0; i < 1024; ++i) tpm_->Respond(TPM_SUCCESS);
  tpm_metrics m;
  ASSERT_EQ(get_tpm_metrics(&m), TSS_SUCCESS);
  EXPECT_EQ(m.maxAuthSessions, 1024u);
  std::vector<UINT32> ordinals = Ordinals();
  EXPECT_EQ(std::count(ordinals.begin(), ordinals.end(), 0x0Au), 1024);
  EXPECT_EQ(std::count(ordinals.begin(), ordinals.end(), 0x96u), 1024);
  EXPECT_EQ(Sent().back(), Plain(0x96, U32(0x1000 + 1023)));
}

TEST_F(CommandsTest, OwnVendorTpmHasFixedFiguresWhateverItWouldAnswer) {
  MetricsScript s{tpm_};
  s.Manufacturer("KST");
  s.Version12();
  s.Number(7);  // key slots
  s.Flag(1);    // owner
  tpm_metrics m;
  ASSERT_EQ(get_tpm_metrics(&m), TSS_SUCCESS);
  EXPECT_THAT(Queries(Sent()), ElementsAre(std::pair{5u, 0x103u}, std::pair{0x1Au, 0u},
                                           std::pair{5u, 0x104u}, std::pair{5u, 0x111u}));
  EXPECT_EQ(m.pcrCount, 24u);
  EXPECT_EQ(m.dirCount, 1u);
  EXPECT_EQ(m.maxAuthSessions, 6u);
  EXPECT_EQ(m.keySlots, 7u);
  EXPECT_EQ(m.canSaveKeyContext, 1);
  EXPECT_EQ(m.canSaveAuthContext, 1);
  EXPECT_TRUE(isOwnVendorTpm());
  EXPECT_TRUE(tpmHasOwner());

  // The identifier is a setting: with another one the same TPM is a stranger.
  SetOwnVendorId({'A', 'B', 'C', '\0'});
  s.Manufacturer("KST");
  s.Version11();
  s.Flag(0);
  s.Flag(0);
  for (UINT32 v : {16u, 1u, 10u}) s.Number(v);
  tpm_->Respond(TPM_RESOURCES);  // no OIAP session at all
  EXPECT_EQ(get_tpm_metrics(&m), TCS_E_INTERNAL_ERROR);
  EXPECT_FALSE(isOwnVendorTpm());
}

TEST_F(CommandsTest, FailedQueryEndsTheReadingAndTooFewSessionsFail) {
  const tpm_metrics atStart = tpm_metrics_current();
  MetricsScript s{tpm_};
  s.Manufacturer("IBM");
  s.Version12();
  s.Flag(1);
  s.Flag(0);
  s.Number(23);
  tpm_->Respond(TPM_BAD_MODE);  // DIR count
  tpm_metrics m;
  m.pcrCount = 0x55;
  EXPECT_EQ(get_tpm_metrics(&m), TpmResult(TPM_BAD_MODE));
  EXPECT_EQ(m.pcrCount, 0x55u);
  EXPECT_EQ(Sent().size(), 6u);
  EXPECT_EQ(tpm_metrics_current().pcrCount, atStart.pcrCount);  // start-up's reading stays

  // A driver failure on the very first query.
  tpm_->Fail(kDriverIoError);
  EXPECT_EQ(get_tpm_metrics(&m), kDriverIoError);

  // One session on a TPM 1.2.
  s.Manufacturer("IBM");
  s.Version12();
  s.Flag(1);
  s.Flag(0);
  for (UINT32 v : {24u, 1u, 20u, 1u}) s.Number(v);
  EXPECT_EQ(get_tpm_metrics(&m), TCS_E_INTERNAL_ERROR);

  // A version neither 1.1 nor 1.2 has no sessions to count.
  s.Manufacturer("IBM");
  tpm_->Respond(TPM_SUCCESS, Answer(Cat({U16(0x0030), {1, 3, 0, 0}})));
  s.Flag(1);
  s.Flag(1);
  for (UINT32 v : {24u, 1u, 20u}) s.Number(v);
  EXPECT_EQ(get_tpm_metrics(&m), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(tpm_->Unanswered(), 0u);

  // An answer that is not a number.
  s.Manufacturer("IBM");
  s.Version12();
  tpm_->Respond(TPM_SUCCESS, Answer({}));
  EXPECT_EQ(get_tpm_metrics(&m), TCS_E_BAD_PARAMETER);
}

TEST_F(CommandsTest, VendorClassifier) {
  const std::array<char, 4> own = kDefaultOwnVendorId;
  auto classify = [&](const char(&id)[5]) {
    return classifyTpmVendor(std::span<const BYTE, 4>(reinterpret_cast<const BYTE*>(id), 4), own);
  };
  EXPECT_EQ(classify("ATML"), kVendorAtmel);
  EXPECT_EQ(classify("ATMX"), kVendorOther);  // all four compared
  EXPECT_EQ(classify("IFX\0"), kVendorInfineon);
  EXPECT_EQ(classify("IFXZ"), kVendorInfineon);  // three compared
  EXPECT_EQ(classify("NSM "), kVendorNational);
  EXPECT_EQ(classify("KST\0"), kVendorOwn);
  EXPECT_EQ(classify("STM\0"), kVendorST);
  EXPECT_EQ(classify("IBM\0"), kVendorOther);
  EXPECT_EQ(classify("WEC\0"), kVendorOther);

  // The TPM's class is read once and cached; a failed read is not cached.
  tpm_->Fail(kDriverIoError);
  EXPECT_EQ(getTpmVendorClass(), kVendorOther);
  tpm_->Respond(TPM_SUCCESS, Answer({'S', 'T', 'M', 0}));
  EXPECT_EQ(getTpmVendorClass(), kVendorST);
  EXPECT_EQ(getTpmVendorClass(), kVendorST);
  EXPECT_EQ(Sent().size(), 2u);
}

// ---- Vendor commands ----

TEST_F(CommandsTest, VendorCommandsCarrySelectorLengthAndData) {
  const Bytes data = {0xD1, 0xD2, 0xD3};
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_VendorCommand1_Internal(ctx_, 7, 3, data.data()), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(0x20000001, Cat({{7}, U32(3), data})));

  // Vendor command 2: the trailer goes out, the TPM's comes back into the record.
  OpenSession(0x02000001);
  TPM_AUTH auth{};
  auth.AuthHandle = 0x02000001;
  std::memset(auth.NonceOdd.nonce, 0x0D, 20);
  auth.fContinueAuthSession = 1;
  std::memset(auth.HMAC.authdata, 0x4A, 20);
  tpm_->Respond(TPM_SUCCESS, Cat({Fill(20, 0xE0), {0}, Fill(20, 0x4B)}));
  EXPECT_EQ(Tcsip_VendorCommand2_Internal(ctx_, 9, 3, data.data(), &auth), TSS_SUCCESS);
  EXPECT_EQ(
      LastSent(),
      Request(TPM_TAG_RQU_AUTH1_COMMAND, 0x20000002,
              Cat({{9}, U32(3), data, U32(0x02000001), Fill(20, 0x0D), {1}, Fill(20, 0x4A)})));
  EXPECT_EQ(Bytes(auth.NonceEven.nonce, auth.NonceEven.nonce + 20), Fill(20, 0xE0));
  EXPECT_EQ(auth.fContinueAuthSession, 0);
  EXPECT_EQ(Bytes(auth.HMAC.authdata, auth.HMAC.authdata + 20), Fill(20, 0x4B));
  EXPECT_EQ(Tcsip_VendorCommand2_Internal(ctx_, 9, 3, data.data(), nullptr), TCS_E_BAD_PARAMETER);

  // Vendor command 3 hands out the response parameters and does not look at the context.
  tpm_->Respond(TPM_SUCCESS, {0xAA, 0xBB});
  UINT32 size = 0;
  BYTE* resp = nullptr;
  EXPECT_EQ(Tcsip_VendorCommand3_Internal(ctx_, 1, 0, nullptr, &size, &resp), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(0x20000003, Cat({{1}, U32(0)})));
  EXPECT_EQ(ToBytes(resp, size), (Bytes{0xAA, 0xBB}));
  tpm_->Respond(TPM_SUCCESS, {0xCC});
  EXPECT_EQ(Tcsip_VendorCommand3_Internal(0xA0000001, 1, 0, nullptr, &size, &resp), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_VendorCommand1_Internal(0xA0000001, 1, 0, nullptr), TCS_E_INVALID_CONTEXT);

  // The size rule: length + 15 must stay below 4097.
  Bytes big(4096, 0x11);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_VendorCommand1_Internal(ctx_, 0, 4081, big.data()), TSS_SUCCESS);
  EXPECT_EQ(LastSent().size(), 4096u);
  const size_t sent = Sent().size();
  EXPECT_EQ(Tcsip_VendorCommand1_Internal(ctx_, 0, 4082, big.data()), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_VendorCommand2_Internal(ctx_, 0, 4082, big.data(), &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_VendorCommand3_Internal(ctx_, 0, 4082, big.data(), &size, &resp),
            TCS_E_BAD_PARAMETER);
  // Vendor command 2 under the bound but too long with its trailer.
  EXPECT_EQ(Tcsip_VendorCommand2_Internal(ctx_, 0, 4050, big.data(), &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Sent().size(), sent);
}

TEST_F(CommandsTest, VendorSequenceHoldsTheTpmForVendorTraffic) {
  TPM_AUTH auth{};
  auth.AuthHandle = 0x02000002;
  UINT32 count = 16;
  BYTE* random = nullptr;

  // Follow-ups without the mode are refused and send nothing.
  EXPECT_EQ(vendor_seq_continue(ctx_, 1, 0, nullptr), TCS_E_FEATURE_NOT_ENABLED);
  EXPECT_EQ(vendor_seq_end(ctx_, 1, 0, nullptr), TCS_E_FEATURE_NOT_ENABLED);
  EXPECT_TRUE(Sent().empty());

  // Only a session of the context's own may open it.
  EXPECT_EQ(vendor_seq_open(ctx_, 1, 0, nullptr, &auth), TCS_E_INTERNAL_ERROR);
  EXPECT_FALSE(VendorExclusiveMode());
  EXPECT_TRUE(Sent().empty());

  // A refused opening leaves the mode off and ends the session.
  OpenSession(0x02000002);
  tpm_->Respond(TPM_AUTHFAIL);
  tpm_->Respond(TPM_SUCCESS);  // the session's flush
  EXPECT_EQ(vendor_seq_open(ctx_, 1, 0, nullptr, &auth), TpmResult(TPM_AUTHFAIL));
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_FlushSpecific, Cat({U32(0x02000002), U32(TPM_RT_AUTH)})));
  EXPECT_FALSE(VendorExclusiveMode());

  // Open: only the vendor sequence passes until it ends.
  OpenSession(0x02000002);
  tpm_->Respond(TPM_SUCCESS, Fill(41, 0));
  ASSERT_EQ(vendor_seq_open(ctx_, 1, 0, nullptr, &auth), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Request(TPM_TAG_RQU_AUTH1_COMMAND, 0x20008000,
                                Cat({{1}, U32(0), U32(0x02000002), Fill(41, 0)})));
  EXPECT_TRUE(VendorExclusiveMode());
  const size_t sent = Sent().size();
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TCS_E_ORDINAL_NOT_PERMITTED);
  EXPECT_EQ(Tcsip_VendorCommand1_Internal(ctx_, 1, 0, nullptr), TCS_E_ORDINAL_NOT_PERMITTED);
  EXPECT_EQ(Sent().size(), sent);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(vendor_seq_continue(ctx_, 2, 1, std::array<BYTE, 1>{0x42}.data()), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(0x20008001, Cat({{2}, U32(1), {0x42}})));
  // The end switches the mode off even when the TPM refuses it.
  tpm_->Respond(TPM_FAIL);
  EXPECT_EQ(vendor_seq_end(ctx_, 3, 0, nullptr), TpmResult(TPM_FAIL));
  EXPECT_EQ(FakeTpmBackend::OrdinalOf(LastSent()), 0x20008002u);
  EXPECT_FALSE(VendorExclusiveMode());
  tpm_->Respond(TPM_SUCCESS, Cat({U32(1), {5}}));
  EXPECT_EQ(Tcsip_GetRandom_Internal(ctx_, &count, &random), TSS_SUCCESS);
}

// ---- The TCS's own capabilities ----

TEST_F(CommandsTest, TcsCapabilitiesAreAnsweredWithoutTheTpm) {
  auto ask = [&](UINT32 area, std::optional<UINT32> sub, TSS_RESULT* rc) {
    Bytes subCap = sub ? U32(*sub) : Bytes();
    UINT32 size = 0;
    BYTE* out = nullptr;
    *rc = Tcsi_GetCapability_Internal(ctx_, area, static_cast<UINT32>(subCap.size()), subCap.data(),
                                      &size, &out);
    return ToBytes(out, size);
  };
  TSS_RESULT rc;
  EXPECT_EQ(ask(TSS_TCSCAP_VERSION, std::nullopt, &rc), (Bytes{2, 1, 0, 13}));
  EXPECT_EQ(rc, TSS_SUCCESS);
  EXPECT_EQ(ask(TSS_TCSCAP_CACHING, 0x100, &rc), (Bytes{1}));
  EXPECT_EQ(ask(TSS_TCSCAP_CACHING, 0x101, &rc), (Bytes{0}));
  EXPECT_EQ(ask(TSS_TCSCAP_PERSSTORAGE, 0, &rc), (Bytes{1}));
  EXPECT_EQ(ask(TSS_TCSCAP_MANUFACTURER, 0x102, &rc), (Bytes{'K', 'E', 'S', 'T'}));
  Bytes wide;
  for (char c : std::string("KESTRON TECHNOLOGY")) wide.insert(wide.end(), {BYTE(c), 0});
  EXPECT_EQ(ask(TSS_TCSCAP_MANUFACTURER, 0x103, &rc), wide);
  EXPECT_EQ(wide.size(), 36u);
  EXPECT_EQ(ask(TSS_TCSCAP_ALG, 0x23, &rc), (Bytes{1}));  // SHA-1
  EXPECT_EQ(ask(TSS_TCSCAP_ALG, 0x20, &rc), (Bytes{0}));  // RSA
  EXPECT_EQ(rc, TSS_SUCCESS);
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 8u);

  for (auto [area, sub] : {std::pair<UINT32, UINT32>{TSS_TCSCAP_CACHING, 0x102u},
                           {TSS_TCSCAP_ALG, 0x99u},
                           {TSS_TCSCAP_MANUFACTURER, 0x101u},
                           {TSS_TCSCAP_PLATFORM_CLASS, 0x101u},
                           {0u, 0u},
                           {7u, 0u}}) {
    ask(area, sub, &rc);
    EXPECT_EQ(rc, TCS_E_FAIL) << area << "/" << sub;
  }
  ask(TSS_TCSCAP_MANUFACTURER, std::nullopt, &rc);
  EXPECT_EQ(rc, TCS_E_BAD_PARAMETER);
  UINT32 size;
  BYTE* out;
  EXPECT_EQ(Tcsi_GetCapability_Internal(0xA0000001, TSS_TCSCAP_VERSION, 0, nullptr, &size, &out),
            TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(ctx_CountMemoryBlocks(ctx_), 8u);
  EXPECT_TRUE(Sent().empty());
}

// ---- Key eviction ----

TEST_F(CommandsTest, KeyEvictionPicksTheCommandByVersionAndToleratesOwnerControl) {
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(EvictTpmKey(0x01000005), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(0xBA, Cat({U32(0x01000005), U32(1)})));
  tpm_->Respond(TPM_KEY_OWNER_CONTROL);
  EXPECT_EQ(EvictTpmKey(0x01000005), TSS_SUCCESS);
  tpm_->Respond(TPM_INVALID_KEYHANDLE);
  EXPECT_EQ(EvictTpmKey(0x01000005), TpmResult(TPM_INVALID_KEYHANDLE));
  tpm_->Fail(kDriverIoError);
  EXPECT_EQ(EvictTpmKey(0x01000005), kDriverIoError);

  // A TPM 1.1; and eviction passes even while a vendor sequence holds the TPM.
  SetTpmIsVersion12(false);
  SetVendorExclusiveMode(true);
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(EvictTpmKey(0x01000006), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(0x22, U32(0x01000006)));
}

}  // namespace
}  // namespace kesttcs
