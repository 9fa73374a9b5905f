// NV storage, counters, maintenance, field upgrade and redirection against a scripted TPM, for what
// the embedded TPM cannot show: the exact bytes sent (tags by session, key slots, raw vendor
// parameters), outputs of commands libtpms does not implement, and short answers refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_counters.h"
#include "commands/tcsip_maintenance.h"
#include "commands/tcsip_nv.h"
#include "commands/tcsip_sessions.h"
#include "commands/tcsip_vendor_features.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/auth_mgr.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TCS_AUTHHANDLE kSession = 0x02000009;

Bytes Trailer(const TPM_AUTH& auth) {
  return Cat({U32(auth.AuthHandle),
              Bytes(auth.NonceOdd.nonce, auth.NonceOdd.nonce + 20),
              {auth.fContinueAuthSession},
              Bytes(auth.HMAC.authdata, auth.HMAC.authdata + 20)});
}
Bytes ResponseTrailer() { return Cat({Fill(20, 0xE7), {1}, Fill(20, 0x4E)}); }

class StorageCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    tpm_ = &core_.fake();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    tpm_->Respond(TPM_SUCCESS, Cat({U32(kSession), Fill(20, 0x0E)}));
    TCS_AUTHHANDLE opened = 0;
    TPM_NONCE nonceEven;
    ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &opened, &nonceEven), TSS_SUCCESS);
    auth_.AuthHandle = kSession;
    std::memset(auth_.NonceOdd.nonce, 0x0D, 20);
    auth_.fContinueAuthSession = 1;
    std::memset(auth_.HMAC.authdata, 0x4A, 20);
  }
  void TearDown() override { EXPECT_THAT(tpm_->Mismatches(), IsEmpty()); }
  Bytes LastSent() { return core_.SentAfterStart().back(); }
  size_t SentCount() { return core_.SentAfterStart().size(); }

  testing::TestCore core_;
  FakeTpmBackend* tpm_ = nullptr;
  TCS_CONTEXT_HANDLE ctx_ = 0;
  TPM_AUTH auth_{};
};

TEST_F(StorageCommandsTest, NvCommandsChooseTheirTagAndReadWhatTheTpmGives) {
  const Bytes data = {1, 2, 3};
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_NV_WriteValue_Internal(ctx_, 0x11101, 4, 3, data.data(), nullptr), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_NV_WriteValue, Cat({U32(0x11101), U32(4), U32(3), data})));

  const TPM_AUTH sent = auth_;
  tpm_->Respond(TPM_SUCCESS, Cat({U32(2), {0xAA, 0xBB}, ResponseTrailer()}));
  UINT32 size = 2;
  BYTE* out = nullptr;
  EXPECT_EQ(Tcsip_NV_ReadValueAuth_Internal(ctx_, 0x11101, 0, &size, &auth_, &out), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_NV_ReadValueAuth,
                                Cat({U32(0x11101), U32(0), U32(2), Trailer(sent)})));
  EXPECT_EQ(ToBytes(out, size), (Bytes{0xAA, 0xBB}));

  // An answer shorter than the size it gives hands nothing out.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(9), {0xAA}}));
  size = 9;
  out = nullptr;
  EXPECT_EQ(Tcsip_NV_ReadValue_Internal(ctx_, 0x11101, 0, &size, nullptr, &out),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(out, nullptr);

  // The space's own session is required; nothing is sent without it.
  const size_t before = SentCount();
  EXPECT_EQ(Tcsip_NV_WriteValueAuth_Internal(ctx_, 1, 0, 3, data.data(), nullptr),
            TCS_E_BAD_PARAMETER);
  Bytes big(4096 - 22 - 45 + 1);
  EXPECT_EQ(Tcsip_NV_WriteValue_Internal(ctx_, 1, 0, UINT32(big.size()), big.data(), &auth_),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(SentCount(), before);
}

TEST_F(StorageCommandsTest, CountersSendTheirOrdinalsAndCheckTheLabel) {
  const Bytes label = {'K', 'E', 'S', 'T'};
  TSS_COUNTER_ID id = 0;
  TPM_COUNTER_VALUE value{};
  const size_t before = SentCount();
  EXPECT_EQ(Tcsip_CreateCounter_Internal(ctx_, 3, label.data(), TPM_ENCAUTH{}, &auth_, &id, &value),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(SentCount(), before);
  const Bytes counter = Cat({U16(0x0004), label, U32(7)});
  tpm_->Respond(TPM_SUCCESS, Cat({U32(0x33), counter, ResponseTrailer()}));
  TPM_AUTH sent = auth_;
  ASSERT_EQ(Tcsip_CreateCounter_Internal(ctx_, 4, label.data(), TPM_ENCAUTH{}, &auth_, &id, &value),
            TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_CreateCounter,
                                Cat({Fill(20, 0), label, Trailer(sent)})));
  EXPECT_EQ(id, 0x33u);
  EXPECT_EQ(value.counter, 7u);

  // The owner's release sends the counter's release ordinal, as designed.
  tpm_->Respond(TPM_SUCCESS, ResponseTrailer());
  sent = auth_;
  EXPECT_EQ(Tcsip_ReleaseCounterOwner_Internal(ctx_, 0x33, &auth_), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_ReleaseCounter,
                                Cat({U32(0x33), Trailer(sent)})));
}

