// The authorised commands against a scripted TPM: the session bookkeeping every one of them shares
// (check before sending, release after a failure, free after continue 0, the trailer read back),
// byte-exact commands and outputs of the owner operations, and the storage file OwnerClear removes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_owner.h"
#include "commands/tcsip_sessions.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "keys/auth_mgr.h"
#include "keys/key_equality.h"
#include "keys/mem_cache.h"
#include "service/startup.h"
#include "storage/persistent_storage.h"
#include "storage/registered_keys.h"
#include "storage/test_keys.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TCS_AUTHHANDLE kSession = 0x02000007;

// The request trailer of `auth` and a response trailer: nonceEven 0xE7..., continue, HMAC 0x4E....
Bytes RequestTrailer(const TPM_AUTH& auth) {
  return Cat({U32(auth.AuthHandle),
              Bytes(auth.NonceOdd.nonce, auth.NonceOdd.nonce + 20),
              {auth.fContinueAuthSession},
              Bytes(auth.HMAC.authdata, auth.HMAC.authdata + 20)});
}
Bytes ResponseTrailer(BYTE continueSession) {
  return Cat({Fill(20, 0xE7), {continueSession}, Fill(20, 0x4E)});
}
Bytes Authorised(UINT32 ordinal, const Bytes& params, const TPM_AUTH& auth) {
  return Request(TPM_TAG_RQU_AUTH1_COMMAND, ordinal, Cat({params, RequestTrailer(auth)}));
}

class OwnerCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    tpm_ = &core_.fake();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    auth_.AuthHandle = kSession;
    std::memset(auth_.NonceOdd.nonce, 0x0D, 20);
    auth_.fContinueAuthSession = 1;
    std::memset(auth_.HMAC.authdata, 0x4A, 20);
    OpenSession();
  }
  void TearDown() override { EXPECT_THAT(tpm_->Mismatches(), IsEmpty()); }

  void OpenSession() {
    tpm_->Respond(TPM_SUCCESS, Cat({U32(kSession), Fill(20, 0x0E)}));
    TCS_AUTHHANDLE opened = 0;
    TPM_NONCE nonceEven;
    ASSERT_EQ(Tcsip_OIAP_Internal(ctx_, &opened, &nonceEven), TSS_SUCCESS);
  }
  bool SessionOpen() const { return auth_mgr_check(ctx_, kSession) == TSS_SUCCESS; }
  std::vector<Bytes> Sent() { return core_.SentAfterStart(); }
  Bytes LastSent() { return Sent().back(); }

  testing::TestCore core_;
  FakeTpmBackend* tpm_ = nullptr;  // the core's
  TCS_CONTEXT_HANDLE ctx_ = 0;
  TPM_AUTH auth_{};
};

TEST_F(OwnerCommandsTest, EachCommandKeepsItsSessionStraight) {
  // Success with continue: the session stays, the TPM's trailer comes back into the record.
  tpm_->Respond(TPM_SUCCESS, ResponseTrailer(1));
  const TPM_AUTH sent = auth_;
  EXPECT_EQ(Tcsip_DisableOwnerClear_Internal(ctx_, &auth_), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Authorised(TPM_ORD_DisableOwnerClear, {}, sent));
  EXPECT_EQ(Bytes(auth_.NonceEven.nonce, auth_.NonceEven.nonce + 20), Fill(20, 0xE7));
  EXPECT_EQ(Bytes(auth_.HMAC.authdata, auth_.HMAC.authdata + 20), Fill(20, 0x4E));
  EXPECT_EQ(auth_.AuthHandle, kSession);
  EXPECT_TRUE(SessionOpen());

  // A response too short for its trailer is a failure: the session is ended.
  tpm_->Respond(TPM_SUCCESS, Fill(40, 0));
  tpm_->Respond(TPM_SUCCESS);  // the flush
  EXPECT_EQ(Tcsip_ResetLockValue_Internal(ctx_, &auth_), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_FlushSpecific, Cat({U32(kSession), U32(TPM_RT_AUTH)})));
  EXPECT_FALSE(SessionOpen());

  // Refused by the TPM: the session is ended in the TPM and freed.
  OpenSession();
  tpm_->Respond(TPM_AUTHFAIL);
  tpm_->Respond(TPM_SUCCESS);  // the flush
  EXPECT_EQ(Tcsip_DisablePubekRead_Internal(ctx_, &auth_), 0xE0280001u);
  const std::vector<UINT32> ordinals = core_.OrdinalsAfterStart();
  EXPECT_THAT(std::vector<UINT32>(ordinals.end() - 2, ordinals.end()),
              ElementsAre(TPM_ORD_DisablePubekRead, TPM_ORD_FlushSpecific));
  EXPECT_FALSE(SessionOpen());

  // Success without continue: the TPM ended the session, the table frees it without a flush.
  OpenSession();
  auth_.fContinueAuthSession = 0;
  tpm_->Respond(TPM_SUCCESS, ResponseTrailer(0));
  EXPECT_EQ(Tcsip_OwnerSetDisable_Internal(ctx_, 1, &auth_), TSS_SUCCESS);
  EXPECT_EQ(core_.OrdinalsAfterStart().back(), TPM_ORD_OwnerSetDisable);
  EXPECT_FALSE(SessionOpen());

  // A session the context does not hold, or none where one is required: nothing is sent.
  const size_t count = Sent().size();
  EXPECT_EQ(Tcsip_OwnerSetDisable_Internal(ctx_, 1, &auth_), TCS_E_INTERNAL_ERROR);
  EXPECT_EQ(Tcsip_OwnerSetDisable_Internal(ctx_, 1, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Tcsip_OwnerClear_Internal(0xA0000001, &auth_), TCS_E_INVALID_CONTEXT);
  EXPECT_EQ(Sent().size(), count);
}

