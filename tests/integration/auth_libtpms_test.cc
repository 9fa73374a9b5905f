// The client's authorisation helper against the embedded libtpms TPM 1.2: raw TPM commands built
// and authorised with the helper, sent through the request manager of an in-process core. Taking
// ownership creates the SRK (an RSA key, slow in libtpms), so one test walks the whole scenario:
// ownership, owner-authorised commands over OIAP, refused HMACs and secrets, OSAP with ADIP.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <span>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "core_fixture.h"
#include "tpm/req_mgr.h"

namespace kesttcs::testing {
namespace {

constexpr UINT16 kTagRquCommand = 0x00C1;
constexpr UINT16 kTagRquAuth1Command = 0x00C2;
constexpr UINT32 kKhSrk = 0x40000000;
constexpr UINT32 kKhEk = 0x40000006;
constexpr size_t kHeaderSize = 10;       // tag, paramSize, return code
constexpr size_t kAuthTrailerSize = 41;  // nonceEven, continueAuthSession, resAuth

// Bytes of a command or of its digest parameters, written big-endian.
class Bytes {
 public:
  Bytes& U8(BYTE v) {
    bytes_.push_back(v);
    return *this;
  }
  Bytes& U16(UINT16 v) {
    bytes_.resize(bytes_.size() + 2);
    KestAuth_PutUINT16(&bytes_[bytes_.size() - 2], v);
    return *this;
  }
  Bytes& U32(UINT32 v) {
    bytes_.resize(bytes_.size() + 4);
    KestAuth_PutUINT32(&bytes_[bytes_.size() - 4], v);
    return *this;
  }
  // A fixed-size TPM value (nonce, secret, encAuth) as it lies in memory.
  template <typename T>
  Bytes& Fixed(const T& value) {
    const BYTE* p = reinterpret_cast<const BYTE*>(&value);
    bytes_.insert(bytes_.end(), p, p + sizeof value);
    return *this;
  }
  Bytes& Sized(const std::vector<BYTE>& v) {
    U32(static_cast<UINT32>(v.size()));
    return Raw(v);
  }
  Bytes& Raw(const std::vector<BYTE>& v) {
    bytes_.insert(bytes_.end(), v.begin(), v.end());
    return *this;
  }
  const std::vector<BYTE>& get() const { return bytes_; }

