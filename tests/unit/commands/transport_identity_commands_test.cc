// Transport sessions, secret changes and identities against a scripted TPM (owned: the SRK is
// cached, so key handle 0x40000000 needs no load): the command bytes each member sends, the
// exclusive transport held against every other command until its context closes (which flushes
// it), a wrapped command built with its own tag, ordinal and session, and the identity's
// credential files read from the home directory.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_results.h>

#include "command_bytes.h"
#include "commands/tcsip_change_auth.h"
#include "commands/tcsip_identity.h"
#include "commands/tcsip_keyless.h"
#include "commands/tcsip_sessions.h"
#include "commands/tcsip_transport.h"
#include "contexts/contexts.h"
#include "core_fixture.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace command_bytes;  // NOLINT: the test's vocabulary

constexpr TCS_KEY_HANDLE kSrk = 0x40000000;
constexpr TCS_AUTHHANDLE kSession = 0x02000011;
constexpr TCS_HANDLE kTransHandle = 0x05000001;
constexpr UINT16 kEntityKey = 0x0005;

// TPM_TRANSPORT_PUBLIC with `attributes`, no encryption.
Bytes TransPublic(UINT32 attributes) { return Cat({U16(0x001E), U32(attributes), U32(0), U16(0)}); }
// TPM_CURRENT_TICKS
Bytes Ticks(BYTE fill) { return Cat({U16(0x0014), Fill(8, fill), U16(1), Fill(20, fill)}); }
// The smallest well-formed TPM_KEY (all sizes 0).
Bytes EmptyKey() { return Fill(35, 0); }
Bytes ResponseTrailer(BYTE fill) { return Cat({Fill(20, fill), {1}, Fill(20, fill)}); }

class TransportIdentityCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(core_.Start(), TSS_SUCCESS);
    tpm_ = &core_.fake();
    ASSERT_EQ(Tcsi_OpenContext_Internal(&ctx_), TSS_SUCCESS);
    ASSERT_EQ(Tcsi_OpenContext_Internal(&other_), TSS_SUCCESS);
  }
  void TearDown() override { EXPECT_THAT(tpm_->Mismatches(), IsEmpty()); }

  // An OIAP session of ctx_, continued, with recognisable nonce and HMAC.
  TPM_AUTH OpenSession(TCS_AUTHHANDLE handle) {
    tpm_->Respond(TPM_SUCCESS, Cat({U32(handle), Fill(20, 0x0E)}));
    TPM_AUTH auth{};
    TPM_NONCE nonceEven;
    EXPECT_EQ(Tcsip_OIAP_Internal(ctx_, &auth.AuthHandle, &nonceEven), TSS_SUCCESS);
    std::fill(std::begin(auth.NonceOdd.nonce), std::end(auth.NonceOdd.nonce), BYTE{0x0D});
    auth.fContinueAuthSession = 1;
    std::fill(std::begin(auth.HMAC.authdata), std::end(auth.HMAC.authdata), BYTE{0x4A});
    return auth;
  }
  static Bytes Trailer(const TPM_AUTH& a) {
    return Cat({U32(a.AuthHandle), Fill(20, 0x0D), {a.fContinueAuthSession}, Fill(20, 0x4A)});
  }

  // TPM_EstablishTransport without a key for ctx_; the TPM answers kTransHandle.
  TSS_RESULT Establish(UINT32 attributes) {
    tpm_->Respond(TPM_SUCCESS, Cat({U32(kTransHandle), U32(0), Ticks(0x71), Fill(20, 0xE0)}));
    const Bytes transPublic = TransPublic(attributes);
    const Bytes secret = Fill(20, 0x5E);
    TPM_MODIFIER_INDICATOR locality = 9;
    TCS_HANDLE handle = 0;
    UINT32 ticksSize = 0;
    BYTE* ticks = nullptr;
    TPM_NONCE nonce{};
    const TSS_RESULT r = Tcsip_EstablishTransport_Internal(
        ctx_, 0, TPM_KH_TRANSPORT, UINT32(transPublic.size()), transPublic.data(), 20,
        secret.data(), nullptr, &locality, &handle, &ticksSize, &ticks, &nonce);
    if (r != TSS_SUCCESS) return r;
    EXPECT_EQ(core_.SentAfterStart().back(),
              Plain(TPM_ORD_EstablishTransport,
                    Cat({U32(TPM_KH_TRANSPORT), transPublic, U32(20), secret})));
    EXPECT_EQ(handle, kTransHandle);
    EXPECT_EQ(locality, 0u);
    EXPECT_EQ(ToBytes(ticks, ticksSize), Ticks(0x71));
    EXPECT_EQ(ToBytes(nonce.nonce, 20), Fill(20, 0xE0));
    return r;
  }

  // Tcsip_GetRandom of one byte; `admitted` says whether the TPM is to answer it.
  TSS_RESULT RandomOf(TCS_CONTEXT_HANDLE h, bool admitted) {
    if (admitted) tpm_->Respond(TPM_SUCCESS, Cat({U32(1), {0x42}}));
    UINT32 bytes = 1;
    BYTE* out = nullptr;
    return Tcsip_GetRandom_Internal(h, &bytes, &out);
  }

  testing::TestCore core_{testing::CoreOptions().Owned().NeedLog()};
  FakeTpmBackend* tpm_ = nullptr;
  TCS_CONTEXT_HANDLE ctx_ = 0;
  TCS_CONTEXT_HANDLE other_ = 0;
};

