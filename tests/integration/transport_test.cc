// Transport sessions through the real kesttcsd on the embedded libtpms TPM (provisioned with
// well-known secrets): a logged session wraps TPM_GetRandom and a TPM_GetPubKey authorised on a key
// the service loads and names by its slot, and is released signed (the signature checked with
// OpenSSL over the log this side kept); an exclusive session makes the service refuse every other
// command, from another context and from another process (kesttcs-cli), until it is released or
// its context closes.
#include <filesystem>
#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "kesttcsd_process.h"
#include "provisioned_daemon.h"
#include "rsa_checks.h"
#include "transport_session.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using transport_session::Bytes;
using transport_session::kExclusive;
using transport_session::kLog;
using transport_session::TransportSession;
using transport_session::Wrapped;
using wrapped_keys::kSrk;

// A 512-bit signing key (PKCS#1 v1.5 with SHA-1) whose use always needs its well-known secret.
const Bytes kSigningKey = wrapped_keys::KeyInfo(wrapped_keys::kSigningUsage, 512, /*none*/ 1,
                                                /*PKCS#1 SHA-1*/ 2, wrapped_keys::kAuthAlways);

Bytes RandomRequest(UINT32 bytes) {
  Bytes params;
  wrapped_keys::Put32(params, bytes);
  return params;
}

TSS_RESULT GetRandom(TCS_CONTEXT_HANDLE h) {
  UINT32 size = 8;
  BYTE* out = nullptr;
  const TSS_RESULT r = Tcsip_GetRandom(h, &size, &out);
  Tcs_FreeBuffer(out);
  return r;
}

// Tcsip_ExecuteTransport of a TPM_GetRandom by `h` in the session `transHandle`, without a valid
// HMAC: the service's result.
TSS_RESULT RandomIn(TCS_CONTEXT_HANDLE h, TCS_HANDLE transHandle) {
  TPM_AUTH transAuth{};
  transAuth.AuthHandle = transHandle;
  UINT32 none = 0;
  TCS_HANDLE* noHandles = nullptr;
  UINT64 ticks = 0;
  TPM_MODIFIER_INDICATOR locality = 0;
  TPM_RESULT code = 0;
  UINT32 outSize = 0;
  BYTE* out = nullptr;
  Bytes params = RandomRequest(4);
  const TSS_RESULT r = Tcsip_ExecuteTransport(h, TPM_ORD_GetRandom, UINT32(params.size()),
                                              params.data(), &none, &noHandles, nullptr, nullptr,
                                              &transAuth, &ticks, &locality, &code, &outSize, &out);
  Tcs_FreeBuffer(out);
  return r;
}

// What the TPM logs for a command on one key: SHA-1 of the digest of its TPM_STORE_PUBKEY.
Bytes PubKeyHash(const Bytes& keyBlob) {
  const Bytes modulus = wrapped_keys::ModulusOf(keyBlob);
  Bytes storePubKey;
  wrapped_keys::Put32(storePubKey, UINT32(modulus.size()));
  storePubKey.insert(storePubKey.end(), modulus.begin(), modulus.end());
  return rsa_checks::Sha1(rsa_checks::Sha1(storePubKey));
}

class TransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    daemon_ = std::make_unique<KesttcsdProcess>(fs::path(dir_.path()) / "home", /*owned=*/false);
    ASSERT_TRUE(StartProvisioned(*daemon_, CliLog()));
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
    ASSERT_EQ(Tcsi_OpenContext(&other_), TSS_SUCCESS);
    keyBlob_ = wrapped_keys::CreateKey(h_, kSrk, kSigningKey);
    key_ = wrapped_keys::Load(h_, kSrk, keyBlob_);
  }

  fs::path CliLog() const { return fs::path(dir_.path()) / "cli.txt"; }

  TempDir dir_;
  std::unique_ptr<KesttcsdProcess> daemon_;
  TCS_CONTEXT_HANDLE h_ = 0;
  TCS_CONTEXT_HANDLE other_ = 0;
  Bytes keyBlob_;
  TCS_KEY_HANDLE key_ = 0;
};

