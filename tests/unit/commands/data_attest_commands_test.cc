// The data-protection and signing operations against the scripted TPM, where exact bytes matter:
// each sends the ordinal the operation table gives it (CertifyKey2 the ordinal of CertifyKey, with
// CertifyKey2's parameter order), its key slots where the TPM reads them, no trailer without a
// session; inputs that would not fit or are no structure are refused before anything is sent;
// outputs come back in the operation's order; a key that cannot be loaded for Unbind is logged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "commands/tcsip_attest.h"
#include "commands/tcsip_seal.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/key_loading.h"
#include "rpc/operations.h"
#include "service/startup.h"
#include "storage/persistent_storage.h"
#include "storage/test_keys.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using Bytes = std::vector<BYTE>;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr TPM_KEY_HANDLE kLoadedSlot = 0x01000001;

// The opnum of a member named at run time.
uint16_t OpnumOf(std::string_view name) {
  for (const rpc::Operation& op : rpc::kOperations) {
    if (op.name == name) return op.opnum;
  }
  ADD_FAILURE() << name;
  return 0;
}

Bytes U32(UINT32 v) { return {BYTE(v >> 24), BYTE(v >> 16), BYTE(v >> 8), BYTE(v)}; }
UINT32 U32At(const Bytes& b, size_t offset) {
  return UINT32(b[offset]) << 24 | UINT32(b[offset + 1]) << 16 | UINT32(b[offset + 2]) << 8 |
         b[offset + 3];
}
UINT16 U16At(const Bytes& b, size_t offset) { return UINT16(b[offset] << 8 | b[offset + 1]); }
Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

class DataAttestCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS) << StartupFailureText();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
  }
  void TearDown() override { EXPECT_THAT(core_.fake().Mismatches(), IsEmpty()); }

  void Answer(UINT32 ordinal, const Bytes& body = Bytes(200, 0)) {
    core_.fake().Expect({FakeTpmBackend::Response(TPM_SUCCESS, body), TSS_SUCCESS, ordinal});
  }
  // A signing key loaded under the SRK into kLoadedSlot (room, the service's SRK session, the
  // load); afterwards every use asks the TPM whether the slot still holds it.
  TCS_KEY_HANDLE LoadSigningKey() {
    Answer(TPM_ORD_GetCapability, Bytes{0, 0, 0, 1, 1});
    Answer(TPM_ORD_OIAP, Cat({U32(0x02000001), Bytes(20, 0x11)}));
    Answer(TPM_ORD_LoadKey2, Cat({U32(kLoadedSlot), Bytes(41, 0)}));
    const Bytes blob = testing::KeyBlob({.fill = 7, .authDataUsage = 0, .keyUsage = 0x0010});
    TCS_KEY_HANDLE key = 0;
    EXPECT_EQ(Tcsip_LoadKey2ByBlob_Internal(ctx_, kSrkKeyHandle, UINT32(blob.size()), blob.data(),
                                            nullptr, &key),
              TSS_SUCCESS);
    return key;
  }
  void AnswerStillLoaded() {
    Answer(TPM_ORD_GetCapability, Cat({U32(6), Bytes{0, 1}, U32(kLoadedSlot)}));
  }
  Bytes LastSent() const { return core_.SentAfterStart().back(); }
  size_t SentCount() const { return core_.SentAfterStart().size(); }
  Bytes Take(BYTE* block, UINT32 size) {
    Bytes out(block, block + size);
    if (block != nullptr) {
      EXPECT_EQ(ctx_ReleaseMemory(ctx_, block), TSS_SUCCESS);
    }
    return out;
  }

  testing::TestCore core_{testing::CoreOptions().Owned().NeedLog()};
  TCS_CONTEXT_HANDLE ctx_ = 0;
};