TEST_F(TransportIdentityCommandsTest, AnExclusiveTransportWrapsCommandsAndEndsWithItsContext) {
  TPM_AUTH wrappedAuth = OpenSession(kSession);
  ASSERT_EQ(Establish(0x06), TSS_SUCCESS);  // logged, exclusive
  const size_t sentBefore = core_.SentAfterStart().size();
  EXPECT_EQ(RandomOf(other_, false), TCS_E_EXCLUSIVE_TRANSPORT);
  EXPECT_EQ(core_.SentAfterStart().size(), sentBefore);

  // TPM_GetPubKey of the SRK wrapped with its own session: the handle list's key goes as its slot.
  TPM_AUTH transAuth{};
  transAuth.AuthHandle = kTransHandle;
  std::fill(std::begin(transAuth.NonceOdd.nonce), std::end(transAuth.NonceOdd.nonce), BYTE{0x0D});
  transAuth.fContinueAuthSession = 1;
  std::fill(std::begin(transAuth.HMAC.authdata), std::end(transAuth.HMAC.authdata), BYTE{0x4A});
  const TPM_AUTH sentWrapped = wrappedAuth;
  const Bytes pubKey = Fill(24, 0x9B);
  const Bytes wrappedResponse = Cat(
      {U16(TPM_TAG_RSP_AUTH1_COMMAND), U32(10 + 24 + 41), U32(0), pubKey, ResponseTrailer(0xB1)});
  tpm_->Respond(TPM_SUCCESS, Cat({Fill(8, 0), U32(0), U32(UINT32(wrappedResponse.size())),
                                  wrappedResponse, ResponseTrailer(0xC1)}));
  std::vector<TCS_HANDLE> handles = {kSrk};
  TCS_HANDLE* list = handles.data();
  UINT32 count = 1;
  UINT64 ticks = 1;
  TPM_MODIFIER_INDICATOR locality = 1;
  TPM_RESULT code = 1;
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  ASSERT_EQ(Tcsip_ExecuteTransport_Internal(ctx_, TPM_ORD_GetPubKey, 0, nullptr, &count, &list,
                                            &wrappedAuth, nullptr, &transAuth, &ticks, &locality,
                                            &code, &outSize, &out),
            TSS_SUCCESS);
  const Bytes wrappedCommand =
      Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_GetPubKey, Cat({U32(kSrk), Trailer(sentWrapped)}));
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_ExecuteTransport,
                    Cat({U32(UINT32(wrappedCommand.size())), wrappedCommand,
                         Cat({U32(kTransHandle), Fill(20, 0x0D), {1}, Fill(20, 0x4A)})})));
  EXPECT_EQ(code, TPM_SUCCESS);
  EXPECT_EQ(ToBytes(out, outSize), pubKey);
  EXPECT_EQ(ToBytes(wrappedAuth.NonceEven.nonce, 20), Fill(20, 0xB1));
  EXPECT_EQ(ToBytes(transAuth.NonceEven.nonce, 20), Fill(20, 0xC1));
  EXPECT_EQ(handles[0], kSrk);

  // Another context cannot use the session; nothing is sent.
  EXPECT_EQ(Tcsip_ExecuteTransport_Internal(other_, TPM_ORD_GetRandom, 0, nullptr, &count, &list,
                                            nullptr, nullptr, &transAuth, &ticks, &locality, &code,
                                            &outSize, &out),
            TCS_E_INTERNAL_ERROR);

  // Closing the owner flushes its session (the wrapped session with it) and lets others in.
  tpm_->Respond(TPM_SUCCESS);
  tpm_->Respond(TPM_SUCCESS);
  ASSERT_EQ(Tcsi_CloseContext_Internal(ctx_), TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Plain(TPM_ORD_FlushSpecific, Cat({U32(kTransHandle), U32(TPM_RT_TRANS)})));
  EXPECT_EQ(RandomOf(other_, true), TSS_SUCCESS);
}