TEST_F(OwnerCommandsTest, TakeOwnershipSendsItsPartsAndHandsBackTheNewSrk) {
  const Bytes ownerSecret = Fill(256, 0x0A);
  const Bytes srkSecret = Fill(256, 0x5A);
  const Bytes srkParams = testing::KeyBlob({.modulusSize = 0, .encSize = 0, .keyUsage = 0x0011});
  const Bytes srk = testing::KeyBlob({.modulusSize = 256, .fill = 0x30, .keyUsage = 0x0011});

  tpm_->Respond(TPM_SUCCESS, Cat({srk, ResponseTrailer(0)}));
  const TPM_AUTH sent = auth_;
  UINT32 srkSize = 0;
  BYTE* srkKey = nullptr;
  EXPECT_EQ(Tcsip_TakeOwnership_Internal(ctx_, 0x0005, 256, ownerSecret.data(), 256,
                                         srkSecret.data(), static_cast<UINT32>(srkParams.size()),
                                         srkParams.data(), &auth_, &srkSize, &srkKey),
            TSS_SUCCESS);
  EXPECT_EQ(
      LastSent(),
      Authorised(TPM_ORD_TakeOwnership,
                 Cat({U16(0x0005), U32(256), ownerSecret, U32(256), srkSecret, srkParams}), sent));
  EXPECT_EQ(ToBytes(srkKey, srkSize), srk);
  // The key cache now holds the new SRK under its fixed handle.
  const std::optional<TPM_KEY> cached = getKeyByHandle(kSrkKeyHandle);
  ASSERT_TRUE(cached.has_value());
  BlobReader reader(srk);
  TPM_KEY made;
  ASSERT_EQ(UnloadBlob(reader, &made), TSS_SUCCESS);
  EXPECT_TRUE(keysEqual(*cached, made));
  EXPECT_EQ(auth_.fContinueAuthSession, 0);

  // srkInfo that is not exactly one key, or secrets past the buffer, are refused unsent.
  OpenSession();
  const size_t count = Sent().size();
  const Bytes padded = Cat({srkParams, {0}});
  for (const Bytes& info : {Bytes(srkParams.begin(), srkParams.end() - 1), padded}) {
    EXPECT_EQ(Tcsip_TakeOwnership_Internal(ctx_, 5, 0, nullptr, 0, nullptr,
                                           static_cast<UINT32>(info.size()), info.data(), &auth_,
                                           &srkSize, &srkKey),
              TCS_E_BAD_PARAMETER);
  }
  const Bytes huge(4096, 1);
  EXPECT_EQ(Tcsip_TakeOwnership_Internal(ctx_, 5, 4096, huge.data(), 0, nullptr,
                                         static_cast<UINT32>(srkParams.size()), srkParams.data(),
                                         &auth_, &srkSize, &srkKey),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(Sent().size(), count);
  EXPECT_TRUE(SessionOpen());
}

struct Case {
  std::string name;
  std::function<TSS_RESULT(TCS_CONTEXT_HANDLE, TPM_AUTH*)> call;
  UINT32 ordinal;
  Bytes params;
  Bytes outputs;
};

TEST_F(OwnerCommandsTest, EveryOwnerCommandSendsItsParametersByteForByte) {
  static TPM_VERSION version;
  static UINT32 flags[2];
  static UINT32 size;
  static BYTE* out;
  const Bytes pubkey =
      Cat({U32(1), U16(3), U16(1), U32(12), U32(512), U32(2), U32(0), U32(8), Fill(8, 0xEE)});
  const std::vector<Case> cases = {
      {"ChangeAuthOwner",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) {
         TPM_ENCAUTH secret;
         std::memset(secret.authdata, 0x77, 20);
         return Tcsip_ChangeAuthOwner_Internal(h, 0x0005, secret, 0x0004, a);
       },
       TPM_ORD_ChangeAuthOwner,
       Cat({U16(5), Fill(20, 0x77), U16(4)}),
       {}},
      {"OwnerSetDisable",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) { return Tcsip_OwnerSetDisable_Internal(h, 1, a); },
       TPM_ORD_OwnerSetDisable,
       {1},
       {}},
      {"DirWriteAuth",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) {
         return Tcsip_DirWriteAuth_Internal(h, 0, Digest(0x3C), a);
       },
       TPM_ORD_DirWriteAuth,
       Cat({U32(0), Fill(20, 0x3C)}),
       {}},
      {"GetCapabilityOwner",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) {
         return Tcsip_GetCapabilityOwner_Internal(h, a, &version, &flags[0], &flags[1]);
       },
       TPM_ORD_GetCapabilityOwner,
       {},
       Cat({{1, 2, 3, 4}, U32(0x80000001), U32(0x00000002)})},
      {"OwnerReadPubek (a TPM 1.2 reads the EK's internal public part)",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) {
         return Tcsip_OwnerReadPubek_Internal(h, a, &size, &out);
       },
       TPM_ORD_OwnerReadInternalPub, U32(0x40000006), pubkey},
      {"SetCapability",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) {
         const BYTE sub[4] = {0, 0, 0, 3};
         const BYTE value[1] = {1};
         return Tcsip_SetCapability_Internal(h, 0x0A, 4, sub, 1, value, a);
       },
       TPM_ORD_SetCapability,
       Cat({U32(0x0A), U32(4), U32(3), U32(1), {1}}),
       {}},
      {"SetTempDeactivated2",
       [](TCS_CONTEXT_HANDLE h, TPM_AUTH* a) { return Tcsip_SetTempDeactivated2_Internal(h, a); },
       TPM_ORD_SetTempDeactivated,
       {},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tpm_->Respond(TPM_SUCCESS, Cat({c.outputs, ResponseTrailer(1)}));
    const TPM_AUTH sent = auth_;
    EXPECT_EQ(c.call(ctx_, &auth_), TSS_SUCCESS);
    EXPECT_EQ(LastSent(), Authorised(c.ordinal, c.params, sent));
    EXPECT_EQ(auth_.NonceEven.nonce[0], 0xE7);
    EXPECT_TRUE(SessionOpen());
  }
  EXPECT_EQ(version.major, 1);
  EXPECT_EQ(version.revMinor, 4);
  EXPECT_EQ(flags[0], 0x80000001u);
  EXPECT_EQ(flags[1], 2u);
  EXPECT_EQ(ToBytes(out, size), pubkey);

  // Optional sessions: without one the tag is 0x00C1 and no trailer follows.
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_SetTempDeactivated2_Internal(ctx_, nullptr), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_SetTempDeactivated));
  tpm_->Respond(TPM_SUCCESS);
  EXPECT_EQ(Tcsip_SetCapability_Internal(ctx_, 0x0A, 0, nullptr, 0, nullptr, nullptr), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_SetCapability, Cat({U32(0x0A), U32(0), U32(0)})));
  // The operator's secret needs no session.
  tpm_->Respond(TPM_SUCCESS);
  TPM_SECRET operatorSecret;
  std::memset(operatorSecret.authdata, 0x0C, 20);
  EXPECT_EQ(Tcsip_SetOperatorAuth_Internal(ctx_, operatorSecret), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Plain(TPM_ORD_SetOperatorAuth, Fill(20, 0x0C)));

  // Any other TPM is sent the older TPM_OwnerReadPubek.
  SetTpmIsVersion12(false);
  tpm_->Respond(TPM_SUCCESS, Cat({pubkey, ResponseTrailer(1)}));
  const TPM_AUTH sent = auth_;
  EXPECT_EQ(Tcsip_OwnerReadPubek_Internal(ctx_, &auth_, &size, &out), TSS_SUCCESS);
  EXPECT_EQ(LastSent(), Authorised(TPM_ORD_OwnerReadPubek, {}, sent));
  SetTpmIsVersion12(true);
}

