// Test helper: TCS operations called through the client library with sessions of the client's
// authorisation helper. A call is authorised over the digest parameters the test gives, made, and
// its answer's HMAC checked against the output digest parameters.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

namespace kesttcs::testing {

using ByteVector = std::vector<BYTE>;

// Digest parameters: integers big-endian, fixed-size values as they lie in memory.
class Params {
 public:
  Params& U8(BYTE v) {
    bytes_.push_back(v);
    return *this;
  }
  Params& U16(UINT16 v) {
    bytes_.resize(bytes_.size() + 2);
    KestAuth_PutUINT16(&bytes_[bytes_.size() - 2], v);
    return *this;
  }
  Params& U32(UINT32 v) {
    bytes_.resize(bytes_.size() + 4);
    KestAuth_PutUINT32(&bytes_[bytes_.size() - 4], v);
    return *this;
  }
  template <typename T>
  Params& Fixed(const T& value) {
    const BYTE* p = reinterpret_cast<const BYTE*>(&value);
    bytes_.insert(bytes_.end(), p, p + sizeof value);
    return *this;
  }
  Params& Raw(const ByteVector& v) {
    bytes_.insert(bytes_.end(), v.begin(), v.end());
    return *this;
  }
  const ByteVector& get() const { return bytes_; }

 private:
  ByteVector bytes_;
};

inline TPM_SECRET WellKnownSecret() {
  TPM_SECRET s{};
  KestAuth_WellKnownSecret(&s);
  return s;
}

inline TPM_SECRET SecretOf(const std::string& phrase) {
  TPM_SECRET s{};
  EXPECT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(phrase.data()),
                                        UINT32(phrase.size()), &s),
            TSS_SUCCESS);
  return s;
}

// One authorised call on session `s` (not continued): `call` gets the filled TPM_AUTH and returns
// the operation's result and, through `outParams`, the output digest parameters. On success the
// answer's HMAC must verify; on failure the session is closed. The operation's result.
inline TSS_RESULT Authorised(TCS_CONTEXT_HANDLE h, KESTTCS_AUTH_SESSION& s, UINT32 ordinal,
                             const ByteVector& inParams,
                             const std::function<TSS_RESULT(TPM_AUTH*, ByteVector*)>& call) {
  TPM_AUTH auth{};
  EXPECT_EQ(KestAuth_Authorize(&s, ordinal, inParams.data(), UINT32(inParams.size()), 0, &auth),
            TSS_SUCCESS);
  ByteVector outParams;
  const TSS_RESULT r = call(&auth, &outParams);
  if (r != TSS_SUCCESS) {
    KestAuth_Close(h, &s);
    return r;
  }
  EXPECT_EQ(KestAuth_Verify(&s, ordinal, outParams.data(), UINT32(outParams.size()), &auth),
            TSS_SUCCESS)
      << "ordinal " << ordinal;
  return r;
}

// Authorised over a fresh OIAP session keyed with `secret`.
inline TSS_RESULT OverOiap(TCS_CONTEXT_HANDLE h, const TPM_SECRET& secret, UINT32 ordinal,
                           const ByteVector& inParams,
                           const std::function<TSS_RESULT(TPM_AUTH*, ByteVector*)>& call) {
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(h, &secret, &s)) return r;
  return Authorised(h, s, ordinal, inParams, call);
}

// The bytes of a client library output block, which is freed.
inline ByteVector Take(BYTE* data, UINT32 size) {
  ByteVector bytes(data, data + size);
  Tcs_FreeBuffer(data);
  return bytes;
}

}  // namespace kesttcs::testing
