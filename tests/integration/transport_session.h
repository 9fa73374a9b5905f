// A transport session driven through kesttcsd the way a service provider drives one, for the
// integration tests: established without an encryption key (the secret in the clear), commands
// wrapped unencrypted, every HMAC of the session computed and checked with the client's
// authorisation helper, and the session's log kept as the TPM keeps it, so that the signature of
// TPM_ReleaseTransportSigned can be checked with OpenSSL.
#pragma once

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "rsa_checks.h"
#include "wrapped_keys.h"

namespace kesttcs::testing::transport_session {

using Bytes = std::vector<BYTE>;
using rsa_checks::Sha1;
using wrapped_keys::Put32;

inline constexpr TCS_KEY_HANDLE kNoEncryptionKey = 0x40000003;  // TPM_KH_TRANSPORT
inline constexpr UINT32 kLog = 0x00000002;                      // TPM_TRANSPORT_LOG
inline constexpr UINT32 kExclusive = 0x00000004;                // TPM_TRANSPORT_EXCLUSIVE
inline constexpr size_t kTicksSize = 32;                        // TPM_CURRENT_TICKS
inline constexpr size_t kRequestTrailer = 45;
inline constexpr size_t kResponseTrailer = 41;

inline void Put16(Bytes& out, UINT16 v) { out.insert(out.end(), {BYTE(v >> 8), BYTE(v)}); }
inline void Put64(Bytes& out, UINT64 v) {
  Put32(out, UINT32(v >> 32));
  Put32(out, UINT32(v));
}
inline void PutAll(Bytes& out, const Bytes& more) {
  out.insert(out.end(), more.begin(), more.end());
}
template <typename T>
void PutFixed(Bytes& out, const T& value) {
  const BYTE* p = reinterpret_cast<const BYTE*>(&value);
  out.insert(out.end(), p, p + sizeof value);
}

// What a wrapped command answered.
struct Wrapped {
  TSS_RESULT result = 0;      // the service's result for TPM_ExecuteTransport
  TPM_RESULT returnCode = 0;  // the wrapped command's own
  Bytes outputs;              // its parameters after the header, without session trailers
  std::vector<TCS_HANDLE> handles;
};

class TransportSession {
 public:
  // TPM_EstablishTransport without a key, with `attributes`; the secret is the well-known one.
  TSS_RESULT Establish(TCS_CONTEXT_HANDLE h, UINT32 attributes) {
    const TPM_SECRET secret = wrapped_keys::WellKnown();
    Bytes transPublic;
    Put16(transPublic, 0x001E);  // TPM_TAG_TRANSPORT_PUBLIC
    Put32(transPublic, attributes);
    Put32(transPublic, 0);  // no algorithm: the session does not encrypt
    Put16(transPublic, 0);
    TPM_MODIFIER_INDICATOR locality = 0;
    UINT32 ticksSize = 0;
    BYTE* ticks = nullptr;
    TPM_NONCE nonceEven{};
    const TSS_RESULT r = Tcsip_EstablishTransport(
        h, attributes & kExclusive ? 1 : 0, kNoEncryptionKey, UINT32(transPublic.size()),
        transPublic.data(), sizeof secret, const_cast<BYTE*>(secret.authdata), nullptr, &locality,
        &handle_, &ticksSize, &ticks, &nonceEven);
    if (r != TSS_SUCCESS) return r;
    ticks_.assign(ticks, ticks + ticksSize);
    Tcs_FreeBuffer(ticks);
    EXPECT_EQ(ticks_.size(), kTicksSize);
    EXPECT_EQ(KestAuth_BeginOIAP(&auth_, handle_, &nonceEven, &secret), TSS_SUCCESS);
    Bytes in;
    Put32(in, TPM_ORD_EstablishTransport);
    PutAll(in, transPublic);
    Put32(in, sizeof secret);
    PutFixed(in, secret);
    LogIn(Sha1(in), Bytes(20, 0));
    Bytes out;
    Put32(out, TPM_SUCCESS);
    Put32(out, TPM_ORD_EstablishTransport);
    Put32(out, locality);
    PutAll(out, ticks_);
    PutFixed(out, nonceEven);
    LogOut(ticks_, Sha1(out), locality);
    return r;
  }

  TCS_HANDLE handle() const { return handle_; }