TEST_F(TransportTest, WrapsRandomAndAKeyCommandAndIsReleasedWithAValidSignature) {
  const TPM_SECRET secret = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION wrappedSession{};
  KESTTCS_AUTH_SESSION releaseSession{};
  ASSERT_EQ(KestAuth_OpenOIAP(h_, &secret, &wrappedSession), TSS_SUCCESS);
  ASSERT_EQ(KestAuth_OpenOIAP(h_, &secret, &releaseSession), TSS_SUCCESS);
  TransportSession transport;
  ASSERT_EQ(transport.Establish(h_, kLog), TSS_SUCCESS);

  const Wrapped random = transport.Execute(h_, TPM_ORD_GetRandom, {}, RandomRequest(16));
  ASSERT_EQ(random.result, TSS_SUCCESS);
  EXPECT_EQ(random.returnCode, TPM_SUCCESS);
  EXPECT_EQ(random.outputs.size(), 4u + 16u);

  // The key's TCS handle goes in the list; the TPM gets its slot, and the list comes back with it.
  // The wrapped command keeps its own session: its answer verifies on it.
  TPM_AUTH keyAuth{};
  ASSERT_EQ(KestAuth_Authorize(&wrappedSession, TPM_ORD_GetPubKey, nullptr, 0, 1, &keyAuth),
            TSS_SUCCESS);
  const Wrapped pub =
      transport.Execute(h_, TPM_ORD_GetPubKey, {key_}, {}, &keyAuth, PubKeyHash(keyBlob_));
  ASSERT_EQ(pub.result, TSS_SUCCESS);
  ASSERT_EQ(pub.returnCode, TPM_SUCCESS);
  EXPECT_EQ(pub.outputs, wrapped_keys::PubKeyOf(keyBlob_));
  EXPECT_EQ(KestAuth_Verify(&wrappedSession, TPM_ORD_GetPubKey, pub.outputs.data(),
                            UINT32(pub.outputs.size()), &keyAuth),
            TSS_SUCCESS);
  ASSERT_EQ(pub.handles.size(), 1u);
  EXPECT_NE(pub.handles[0], key_);

  // A wrapped command the TPM refuses (the key's secret is needed): its own code comes back, and
  // the transport goes on.
  const Wrapped refused =
      transport.Execute(h_, TPM_ORD_GetPubKey, {key_}, {}, nullptr, PubKeyHash(keyBlob_));
  ASSERT_EQ(refused.result, TSS_SUCCESS);
  EXPECT_EQ(refused.returnCode, TPM_AUTHFAIL);
  EXPECT_TRUE(refused.outputs.empty());

  // Nobody but the context that established it uses the session.
  EXPECT_EQ(RandomIn(other_, transport.handle()), TCS_E_INTERNAL_ERROR);

  ASSERT_EQ(transport.ReleaseSigned(h_, key_, &releaseSession, wrapped_keys::ModulusOf(keyBlob_)),
            TSS_SUCCESS);
  // Released: the session is gone for its owner too.
  EXPECT_EQ(RandomIn(h_, transport.handle()), TCS_E_INTERNAL_ERROR);
}

TEST_F(TransportTest, AnExclusiveSessionHoldsOffOtherCommandsUntilReleasedOrItsContextCloses) {
  const TPM_SECRET secret = wrapped_keys::WellKnown();
  KESTTCS_AUTH_SESSION releaseSession{};
  ASSERT_EQ(KestAuth_OpenOIAP(h_, &secret, &releaseSession), TSS_SUCCESS);
  TransportSession exclusive;
  ASSERT_EQ(exclusive.Establish(h_, kLog | kExclusive), TSS_SUCCESS);
  EXPECT_EQ(GetRandom(other_), TCS_E_EXCLUSIVE_TRANSPORT);
  EXPECT_EQ(GetRandom(h_), TCS_E_EXCLUSIVE_TRANSPORT);
  const auto [status, output] = RunKesttcsCli({"random", "16"}, daemon_->socket(), CliLog());
  EXPECT_NE(status, 0);
  EXPECT_THAT(output, HasSubstr("E02820CD")) << output;
  // Inside the session commands run.
  const Wrapped random = exclusive.Execute(h_, TPM_ORD_GetRandom, {}, RandomRequest(16));
  EXPECT_EQ(random.result, TSS_SUCCESS);
  EXPECT_EQ(random.returnCode, TPM_SUCCESS);
  ASSERT_EQ(exclusive.ReleaseSigned(h_, key_, &releaseSession, wrapped_keys::ModulusOf(keyBlob_)),
            TSS_SUCCESS);
  EXPECT_EQ(GetRandom(other_), TSS_SUCCESS);

  // The owner's context closes: the session ends with it.
  TransportSession abandoned;
  ASSERT_EQ(abandoned.Establish(h_, kExclusive), TSS_SUCCESS);
  EXPECT_EQ(GetRandom(other_), TCS_E_EXCLUSIVE_TRANSPORT);
  ASSERT_EQ(Tcsi_CloseContext(h_), TSS_SUCCESS);
  EXPECT_EQ(GetRandom(other_), TSS_SUCCESS);
  const auto [after, text] = RunKesttcsCli({"random", "16"}, daemon_->socket(), CliLog());
  EXPECT_EQ(after, 0) << text;
}

}  // namespace
}  // namespace kesttcs::testing
