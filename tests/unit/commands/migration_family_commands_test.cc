// The delegation, DAA, migration and certified-migration commands against a scripted TPM, for what
// the emulator cannot show: the layouts of the two commands it refuses, the tag an optional
// session sets, inputs refused before sending (a structure sent without a size must be exactly
// one, inputs must fit the buffer) and two outputs handed back both or neither.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_cmk.h"
#include "commands/tcsip_daa.h"
#include "commands/tcsip_delegation.h"
#include "commands/tcsip_migration.h"
#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "storage/test_keys.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TCS_KEY_HANDLE kSrk = 0x40000000;
constexpr TCS_AUTHHANDLE kFirstSession = 0x02000011;
constexpr TCS_AUTHHANDLE kSecondSession = 0x02000012;

// Well-formed structures of the smallest size: a TPM_PUBKEY with no parameters and no key bytes,
// a TPM_MIGRATIONKEYAUTH holding it, a TPM_DELEGATE_PUBLIC of zeros, a small TPM_KEY12.
const Bytes kPubKey = Fill(16, 0);
const Bytes kMigrationKeyAuth = Cat({kPubKey, U16(1), Fill(20, 0x3C)});
const Bytes kDelegatePublic = Fill(48, 0);
const Bytes kKey = testing::KeyBlob({});

class MigrationFamilyCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    first_ = Session(kFirstSession, 0x11);
    second_ = Session(kSecondSession, 0x22);
  }
  void TearDown() override { EXPECT_THAT(core_.fake().Mismatches(), IsEmpty()); }

  // Opens session `handle` for the context and gives the record the caller would send on it.
  TPM_AUTH Session(TCS_AUTHHANDLE handle, BYTE fill) {
    core_.fake().Respond(TPM_SUCCESS, Cat({U32(handle), Fill(20, 0x0E)}));
    TCS_AUTHHANDLE opened = 0;
    TPM_NONCE nonceEven;
    EXPECT_EQ(Tcsip_OIAP_Internal(ctx_, &opened, &nonceEven), TSS_SUCCESS);
    TPM_AUTH auth{};
    auth.AuthHandle = handle;
    std::memset(auth.NonceOdd.nonce, fill, 20);
    auth.fContinueAuthSession = 1;
    std::memset(auth.HMAC.authdata, fill + 1, 20);
    return auth;
  }
  static Bytes Trailer(const TPM_AUTH& a) {
    return Cat({U32(a.AuthHandle),
                ToBytes(a.NonceOdd.nonce, 20),
                {a.fContinueAuthSession},
                ToBytes(a.HMAC.authdata, 20)});
  }
  // The TPM's answer to a command with one session: `outputs`, then the response trailer. The
  // sessions' records are kept as they will be sent: the answer overwrites them.
  void Answer(const Bytes& outputs) {
    firstSent_ = first_;
    secondSent_ = second_;
    core_.fake().Respond(TPM_SUCCESS, Cat({outputs, Fill(20, 0xE7), {1}, Fill(20, 0x4E)}));
  }
  Bytes LastSent() { return core_.SentAfterStart().back(); }
  size_t SentCount() { return core_.SentAfterStart().size(); }
  Bytes One(const Bytes& params) {
    return Request(TPM_TAG_RQU_AUTH1_COMMAND, 0, Cat({params, Trailer(firstSent_)}));
  }
  // Compares everything but the ordinal with `expected`, and the ordinal with `ordinal`.
  void ExpectSent(UINT32 ordinal, Bytes expected) {
    const Bytes sent = LastSent();
    std::memcpy(expected.data() + 6, U32(ordinal).data(), 4);
    EXPECT_EQ(sent, expected) << "ordinal 0x" << std::hex << ordinal;
  }

  testing::TestCore core_;
  TCS_CONTEXT_HANDLE ctx_ = 0;
  TPM_AUTH first_{};
  TPM_AUTH second_{};
  TPM_AUTH firstSent_{};
  TPM_AUTH secondSent_{};
  UINT32 size_ = 0;
  BYTE* out_ = nullptr;
  UINT32 size2_ = 0;
  BYTE* out2_ = nullptr;
};

// The emulator refuses what the integration tests can give these two, so their layouts are
// checked here: the DAA stage's handle (not covered by the HMAC) before its stage, and the
// certified key's tickets before the key, the authorities' list and the pad.
TEST_F(MigrationFamilyCommandsTest, DaaSignAndCmkConvertMigrationSendTheTpmsLayout) {
  const Bytes in0 = {1, 2};
  const Bytes in1 = {3};
  Answer(Cat({U32(1), {0x5A}}));
  ASSERT_EQ(Tcsip_TPM_DAA_Sign_Internal(ctx_, 0x02000099, 5, 2, in0.data(), 1, in1.data(), &first_,
                                        &size_, &out_),
            TSS_SUCCESS);
  ExpectSent(TPM_ORD_DAA_Sign, One(Cat({U32(0x02000099), {5}, U32(2), in0, U32(1), in1})));
  EXPECT_EQ(ToBytes(out_, size_), (Bytes{0x5A}));

  const Bytes msaList = Cat({U32(1), Fill(20, 0x4D)});
  const TPM_CMK_AUTH restrict {Digest(0xA1), Digest(0xA2), Digest(0xA3)};
  const Bytes random = {0x77};
  Answer(Cat({U32(1), {0x63}}));
  ASSERT_EQ(Tcsip_CMK_ConvertMigration_Internal(
                ctx_, kSrk, restrict, Digest(0x72), UINT32(kKey.size()), kKey.data(), 24,
                msaList.data(), 1, random.data(), &first_, &size_, &out_),
            TSS_SUCCESS);
  ExpectSent(TPM_ORD_CMK_ConvertMigration,
             One(Cat({U32(kSrk), Fill(20, 0xA1), Fill(20, 0xA2), Fill(20, 0xA3), Fill(20, 0x72),
                      kKey, U32(24), msaList, U32(1), random})));
  EXPECT_EQ(ToBytes(out_, size_), (Bytes{0x63}));
}

