// Owner- and key-authorised calls through kesttcsd for the integration tests: a daemon on an owned
// embedded TPM, the parameter bytes the HMACs cover, one command over a fresh session whose
// answer's HMAC is checked, and the client-side SHA-1 (OpenSSL) that digests of public keys need.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <vector>

#include <openssl/sha.h>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>

#include "kesttcsd_process.h"

namespace kesttcs::testing::authorised_calls {

using Bytes = std::vector<BYTE>;

inline Bytes U32(UINT32 v) {
  Bytes b(4);
  KestAuth_PutUINT32(b.data(), v);
  return b;
}
inline Bytes U16(UINT16 v) {
  Bytes b(2);
  KestAuth_PutUINT16(b.data(), v);
  return b;
}
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}
// A 20-byte value (TPM_DIGEST, TPM_ENCAUTH, ...) as bytes, and back.
template <class T>
Bytes Of(const T& value) {
  static_assert(sizeof(T) == 20);
  const auto* p = reinterpret_cast<const BYTE*>(&value);
  return Bytes(p, p + 20);
}
template <class T>
T As(const Bytes& bytes) {
  static_assert(sizeof(T) == 20);
  T value{};
  std::copy_n(bytes.begin(), 20, reinterpret_cast<BYTE*>(&value));
  return value;
}
inline Bytes Sha1(const Bytes& data) {
  Bytes digest(SHA_DIGEST_LENGTH);
  SHA1(data.data(), data.size(), digest.data());
  return digest;
}
// Copies an output the client library allocated and frees it.
inline Bytes Take(BYTE* data, UINT32 size) {
  Bytes bytes(data, data + (data == nullptr ? 0 : size));
  Tcs_FreeBuffer(data);
  return bytes;
}

inline TPM_SECRET WellKnown() {
  TPM_SECRET s{};
  KestAuth_WellKnownSecret(&s);
  return s;
}

// One command authorised by the open session `s` (ended with it: sent without continue): `in` are
// the parameters its input digest covers; `call(&auth, &out)` sends it and sets `out` to the
// parameters its output digest covers. A successful answer must carry the TPM's HMAC over them.
template <class Call>
TSS_RESULT Authorised(KESTTCS_AUTH_SESSION& s, TPM_COMMAND_CODE ordinal, const Bytes& in,
                      Call call) {
  TPM_AUTH auth{};
  if (TSS_RESULT r = KestAuth_Authorize(&s, ordinal, in.data(), UINT32(in.size()), 0, &auth)) {
    return r;
  }
  Bytes out;
  if (TSS_RESULT r = call(&auth, &out)) return r;
  EXPECT_EQ(KestAuth_Verify(&s, ordinal, out.data(), UINT32(out.size()), &auth), TSS_SUCCESS)
      << "ordinal 0x" << std::hex << ordinal;
  return TSS_SUCCESS;
}

// As Authorised, over a new OIAP session for the entity whose usage secret is `secret`.
template <class Call>
TSS_RESULT OverOIAP(TCS_CONTEXT_HANDLE h, const TPM_SECRET& secret, TPM_COMMAND_CODE ordinal,
                    const Bytes& in, Call call) {
  KESTTCS_AUTH_SESSION s{};
  if (TSS_RESULT r = KestAuth_OpenOIAP(h, &secret, &s)) return r;
  return Authorised(s, ordinal, in, call);
}

// kesttcsd on the embedded TPM, provisioned by kesttcs-cli (the well-known owner and SRK
// secrets), and a context.
class OwnedDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    daemon_.emplace(fs::path(dir_.path()) / "home", /*owned=*/false);
    ASSERT_TRUE(daemon_->Start());
    const auto [status, output] =
        RunKesttcsCli({"provision"}, daemon_->socket(), fs::path(dir_.path()) / "cli.txt");
    ASSERT_EQ(status, 0) << output;
    ASSERT_EQ(Tcsi_OpenContext(&h_), TSS_SUCCESS);
  }
  void TearDown() override {
    if (h_ != 0) {
      EXPECT_EQ(Tcsi_CloseContext(h_), TSS_SUCCESS);
    }
  }

  TempDir dir_;
  std::optional<KesttcsdProcess> daemon_;
  TCS_CONTEXT_HANDLE h_ = 0;
  // The owner's and the SRK's secret, and that of every key the tests make.
  const TPM_SECRET wellKnown_ = WellKnown();
};

}  // namespace kesttcs::testing::authorised_calls