TEST_F(StorageCommandsTest, MaintenanceAndFieldUpgradeHandOutWhatTheTpmReturns) {
  tpm_->Respond(TPM_SUCCESS,
                Cat({U32(2), {0x11, 0x22}, U32(3), {0x33, 0x44, 0x55}, ResponseTrailer()}));
  UINT32 randomSize = 0, archiveSize = 0;
  BYTE *random = nullptr, *archive = nullptr;
  ASSERT_EQ(Tcsip_CreateMaintenanceArchive_Internal(ctx_, 1, &auth_, &randomSize, &random,
                                                    &archiveSize, &archive),
            TSS_SUCCESS);
  EXPECT_EQ(ToBytes(random, randomSize), (Bytes{0x11, 0x22}));
  EXPECT_EQ(ToBytes(archive, archiveSize), (Bytes{0x33, 0x44, 0x55}));
  // An archive size beyond the answer: nothing is handed out.
  tpm_->Respond(TPM_SUCCESS, Cat({U32(0), U32(99), {0x33}, ResponseTrailer()}));
  random = archive = nullptr;
  EXPECT_EQ(Tcsip_CreateMaintenanceArchive_Internal(ctx_, 0, &auth_, &randomSize, &random,
                                                    &archiveSize, &archive),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(random, nullptr);
  EXPECT_EQ(archive, nullptr);

  // A TPM 1.2 returns no data from loading an archive; what a TPM does return is handed out.
  const Bytes dataIn = {9, 8, 7};
  tpm_->Respond(TPM_SUCCESS, Cat({{0x66}, ResponseTrailer()}));
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  EXPECT_EQ(Tcsip_LoadMaintenanceArchive_Internal(ctx_, 3, dataIn.data(), &auth_, &outSize, &out),
            TSS_SUCCESS);
  EXPECT_EQ(ToBytes(out, outSize), Bytes{0x66});

  // Field upgrade: the caller's bytes are the parameters, the TPM's are the output.
  tpm_->Respond(TPM_SUCCESS, Bytes{0xF0, 0x0D});
  EXPECT_EQ(Tcsip_FieldUpgrade_Internal(ctx_, 3, dataIn.data(), nullptr, &outSize, &out),
            TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_FieldUpgrade, dataIn));
  EXPECT_EQ(ToBytes(out, outSize), (Bytes{0xF0, 0x0D}));
}

TEST_F(StorageCommandsTest, RedirectionSendsTheKeysSlot) {
  const Bytes channel = {0, 0, 0, 1};
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_SetRedirection_Internal(ctx_, kSrkKeyHandle, 1, 4, channel.data(), nullptr),
            TSS_SUCCESS);
  EXPECT_EQ(LastSent(),
            Plain(TPM_ORD_SetRedirection, Cat({U32(0x40000000), U32(1), U32(4), channel})));
  const size_t before = SentCount();
  EXPECT_EQ(Tcsip_SetRedirection_Internal(ctx_, 0x12345678, 1, 4, channel.data(), &auth_),
            TCS_E_INVALID_KEY);
  EXPECT_EQ(SentCount(), before);
}

}  // namespace
}  // namespace kesttcs