// An optional session left out drops its trailer and lowers the tag; the required one stays.
TEST_F(MigrationFamilyCommandsTest, OptionalSessionsSetTheTag) {
  core_.fake().Respond(TPM_SUCCESS, U32(0));
  ASSERT_EQ(Tcsip_Delegate_Manage_Internal(ctx_, 7, 1, 0, nullptr, nullptr, &size_, &out_),
            TSS_SUCCESS);
  ExpectSent(TPM_ORD_Delegate_Manage, Plain(0, Cat({U32(7), U32(1), U32(0)})));

  const Bytes encData = Fill(8, 0x5E);
  Answer(Cat({U32(0), U32(0)}));
  ASSERT_EQ(Tcsip_CreateMigrationBlob_Internal(ctx_, kSrk, 1, UINT32(kMigrationKeyAuth.size()),
                                               kMigrationKeyAuth.data(), 8, encData.data(), nullptr,
                                               &second_, &size_, &out_, &size2_, &out2_),
            TSS_SUCCESS);
  ExpectSent(
      TPM_ORD_CreateMigrationBlob,
      Request(TPM_TAG_RQU_AUTH1_COMMAND, 0,
              Cat({U32(kSrk), U16(1), kMigrationKeyAuth, U32(8), encData, Trailer(secondSent_)})));
}

TEST_F(MigrationFamilyCommandsTest, BadInputsAreRefusedBeforeAnythingIsSent) {
  const size_t before = SentCount();
  const Bytes longer = Cat({kDelegatePublic, {0}});
  const Bytes big(4096, 0);
  EXPECT_EQ(Tcsip_Delegate_CreateOwnerDelegation_Internal(ctx_, 0, 49, longer.data(), TPM_ENCAUTH{},
                                                          &first_, &size_, &out_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_Delegate_CreateKeyDelegation_Internal(ctx_, kSrk, 47, kDelegatePublic.data(),
                                                        TPM_ENCAUTH{}, &first_, &size_, &out_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(
      Tcsip_AuthorizeMigrationKey_Internal(ctx_, 1, 15, kPubKey.data(), &first_, &size_, &out_),
      TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_CreateMigrationBlob_Internal(ctx_, kSrk, 1, 0, nullptr, 0, nullptr, nullptr,
                                               &second_, &size_, &out_, &size2_, &out2_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_MigrateKey_Internal(ctx_, kSrk, 16, kPubKey.data(), 4096, big.data(), &first_,
                                      &size_, &out_),
            TCS_E_BAD_PARAMETER);
  // A size without its bytes.
  EXPECT_EQ(Tcsip_TPM_DAA_Join_Internal(ctx_, 0, 0, 0, nullptr, 5, nullptr, &first_, &size_, &out_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_CMK_CreateTicket_Internal(ctx_, 16, kPubKey.data(), Digest(0), 4000, big.data(),
                                            &first_, nullptr),
            TCS_E_BAD_PARAMETER);
  // The key template with a byte too many.
  Bytes keyTemplate = Cat({kKey, {0}});
  BYTE* keyData = keyTemplate.data();
  UINT32 keySize = UINT32(keyTemplate.size());
  EXPECT_EQ(Tcsip_CMK_CreateKey_Internal(ctx_, kSrk, TPM_ENCAUTH{}, Digest(0), Digest(0), &keySize,
                                         &keyData, &first_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(keyData, keyTemplate.data());
  // Five parts that fit one by one but not together.
  const Bytes part(1000, 0);
  EXPECT_EQ(Tcsip_CMK_CreateBlob_Internal(ctx_, kSrk, 4, UINT32(kMigrationKeyAuth.size()),
                                          kMigrationKeyAuth.data(), Digest(0), 1000, part.data(),
                                          1000, part.data(), 1000, part.data(), 1000, part.data(),
                                          nullptr, &size_, &out_, &size2_, &out2_),
            TCS_E_BAD_PARAMETER);
  // No key behind the handle, or a required session missing.
  EXPECT_EQ(Tcsip_ConvertMigrationBlob_Internal(ctx_, 0x0BAD0BAD, 0, nullptr, 0, nullptr, nullptr,
                                                &size_, &out_),
            TCS_E_INVALID_KEY);
  EXPECT_EQ(Tcsip_CMK_SetRestrictions_Internal(ctx_, 0, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(
      Tcsip_Delegate_UpdateVerificationCount_Internal(ctx_, 0, nullptr, nullptr, &size_, &out_),
      TCS_E_BAD_PARAMETER);
  EXPECT_EQ(SentCount(), before);
}

TEST_F(MigrationFamilyCommandsTest, OfTwoOutputsBothComeBackOrNeither) {
  // The delegate table's size claims more than the answer holds.
  core_.fake().Respond(TPM_SUCCESS, Cat({U32(1), {0xF1}, U32(9), {0xD1}}));
  EXPECT_EQ(Tcsip_Delegate_ReadTable_Internal(ctx_, &size_, &out_, &size2_, &out2_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(out_, nullptr);
  EXPECT_EQ(out2_, nullptr);
  EXPECT_EQ(size_, 0u);
}

}  // namespace
}  // namespace kesttcs