  // TPM_ExecuteTransport of `ordinal` with `handles` and `params` and the wrapped sessions given
  // (their TPM_AUTH records already authorised by the caller). The transport HMACs are checked;
  // `pubKeyHash` is what the TPM logs for the keys the command uses.
  Wrapped Execute(TCS_CONTEXT_HANDLE h, TPM_COMMAND_CODE ordinal, std::vector<TCS_HANDLE> handles,
                  const Bytes& params, TPM_AUTH* auth1 = nullptr,
                  const Bytes& pubKeyHash = Bytes(20, 0)) {
    Bytes h1In;
    Put32(h1In, ordinal);
    PutAll(h1In, params);
    const Bytes h1 = Sha1(h1In);
    const size_t sessions = auth1 != nullptr ? 1 : 0;
    Bytes digest;
    Put32(digest, UINT32(10 + 4 * handles.size() + params.size() + sessions * kRequestTrailer));
    PutAll(digest, h1);
    TPM_AUTH transAuth{};
    EXPECT_EQ(KestAuth_Authorize(&auth_, TPM_ORD_ExecuteTransport, digest.data(),
                                 UINT32(digest.size()), 1, &transAuth),
              TSS_SUCCESS);
    Wrapped w;
    UINT32 count = UINT32(handles.size());
    TCS_HANDLE* list = handles.data();
    UINT64 ticks = 0;
    TPM_MODIFIER_INDICATOR locality = 0;
    UINT32 outSize = 0;
    BYTE* out = nullptr;
    w.result = Tcsip_ExecuteTransport(
        h, ordinal, UINT32(params.size()), const_cast<BYTE*>(params.data()), &count, &list, auth1,
        nullptr, &transAuth, &ticks, &locality, &w.returnCode, &outSize, &out);
    if (list != nullptr && list != handles.data()) {
      w.handles.assign(list, list + count);
      Tcs_FreeBuffer(list);
    }
    w.outputs.assign(out, out + outSize);
    Tcs_FreeBuffer(out);
    if (w.result != TSS_SUCCESS) return w;
    Bytes h2In;
    Put32(h2In, w.returnCode);
    Put32(h2In, ordinal);
    PutAll(h2In, w.outputs);
    const Bytes h2 = Sha1(h2In);
    const size_t trailers = w.returnCode == TPM_SUCCESS ? sessions * kResponseTrailer : 0;
    Bytes outDigest;
    Put64(outDigest, ticks);
    Put32(outDigest, locality);
    Put32(outDigest, UINT32(10 + w.outputs.size() + trailers));
    PutAll(outDigest, h2);
    EXPECT_EQ(KestAuth_Verify(&auth_, TPM_ORD_ExecuteTransport, outDigest.data(),
                              UINT32(outDigest.size()), &transAuth),
              TSS_SUCCESS);
    LogIn(h1, pubKeyHash);
    Bytes currentTicks = ticks_;  // the session's tick structure with this command's count
    Bytes count64;
    Put64(count64, ticks);
    std::copy(count64.begin(), count64.end(), currentTicks.begin() + 2);
    LogOut(currentTicks, h2, locality);
    return w;
  }

  // TPM_ReleaseTransportSigned with `key` (its OIAP session `keySession` on the well-known
  // secret): both HMACs checked, and the signature checked with OpenSSL against `modulus` over
  // the session's log as this side kept it.
  TSS_RESULT ReleaseSigned(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key,
                           KESTTCS_AUTH_SESSION* keySession, const Bytes& modulus) {
    TPM_NONCE antiReplay{};
    antiReplay.nonce[0] = 0x7E;
    TPM_AUTH keyAuth{};
    TPM_AUTH transAuth{};
    EXPECT_EQ(KestAuth_Authorize(keySession, TPM_ORD_ReleaseTransportSigned, antiReplay.nonce,
                                 sizeof antiReplay, 0, &keyAuth),
              TSS_SUCCESS);
    EXPECT_EQ(KestAuth_Authorize(&auth_, TPM_ORD_ReleaseTransportSigned, antiReplay.nonce,
                                 sizeof antiReplay, 0, &transAuth),
              TSS_SUCCESS);
    TPM_MODIFIER_INDICATOR locality = 0;
    UINT32 ticksSize = 0;
    BYTE* ticks = nullptr;
    UINT32 sigSize = 0;
    BYTE* sig = nullptr;
    const TSS_RESULT r = Tcsip_ReleaseTransportSigned(
        h, key, antiReplay, &keyAuth, &transAuth, &locality, &ticksSize, &ticks, &sigSize, &sig);
    const Bytes releaseTicks(ticks, ticks + ticksSize);
    const Bytes signature(sig, sig + sigSize);
    Tcs_FreeBuffer(ticks);
    Tcs_FreeBuffer(sig);
    if (r != TSS_SUCCESS) return r;
    Bytes out;
    Put32(out, locality);
    PutAll(out, releaseTicks);
    Put32(out, sigSize);
    PutAll(out, signature);
    EXPECT_EQ(KestAuth_Verify(keySession, TPM_ORD_ReleaseTransportSigned, out.data(),
                              UINT32(out.size()), &keyAuth),
              TSS_SUCCESS);
    EXPECT_EQ(KestAuth_Verify(&auth_, TPM_ORD_ReleaseTransportSigned, out.data(),
                              UINT32(out.size()), &transAuth),
              TSS_SUCCESS);
    Bytes in;
    Put32(in, TPM_ORD_ReleaseTransportSigned);
    PutFixed(in, antiReplay);
    LogOut(releaseTicks, Sha1(in), locality);
    // TPM_SIGN_INFO: "TRAN", the caller's nonce, the session's log.
    Bytes signInfo;
    Put16(signInfo, 0x0005);
    signInfo.insert(signInfo.end(), {'T', 'R', 'A', 'N'});
    PutFixed(signInfo, antiReplay);
    Put32(signInfo, UINT32(log_.size()));
    PutAll(signInfo, log_);
    EXPECT_TRUE(rsa_checks::VerifiesWith(modulus, Sha1(signInfo), signature));
    return r;
  }

 private:
  void Extend(const Bytes& entry) {
    Bytes both = log_;
    PutAll(both, entry);
    log_ = Sha1(both);
  }
  void LogIn(const Bytes& parameters, const Bytes& pubKeyHash) {
    Bytes entry;
    Put16(entry, 0x0010);  // TPM_TAG_TRANSPORT_LOG_IN
    PutAll(entry, parameters);
    PutAll(entry, pubKeyHash);
    Extend(entry);
  }
  void LogOut(const Bytes& ticks, const Bytes& parameters, UINT32 locality) {
    Bytes entry;
    Put16(entry, 0x0011);  // TPM_TAG_TRANSPORT_LOG_OUT
    PutAll(entry, ticks);
    PutAll(entry, parameters);
    Put32(entry, locality);
    Extend(entry);
  }

  TCS_HANDLE handle_ = 0;
  KESTTCS_AUTH_SESSION auth_{};
  Bytes ticks_;
  Bytes log_ = Bytes(20, 0);
};

}  // namespace kesttcs::testing::transport_session