 private:
  std::vector<BYTE> bytes_;
};

UINT32 ReadU32(std::span<const BYTE> b, size_t at) {
  return (UINT32{b[at]} << 24) | (UINT32{b[at + 1]} << 16) | (UINT32{b[at + 2]} << 8) | b[at + 3];
}

// A TPM answer: its return code and the bytes after the header.
struct Answer {
  TPM_RESULT rc = 0;
  std::vector<BYTE> body;
};

// Sends tag || paramSize || ordinal || params (|| the authorisation record) and returns the answer.
Answer Send(UINT16 tag, TPM_COMMAND_CODE ordinal, const std::vector<BYTE>& params,
            const TPM_AUTH* auth = nullptr) {
  Bytes command;
  command.U16(tag).U32(0).U32(ordinal).Raw(params);
  if (auth != nullptr) {
    command.U32(auth->AuthHandle)
        .Fixed(auth->NonceOdd)
        .U8(auth->fContinueAuthSession)
        .Fixed(auth->HMAC);
  }
  std::array<BYTE, 4096> blob{};
  std::memcpy(blob.data(), command.get().data(), command.get().size());
  KestAuth_PutUINT32(blob.data() + 2, static_cast<UINT32>(command.get().size()));
  Answer answer;
  EXPECT_EQ(req_mgr_submit(blob), TSS_SUCCESS);
  answer.rc = ReadU32(blob, 6);
  answer.body.assign(blob.begin() + kHeaderSize, blob.begin() + ReadU32(blob, 2));
  return answer;
}

// An answer's output parameters and its authorisation record (for one session), given the record
// the command was sent with.
struct AuthAnswer {
  std::vector<BYTE> outParams;
  TPM_AUTH auth{};
};

AuthAnswer SplitAuth1(const Answer& answer, const TPM_AUTH& sent) {
  AuthAnswer split;
  EXPECT_GE(answer.body.size(), kAuthTrailerSize);
  if (answer.body.size() < kAuthTrailerSize) return split;
  const size_t trailer = answer.body.size() - kAuthTrailerSize;
  split.outParams.assign(answer.body.begin(), answer.body.begin() + trailer);
  split.auth = sent;
  std::memcpy(&split.auth.NonceEven, &answer.body[trailer], 20);
  split.auth.fContinueAuthSession = answer.body[trailer + 20];
  std::memcpy(&split.auth.HMAC, &answer.body[trailer + 21], 20);
  return split;
}

// TPM_OIAP: a session on `secret`.
KESTTCS_AUTH_SESSION OpenOiap(const TPM_SECRET& secret) {
  const Answer answer = Send(kTagRquCommand, TPM_ORD_OIAP, {});
  EXPECT_EQ(answer.rc, TPM_SUCCESS);
  KESTTCS_AUTH_SESSION s{};
  if (answer.body.size() != 24) return s;
  TPM_NONCE nonceEven;
  std::memcpy(&nonceEven, &answer.body[4], 20);
  EXPECT_EQ(KestAuth_BeginOIAP(&s, ReadU32(answer.body, 0), &nonceEven, &secret), TSS_SUCCESS);
  return s;
}

// TPM_OSAP on an entity: a session on the shared secret made from `secret`.
KESTTCS_AUTH_SESSION OpenOsap(UINT16 entityType, UINT32 entityValue, const TPM_SECRET& secret) {
  TPM_NONCE nonceOddOsap;
  std::memset(&nonceOddOsap, 0x6b, sizeof nonceOddOsap);
  const Answer answer = Send(kTagRquCommand, TPM_ORD_OSAP,
                             Bytes().U16(entityType).U32(entityValue).Fixed(nonceOddOsap).get());
  EXPECT_EQ(answer.rc, TPM_SUCCESS);
  KESTTCS_AUTH_SESSION s{};
  if (answer.body.size() != 44) return s;
  TPM_NONCE nonceEven;
  TPM_NONCE nonceEvenOsap;
  std::memcpy(&nonceEven, &answer.body[4], 20);
  std::memcpy(&nonceEvenOsap, &answer.body[24], 20);
  EXPECT_EQ(KestAuth_BeginOSAP(&s, ReadU32(answer.body, 0), &nonceEven, &nonceEvenOsap,
                               &nonceOddOsap, &secret),
            TSS_SUCCESS);
  return s;
}

// Sends a command authorised on `s` whose digest parameters are `params`, on the wire after
// `wireHead` (the handles outside the digest); the TPM's answer.
Answer SendAuthorized(KESTTCS_AUTH_SESSION& s, TPM_COMMAND_CODE ordinal,
                      const std::vector<BYTE>& params, bool continueSession, TPM_AUTH& auth,
                      const std::vector<BYTE>& wireHead = {}) {
  EXPECT_EQ(KestAuth_Authorize(&s, ordinal, params.data(), params.size(), continueSession, &auth),
            TSS_SUCCESS);
  return Send(kTagRquAuth1Command, ordinal, Bytes().Raw(wireHead).Raw(params).get(), &auth);
}

// As SendAuthorized, for a command the TPM must accept: its answer's HMAC must verify. The
// output parameters.
std::vector<BYTE> RunAuthorized(KESTTCS_AUTH_SESSION& s, TPM_COMMAND_CODE ordinal,
                                const std::vector<BYTE>& params, bool continueSession,
                                const std::vector<BYTE>& wireHead = {}) {
  TPM_AUTH auth;
  const Answer answer = SendAuthorized(s, ordinal, params, continueSession, auth, wireHead);
  EXPECT_EQ(answer.rc, TPM_SUCCESS) << "ordinal " << ordinal;
  if (answer.rc != TPM_SUCCESS) return {};
  const AuthAnswer split = SplitAuth1(answer, auth);
  EXPECT_EQ(
      KestAuth_Verify(&s, ordinal, split.outParams.data(), split.outParams.size(), &split.auth),
      TSS_SUCCESS)
      << "ordinal " << ordinal;
  return split.outParams;
}

// TPM_GetCapabilityOwner on a fresh OIAP session with `secret`: the TPM's return code. An answer
// must verify with its own output parameters and not with one bit of them flipped.
TPM_RESULT GetCapabilityOwner(const TPM_SECRET& secret) {
  KESTTCS_AUTH_SESSION s = OpenOiap(secret);
  TPM_AUTH auth;
  const Answer answer = SendAuthorized(s, TPM_ORD_GetCapabilityOwner, {}, false, auth);
  if (answer.rc != TPM_SUCCESS) return answer.rc;
  AuthAnswer split = SplitAuth1(answer, auth);
  EXPECT_EQ(split.outParams.size(), 12u);  // version, non-volatile and volatile flags
  split.outParams[7] ^= 1;
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, split.outParams.data(),
                            split.outParams.size(), &split.auth),
            KESTTCS_AUTH_E_VERIFY);
  split.outParams[7] ^= 1;
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, split.outParams.data(),
                            split.outParams.size(), &split.auth),
            TSS_SUCCESS);
  EXPECT_FALSE(s.open);
  return answer.rc;
}

// The 47-byte TPM_KEY template of a 2048-bit RSA storage key for the SRK: version 1.1, storage
// usage, no flags, authorisation always, OAEP SHA-1, no signature scheme, default exponent, no
// PCRs, no public key and no encrypted part.
std::vector<BYTE> SrkTemplate() {
  return Bytes()
      .U32(0x01010000)
      .U16(0x0011)
      .U32(0)
      .U8(1)
      .U32(1)
      .U16(3)
      .U16(1)
      .U32(12)
      .U32(2048)
      .U32(2)
      .U32(0)
      .U32(0)
      .U32(0)
      .U32(0)
      .get();
}

TPM_SECRET Password(const char* text) {
  TPM_SECRET secret;
  EXPECT_EQ(
      KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(text), std::strlen(text), &secret),
      TSS_SUCCESS);
  return secret;
}