TEST_F(DataAttestCommandsTest, EachOperationSendsTheOrdinalOfTheTableAndNoTrailerWithoutASession) {
  const TPM_NONCE nonce{};
  const TPM_DIGEST digest{};
  const Bytes selection = {0, 3, 1, 0, 0};
  const Bytes stored(12, 0);  // the smallest TPM_STORED_DATA: version and two empty parts
  UINT32 a = 0, b = 0, c = 0;
  BYTE *pa = nullptr, *pb = nullptr, *pc = nullptr;
  TPM_VERSION version{};
  struct Case {
    std::string_view name;
    std::function<TSS_RESULT()> call;
  };
  const TCS_KEY_HANDLE srk = kSrkKeyHandle;
  const std::vector<Case> cases = {
      {"Tcsip_Seal",
       [&] {
         return Tcsip_Seal_Internal(ctx_, srk, TPM_ENCAUTH{}, 0, nullptr, 3, Bytes{1, 2, 3}.data(),
                                    nullptr, &a, &pa);
       }},
      {"Tcsip_Sealx",
       [&] {
         return Tcsip_Sealx_Internal(ctx_, srk, TPM_ENCAUTH{}, 0, nullptr, 3, Bytes{1, 2, 3}.data(),
                                     nullptr, &a, &pa);
       }},
      {"Tcsip_UnSeal",
       [&] {
         return Tcsip_UnSeal_Internal(ctx_, srk, UINT32(stored.size()), stored.data(), nullptr,
                                      nullptr, &a, &pa);
       }},
      {"Tcsip_Unbind",
       [&] {
         return Tcsip_Unbind_Internal(ctx_, srk, 2, Bytes{1, 2}.data(), nullptr, &a, &pa);
       }},
      {"Tcsip_Sign",
       [&] {
         return Tcsip_Sign_Internal(ctx_, srk, 2, Bytes{1, 2}.data(), nullptr, &a, &pa);
       }},
      {"Tcsip_Quote",
       [&] {
         return Tcsip_Quote_Internal(ctx_, srk, nonce, UINT32(selection.size()), selection.data(),
                                     nullptr, &a, &pa, &b, &pb);
       }},
      {"Tcsip_Quote2",
       [&] {
         return Tcsip_Quote2_Internal(ctx_, srk, nonce, UINT32(selection.size()), selection.data(),
                                      0, nullptr, &a, &pa, &b, &pb, &c, &pc);
       }},
      {"Tcsip_CertifyKey",
       [&] {
         return Tcsip_CertifyKey_Internal(ctx_, srk, srk, nonce, nullptr, nullptr, &a, &pa, &b,
                                          &pb);
       }},
      {"Tcsip_CertifyKey2",
       [&] {
         return Tcsip_CertifyKey2_Internal(ctx_, srk, srk, digest, nonce, nullptr, nullptr, &a, &pa,
                                           &b, &pb);
       }},
      {"Tcsip_GetCapabilitySigned",
       [&] {
         return Tcsip_GetCapabilitySigned_Internal(ctx_, srk, nonce, 5, 0, nullptr, nullptr,
                                                   &version, &a, &pa, &b, &pb);
       }},
      {"Tcsip_CertifySelfTest",
       [&] { return Tcsip_CertifySelfTest_Internal(ctx_, srk, nonce, nullptr, &a, &pa); }},
      {"Tcsip_TickStampBlob",
       [&] {
         return Tcsip_TickStampBlob_Internal(ctx_, srk, nonce, digest, nullptr, &a, &pa, &b, &pb);
       }},
  };
  for (const Case& c : cases) {
    // The ordinal of the operation table (CertifyKey2's is CertifyKey's, by design).
    const UINT32 ordinal = rpc::kOperations[OpnumOf(c.name)].tpm_ordinal.value;
    Answer(ordinal);
    EXPECT_EQ(c.call(), TSS_SUCCESS) << c.name;
    const Bytes sent = LastSent();
    EXPECT_EQ(U32At(sent, 6), ordinal) << c.name;
    EXPECT_EQ(U16At(sent, 0), TPM_TAG_RQU_COMMAND) << c.name;
    EXPECT_EQ(U32At(sent, 2), sent.size()) << c.name;
    EXPECT_EQ(U32At(sent, 10), kSrkKeyHandle) << c.name;
  }
  EXPECT_EQ(SentCount(), cases.size());
  // Seal without a session: keyHandle, encAuth, the two sized parts and nothing after them.
  core_.fake().Respond(TPM_SUCCESS, Bytes(12, 0));
  ASSERT_EQ(Tcsip_Seal_Internal(ctx_, srk, TPM_ENCAUTH{}, 2, Bytes{9, 9}.data(), 3,
                                Bytes{1, 2, 3}.data(), nullptr, &a, &pa),
            TSS_SUCCESS);
  EXPECT_EQ(LastSent().size(), 10u + 4 + 20 + 4 + 2 + 4 + 3);
  EXPECT_EQ(Take(pa, a), Bytes(12, 0));
}