TEST_F(TransportIdentityCommandsTest, EachMemberSendsItsOrdinalAndRefusesBadInputUnsent) {
  // A key that cannot be loaded: traced, nothing sent.
  const Bytes transPublic = TransPublic(0);
  TPM_MODIFIER_INDICATOR locality = 0;
  TCS_HANDLE handle = 0;
  UINT32 size = 0;
  BYTE* out = nullptr;
  TPM_NONCE nonce{};
  const size_t sentBefore = core_.SentAfterStart().size();
  core_.TakeTraces();
  EXPECT_EQ(Tcsip_EstablishTransport_Internal(ctx_, 0, 0x12345678, 12, transPublic.data(), 20,
                                              Fill(20, 0).data(), nullptr, &locality, &handle,
                                              &size, &out, &nonce),
            TCS_E_INVALID_KEY);
  const std::vector<std::string> traces = core_.TakeTraces();
  EXPECT_THAT(std::accumulate(traces.begin(), traces.end(), std::string()),
              HasSubstr(" Tcs_TransS:Tcsip_EstablishTransport_Internal:ensureKeyIsLoaded"));
  // Not one TPM_TRANSPORT_PUBLIC.
  EXPECT_EQ(Tcsip_EstablishTransport_Internal(ctx_, 0, TPM_KH_TRANSPORT, 11, transPublic.data(), 20,
                                              Fill(20, 0).data(), nullptr, &locality, &handle,
                                              &size, &out, &nonce),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(core_.SentAfterStart().size(), sentBefore);

  // A non-exclusive transport, released signed with the SRK: two trailers, the state cleared.
  ASSERT_EQ(Establish(0x02), TSS_SUCCESS);
  TPM_AUTH keyAuth = OpenSession(kSession);
  TPM_AUTH transAuth = keyAuth;
  transAuth.AuthHandle = kTransHandle;
  tpm_->Respond(
      TPM_SUCCESS,
      Cat({U32(0), Ticks(0x72), U32(3), {1, 2, 3}, ResponseTrailer(0xB2), ResponseTrailer(0xC2)}));
  UINT32 sigSize = 0;
  BYTE* sig = nullptr;
  ASSERT_EQ(Tcsip_ReleaseTransportSigned_Internal(ctx_, kSrk, Nonce(0x33), &keyAuth, &transAuth,
                                                  &locality, &size, &out, &sigSize, &sig),
            TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH2_COMMAND, TPM_ORD_ReleaseTransportSigned,
                    Cat({U32(kSrk), Fill(20, 0x33), Trailer(keyAuth),
                         Cat({U32(kTransHandle), Fill(20, 0x0D), {1}, Fill(20, 0x4A)})})));
  EXPECT_EQ(ToBytes(out, size), Ticks(0x72));
  EXPECT_EQ(ToBytes(sig, sigSize), (Bytes{1, 2, 3}));
  EXPECT_EQ(GetTransportState().handle, 0u);

  // TPM_ChangeAuth: both sessions, the parent's slot.
  TPM_AUTH parent = OpenSession(kSession + 1);
  TPM_AUTH entity = OpenSession(kSession + 2);
  const TPM_AUTH parentSent = parent;
  const TPM_AUTH entitySent = entity;
  const Bytes encData = Fill(16, 0xED);
  tpm_->Respond(TPM_SUCCESS,
                Cat({U32(16), Fill(16, 0xEE), ResponseTrailer(0xB3), ResponseTrailer(0xC3)}));
  TPM_ENCAUTH newAuth{};
  ASSERT_EQ(Tcsip_ChangeAuth_Internal(ctx_, kSrk, 4, newAuth, kEntityKey, 16, encData.data(),
                                      &parent, &entity, &size, &out),
            TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH2_COMMAND, TPM_ORD_ChangeAuth,
                    Cat({U32(kSrk), U16(4), Fill(20, 0), U16(kEntityKey), U32(16), encData,
                         Trailer(parentSent), Trailer(entitySent)})));
  EXPECT_EQ(ToBytes(out, size), Fill(16, 0xEE));
  EXPECT_EQ(Tcsip_ChangeAuth_Internal(ctx_, kSrk, 4, newAuth, kEntityKey, 16, encData.data(),
                                      &parent, nullptr, &size, &out),
            TCS_E_BAD_PARAMETER);

  // The asymmetric pair, without sessions: the TPM's refusal passes through.
  tpm_->Respond(TPM_BAD_ORDINAL);
  const Bytes keyParms = Fill(12, 0);
  UINT32 certifySize = 0, sigSize2 = 0;
  BYTE *certify = nullptr, *sig2 = nullptr;
  TCS_KEY_HANDLE ephemeral = 0;
  EXPECT_EQ(Tcsip_ChangeAuthAsymStart_Internal(ctx_, kSrk, Nonce(1), 12, keyParms.data(), nullptr,
                                               &size, &out, &certifySize, &certify, &sigSize2,
                                               &sig2, &ephemeral),
            TpmResult(TPM_BAD_ORDINAL));
  EXPECT_EQ(core_.SentAfterStart().back(),
            Plain(TPM_ORD_ChangeAuthAsymStart, Cat({U32(kSrk), Fill(20, 1), keyParms})));
  EXPECT_EQ(Tcsip_ChangeAuthAsymStart_Internal(ctx_, kSrk, Nonce(1), 11, keyParms.data(), nullptr,
                                               &size, &out, &certifySize, &certify, &sigSize2,
                                               &sig2, &ephemeral),
            TCS_E_BAD_PARAMETER);
  tpm_->Respond(TPM_BAD_ORDINAL);
  TPM_NONCE salt{};
  TPM_DIGEST proof{};
  EXPECT_EQ(Tcsip_ChangeAuthAsymFinish_Internal(ctx_, kSrk, 0x01000002, kEntityKey, Digest(2), 4,
                                                Fill(4, 7).data(), 16, encData.data(), nullptr,
                                                &size, &out, &salt, &proof),
            TpmResult(TPM_BAD_ORDINAL));
  EXPECT_EQ(core_.SentAfterStart().back(),
            Plain(TPM_ORD_ChangeAuthAsymFinish,
                  Cat({U32(kSrk), U32(0x01000002), U16(kEntityKey), Fill(20, 2), U32(4), Fill(4, 7),
                       U32(16), encData})));

  // TPM_ActivateIdentity with the owner's session only.
  TPM_AUTH owner = OpenSession(kSession + 3);
  const TPM_AUTH ownerSent = owner;
  const Bytes symmetricKey = Cat({U32(6), U16(0xFF), U16(2), {0xAB, 0xCD}});
  tpm_->Respond(TPM_SUCCESS, Cat({symmetricKey, ResponseTrailer(0xB4)}));
  const Bytes blob = Fill(8, 0xB0);
  ASSERT_EQ(
      Tcsip_ActivateTPMIdentity_Internal(ctx_, kSrk, 8, blob.data(), nullptr, &owner, &size, &out),
      TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_ActivateIdentity,
                    Cat({U32(kSrk), U32(8), blob, Trailer(ownerSent)})));
  EXPECT_EQ(ToBytes(out, size), symmetricKey);
}