TEST_F(OwnerCommandsTest, OwnerClearDeletesTheStorageFileOnlyWhenTheTpmCleared) {
  const std::string& storageFile = ServicePaths().storageFile;
  TSS_UUID uuid{};
  uuid.rgbNode[5] = 7;
  TSS_UUID srkUuid{};
  srkUuid.rgbNode[5] = 1;
  const Bytes key = testing::KeyBlob({});
  ASSERT_EQ(Tcsi_RegisterKey_Internal(ctx_, srkUuid, uuid, static_cast<UINT32>(key.size()),
                                      key.data(), 0, nullptr),
            TSS_SUCCESS);
  ASSERT_EQ(access(storageFile.c_str(), F_OK), 0);

  tpm_->Respond(TPM_AUTHFAIL);
  tpm_->Respond(TPM_SUCCESS);  // the flush
  EXPECT_EQ(Tcsip_OwnerClear_Internal(ctx_, &auth_), 0xE0280001u);
  EXPECT_EQ(access(storageFile.c_str(), F_OK), 0);

  OpenSession();
  tpm_->Respond(TPM_SUCCESS, ResponseTrailer(0));
  EXPECT_EQ(Tcsip_OwnerClear_Internal(ctx_, &auth_), TSS_SUCCESS);
  EXPECT_NE(access(storageFile.c_str(), F_OK), 0);
  EXPECT_FALSE(isUUIDRegistered(uuid));
}

}  // namespace
}  // namespace kesttcs