TEST_F(DataAttestCommandsTest, TwoKeyCommandsSendTheirSlotsInTheirOwnOrder) {
  const TCS_KEY_HANDLE key = LoadSigningKey();
  ASSERT_NE(key, 0u);
  TPM_NONCE nonce{};
  nonce.nonce[0] = 0x4E;
  TPM_DIGEST msa{};
  msa.digest[0] = 0x4D;
  UINT32 infoSize = 0, sigSize = 0;
  BYTE *info = nullptr, *sig = nullptr;

  // CertifyKey: the certifying key, then the certified one, then the nonce.
  AnswerStillLoaded();
  Answer(TPM_ORD_CertifyKey);
  ASSERT_EQ(Tcsip_CertifyKey_Internal(ctx_, key, kSrkKeyHandle, nonce, nullptr, nullptr, &infoSize,
                                      &info, &sigSize, &sig),
            TSS_SUCCESS);
  Bytes sent = LastSent();
  EXPECT_EQ(U32At(sent, 6), TPM_ORD_CertifyKey);
  EXPECT_EQ(U32At(sent, 10), kLoadedSlot);
  EXPECT_EQ(U32At(sent, 14), kSrkKeyHandle);
  EXPECT_EQ(sent[18], 0x4E);
  EXPECT_EQ(sent.size(), 38u);
  Take(info, infoSize);
  Take(sig, sigSize);

  // CertifyKey2 keeps CertifyKey's ordinal, as designed: the certified key, the certifying key,
  // MSAdigest, the nonce.
  AnswerStillLoaded();
  Answer(TPM_ORD_CertifyKey);
  ASSERT_EQ(Tcsip_CertifyKey2_Internal(ctx_, key, kSrkKeyHandle, msa, nonce, nullptr, nullptr,
                                       &infoSize, &info, &sigSize, &sig),
            TSS_SUCCESS);
  sent = LastSent();
  EXPECT_EQ(U32At(sent, 6), TPM_ORD_CertifyKey);
  EXPECT_EQ(U32At(sent, 10), kLoadedSlot);
  EXPECT_EQ(U32At(sent, 14), kSrkKeyHandle);
  EXPECT_EQ(sent[18], 0x4D);
  EXPECT_EQ(sent[38], 0x4E);
  EXPECT_EQ(sent.size(), 58u);
  Take(info, infoSize);
  Take(sig, sigSize);
}