TEST_F(TransportIdentityCommandsTest, MakeIdentityReadsTheCredentialFilesOnlyWhenTheTpmMadeIt) {
  namespace fs = std::filesystem;
  const fs::path home = core_.home();
  std::ofstream(home / "EKCert.crt", std::ios::binary) << "ek";
  std::ofstream(home / "ConfCred.crt", std::ios::binary) << "conf";
  const Bytes keyInfo = EmptyKey();
  UINT32 sizes[5] = {};
  BYTE* outs[5] = {};
  auto make = [&](TPM_AUTH* owner) {
    return Tcsip_MakeIdentity_Internal(ctx_, TPM_ENCAUTH{}, Digest(0x1D), UINT32(keyInfo.size()),
                                       keyInfo.data(), nullptr, owner, &sizes[0], &outs[0],
                                       &sizes[1], &outs[1], &sizes[2], &outs[2], &sizes[3],
                                       &outs[3], &sizes[4], &outs[4]);
  };
  TPM_AUTH owner = OpenSession(kSession);
  const TPM_AUTH ownerSent = owner;
  tpm_->Respond(TPM_SUCCESS, Cat({keyInfo, U32(2), {0xB1, 0xB2}, ResponseTrailer(0xB5)}));
  ASSERT_EQ(make(&owner), TSS_SUCCESS);
  EXPECT_EQ(core_.SentAfterStart().back(),
            Request(TPM_TAG_RQU_AUTH1_COMMAND, TPM_ORD_MakeIdentity,
                    Cat({Fill(20, 0), Fill(20, 0x1D), keyInfo, Trailer(ownerSent)})));
  EXPECT_EQ(ToBytes(outs[0], sizes[0]), keyInfo);
  EXPECT_EQ(ToBytes(outs[1], sizes[1]), (Bytes{0xB1, 0xB2}));
  EXPECT_EQ(ToBytes(outs[2], sizes[2]), (Bytes{'e', 'k'}));
  EXPECT_EQ(sizes[3], 0u);  // no platform credential
  EXPECT_EQ(ToBytes(outs[4], sizes[4]), (Bytes{'c', 'o', 'n', 'f'}));

  // An empty endorsement credential reads as no item: a failure, the others still read.
  std::ofstream(home / "EKCert.crt", std::ios::binary | std::ios::trunc).flush();
  tpm_->Respond(TPM_SUCCESS, Cat({keyInfo, U32(0), ResponseTrailer(0xB6)}));
  EXPECT_EQ(make(&owner), TCS_E_FAIL);
  EXPECT_EQ(sizes[2], 0u);
  EXPECT_EQ(ToBytes(outs[4], sizes[4]), (Bytes{'c', 'o', 'n', 'f'}));

  // Refused by the TPM: no file is read and the session is released.
  tpm_->Respond(TPM_AUTHFAIL);
  tpm_->Respond(TPM_SUCCESS);  // the flush
  EXPECT_EQ(make(&owner), TpmResult(TPM_AUTHFAIL));
  // Without the owner's session, or with a template that is not one key: nothing sent.
  const size_t sentBefore = core_.SentAfterStart().size();
  EXPECT_EQ(make(nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(core_.SentAfterStart().size(), sentBefore);
}

}  // namespace
}  // namespace kesttcs