TEST(AuthLibtpmsTest, OwnershipAndOwnerAuthorisedCommands) {
  TestCore core(CoreOptions().Backend("libtpms"));
  ASSERT_EQ(core.Start(), TSS_SUCCESS);

  // The endorsement key, as a client reads it.
  TPM_NONCE antiReplay;
  std::memset(&antiReplay, 0x42, sizeof antiReplay);
  const Answer pubek = Send(kTagRquCommand, TPM_ORD_ReadPubek, Bytes().Fixed(antiReplay).get());
  ASSERT_EQ(pubek.rc, TPM_SUCCESS);
  ASSERT_GT(pubek.body.size(), 20u);
  const std::vector<BYTE> ek(pubek.body.begin(), pubek.body.end() - 20);  // less the checksum

  // Take ownership: owner secret from a pass phrase, the well-known SRK secret, both encrypted by
  // the helper; the command authorised by an OIAP session keyed with the new owner secret.
  const TPM_SECRET owner = Password("owner pass");
  TPM_SECRET srk;
  KestAuth_WellKnownSecret(&srk);
  std::vector<BYTE> encOwner(256);
  std::vector<BYTE> encSrk(256);
  UINT32 size = encOwner.size();
  ASSERT_EQ(KestAuth_EncryptForOwnership(ek.data(), ek.size(), &owner, encOwner.data(), &size),
            TSS_SUCCESS);
  ASSERT_EQ(size, 256u);
  ASSERT_EQ(KestAuth_EncryptForOwnership(ek.data(), ek.size(), &srk, encSrk.data(), &size),
            TSS_SUCCESS);
  {
    KESTTCS_AUTH_SESSION s = OpenOiap(owner);
    const std::vector<BYTE> params =
        Bytes().U16(KESTTCS_PID_OWNER).Sized(encOwner).Sized(encSrk).Raw(SrkTemplate()).get();
    // The answer: the SRK's TPM_KEY with its public key.
    EXPECT_GT(RunAuthorized(s, TPM_ORD_TakeOwnership, params, false).size(), 256u);
  }

  // The owner secret opens TPM_GetCapabilityOwner; a flipped HMAC bit and a wrong secret do not.
  EXPECT_EQ(GetCapabilityOwner(owner), TPM_SUCCESS);
  {
    KESTTCS_AUTH_SESSION s = OpenOiap(owner);
    TPM_AUTH auth;
    ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, nullptr, 0, 0, &auth),
              TSS_SUCCESS);
    auth.HMAC.authdata[0] ^= 0x01;
    EXPECT_EQ(Send(kTagRquAuth1Command, TPM_ORD_GetCapabilityOwner, {}, &auth).rc, TPM_AUTHFAIL);
  }
  EXPECT_EQ(GetCapabilityOwner(Password("not the owner")), TPM_AUTHFAIL);

  // OSAP on the owner: two commands on one session. TPM_OwnerReadInternalPub keeps it going and
  // answers the endorsement key; TPM_ChangeAuthOwner gives the owner a new secret (ADIP with the
  // session's even nonce) and ends it.
  const TPM_SECRET newOwner = Password("new owner pass");
  {
    KESTTCS_AUTH_SESSION s = OpenOsap(KESTTCS_ET_OWNER, 0, owner);
    EXPECT_EQ(RunAuthorized(s, TPM_ORD_OwnerReadInternalPub, Bytes().U32(kKhEk).get(), true), ek);
    EXPECT_TRUE(s.open);

    TPM_ENCAUTH newAuth;
    ASSERT_EQ(KestAuth_EncAuth(&s, &newOwner, KESTTCS_ADIP_EVEN, &newAuth), TSS_SUCCESS);
    const std::vector<BYTE> params =
        Bytes().U16(KESTTCS_PID_ADCP).Fixed(newAuth).U16(KESTTCS_ET_OWNER).get();
    RunAuthorized(s, TPM_ORD_ChangeAuthOwner, params, false);
    EXPECT_FALSE(s.open);
  }
  EXPECT_EQ(GetCapabilityOwner(newOwner), TPM_SUCCESS);

  // OSAP on the SRK with its well-known secret: TPM_Seal, whose data secret goes in by ADIP.
  {
    KESTTCS_AUTH_SESSION s = OpenOsap(KESTTCS_ET_KEYHANDLE, kKhSrk, srk);
    TPM_ENCAUTH dataAuth;
    ASSERT_EQ(KestAuth_EncAuth(&s, &owner, KESTTCS_ADIP_EVEN, &dataAuth), TSS_SUCCESS);
    const std::vector<BYTE> params =
        Bytes().Fixed(dataAuth).U32(0).Sized({'s', 'e', 'a', 'l', 'e', 'd'}).get();
    // The answer: a TPM_STORED_DATA holding the encrypted blob.
    EXPECT_GT(RunAuthorized(s, TPM_ORD_Seal, params, false, Bytes().U32(kKhSrk).get()).size(),
              256u);
  }
}

}  // namespace
}  // namespace kesttcs::testing