TEST_F(DataAttestCommandsTest, InputsThatDoNotFitOrAreNoStructureAreRefusedBeforeSending) {
  const Bytes big(4096, 0);
  UINT32 size = 0, sigSize = 0;
  BYTE *out = nullptr, *sig = nullptr;
  // Seal's bound: both sized parts and 110 fixed bytes within 4096.
  EXPECT_EQ(Tcsip_Seal_Internal(ctx_, kSrkKeyHandle, TPM_ENCAUTH{}, 3000, big.data(), 987,
                                big.data(), nullptr, &size, &out),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(SentCount(), 0u);
  core_.fake().Respond(TPM_SUCCESS, Bytes(12, 0));
  EXPECT_EQ(Tcsip_Seal_Internal(ctx_, kSrkKeyHandle, TPM_ENCAUTH{}, 3000, big.data(), 986,
                                big.data(), nullptr, &size, &out),
            TSS_SUCCESS);
  EXPECT_EQ(SentCount(), 1u);
  Take(out, size);
  // A size without its bytes, sealed data that is no TPM_STORED_DATA, a selection that is no
  // TPM_PCR_SELECTION.
  EXPECT_EQ(Tcsip_Sign_Internal(ctx_, kSrkKeyHandle, 20, nullptr, nullptr, &sigSize, &sig),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(
      Tcsip_UnSeal_Internal(ctx_, kSrkKeyHandle, 13, big.data(), nullptr, nullptr, &size, &out),
      TCS_E_BAD_PARAMETER);
  const Bytes selection = {0, 3, 1, 0};
  EXPECT_EQ(Tcsip_Quote_Internal(ctx_, kSrkKeyHandle, TPM_NONCE{}, UINT32(selection.size()),
                                 selection.data(), nullptr, &size, &out, &sigSize, &sig),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(SentCount(), 1u);
}

TEST_F(DataAttestCommandsTest, OutputsComeBackInTheOperationsOrder) {
  TPM_NONCE nonce{};
  const Bytes selection = {0, 3, 1, 0, 0};
  // TickStampBlob: the TPM answers the ticks first, the operation hands the signature out first.
  const Bytes ticks = Cat({Bytes{0, 0x14}, Bytes(8, 0x77), Bytes{0, 1}, Bytes(20, 0x55)});
  Answer(TPM_ORD_TickStampBlob, Cat({ticks, U32(3), Bytes{0xA, 0xB, 0xC}}));
  UINT32 sigSize = 0, ticksSize = 0, infoSize = 0, versionSize = 0;
  BYTE *sig = nullptr, *tickBytes = nullptr, *info = nullptr, *version = nullptr;
  ASSERT_EQ(Tcsip_TickStampBlob_Internal(ctx_, kSrkKeyHandle, nonce, TPM_DIGEST{}, nullptr,
                                         &sigSize, &sig, &ticksSize, &tickBytes),
            TSS_SUCCESS);
  EXPECT_EQ(Take(sig, sigSize), (Bytes{0xA, 0xB, 0xC}));
  EXPECT_EQ(Take(tickBytes, ticksSize), ticks);

  // Quote2 without addVersion hands out no version info, whatever the TPM put there.
  const Bytes infoShort = Cat({selection, Bytes{1}, Bytes(20, 0x33)});
  const Bytes answer = Cat({infoShort, U32(2), Bytes{1, 2}, U32(1), Bytes{0x5A}});
  Answer(TPM_ORD_Quote2, answer);
  ASSERT_EQ(
      Tcsip_Quote2_Internal(ctx_, kSrkKeyHandle, nonce, UINT32(selection.size()), selection.data(),
                            0, nullptr, &infoSize, &info, &versionSize, &version, &sigSize, &sig),
      TSS_SUCCESS);
  EXPECT_EQ(Take(info, infoSize), infoShort);
  EXPECT_EQ(versionSize, 0u);
  EXPECT_EQ(version, nullptr);
  EXPECT_EQ(Take(sig, sigSize), Bytes{0x5A});
  Answer(TPM_ORD_Quote2, answer);
  ASSERT_EQ(
      Tcsip_Quote2_Internal(ctx_, kSrkKeyHandle, nonce, UINT32(selection.size()), selection.data(),
                            1, nullptr, &infoSize, &info, &versionSize, &version, &sigSize, &sig),
      TSS_SUCCESS);
  EXPECT_EQ(Take(info, infoSize), infoShort);
  EXPECT_EQ(Take(version, versionSize), (Bytes{1, 2}));
  EXPECT_EQ(Take(sig, sigSize), Bytes{0x5A});

  // A signature that claims more bytes than came back hands nothing out.
  Answer(TPM_ORD_Quote, Cat({Bytes{0, 3, 1, 0, 0}, U32(0), U32(9), Bytes{1}}));
  infoSize = 77;
  EXPECT_EQ(Tcsip_Quote_Internal(ctx_, kSrkKeyHandle, nonce, UINT32(selection.size()),
                                 selection.data(), nullptr, &infoSize, &info, &sigSize, &sig),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(infoSize, 77u);
}

TEST_F(DataAttestCommandsTest, UnbindLogsAKeyThatCannotBeLoaded) {
  static_cast<void>(core_.TakeTraces());
  UINT32 size = 0;
  BYTE* out = nullptr;
  EXPECT_EQ(Tcsip_Unbind_Internal(ctx_, 0x00C0FFEE, 2, Bytes{1, 2}.data(), nullptr, &size, &out),
            TCS_E_INVALID_KEY);
  EXPECT_EQ(SentCount(), 0u);
  EXPECT_THAT(core_.TakeTraces(),
              Contains(HasSubstr("Tcsip_UnBind_Internal:ensureKeyIsLoaded:result=0xE02820CA,"
                                 "keyHandle=0x00C0FFEE,keySlot=0")));
}

}  // namespace
}  // namespace kesttcs
