// Keys made through kesttcsd for the integration tests: the TPM_KEY asked of TPM_CreateWrapKey,
// the call itself over an OSAP session with the client's authorisation helper (both new secrets
// well-known, sent by ADIP), loading the blob, and reading the public parts back out of it.
#pragma once

#include <cstddef>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tpm_ordinals.h>

namespace kesttcs::testing::wrapped_keys {

inline constexpr TCS_KEY_HANDLE kSrk = 0x40000000;
// TPM_KEY_USAGE values and TPM_AUTH_DATA_USAGE values of the keys the tests make.
inline constexpr UINT16 kSigningUsage = 0x0010;
inline constexpr UINT16 kStorageUsage = 0x0011;
inline constexpr BYTE kAuthNever = 0;
inline constexpr BYTE kAuthAlways = 1;
// Where the RSA key parameters start in a TPM_KEY: after version, keyUsage, keyFlags and
// authDataUsage.
inline constexpr size_t kKeyParmsOffset = 11;

inline void Put32(std::vector<BYTE>& out, UINT32 v) {
  BYTE b[4];
  KestAuth_PutUINT32(b, v);
  out.insert(out.end(), b, b + 4);
}
inline void Put16(std::vector<BYTE>& out, UINT16 v) {
  out.push_back(BYTE(v >> 8));
  out.push_back(BYTE(v));
}
inline void PutAll(std::vector<BYTE>& out, const std::vector<BYTE>& more) {
  out.insert(out.end(), more.begin(), more.end());
}
inline UINT32 Get32(const std::vector<BYTE>& b, size_t at) {
  return UINT32(b[at]) << 24 | UINT32(b[at + 1]) << 16 | UINT32(b[at + 2]) << 8 | b[at + 3];
}

inline TPM_SECRET WellKnown() {
  TPM_SECRET s{};
  KestAuth_WellKnownSecret(&s);
  return s;
}

// RSA with two primes and the default exponent, no PCRs.
inline std::vector<BYTE> KeyInfo(UINT16 usage, UINT32 bits, UINT16 encScheme, UINT16 sigScheme,
                                 BYTE authDataUsage = kAuthNever) {
  std::vector<BYTE> b = {1, 1, 0, 0, BYTE(usage >> 8), BYTE(usage), 0, 0, 0, 0, authDataUsage};
  Put32(b, 1);  // RSA
  b.insert(b.end(), {BYTE(encScheme >> 8), BYTE(encScheme), BYTE(sigScheme >> 8), BYTE(sigScheme)});
  Put32(b, 12);
  Put32(b, bits);
  Put32(b, 2);
  Put32(b, 0);
  Put32(b, 0);  // PCRInfoSize
  Put32(b, 0);  // no public key yet
  Put32(b, 0);  // no encrypted part yet
  return b;
}

// Where a TPM_KEY blob's parts lie: its algorithm parameters, then (after the PCR info) its public
// key as a size and the modulus.
struct KeyLayout {
  size_t parmsEnd;
  size_t pubStart;
  size_t pubEnd;
};
inline KeyLayout LayoutOf(const std::vector<BYTE>& blob) {
  KeyLayout l{};
  l.parmsEnd = kKeyParmsOffset + 12 + Get32(blob, kKeyParmsOffset + 8);
  l.pubStart = l.parmsEnd + 4 + Get32(blob, l.parmsEnd);
  l.pubEnd = l.pubStart + 4 + Get32(blob, l.pubStart);
  return l;
}

// The TPM_PUBKEY part of a TPM_KEY blob: its algorithm parameters and its public key.
inline std::vector<BYTE> PubKeyOf(const std::vector<BYTE>& blob) {
  const KeyLayout l = LayoutOf(blob);
  std::vector<BYTE> pub(blob.begin() + std::ptrdiff_t(kKeyParmsOffset),
                        blob.begin() + std::ptrdiff_t(l.parmsEnd));
  pub.insert(pub.end(), blob.begin() + std::ptrdiff_t(l.pubStart),
             blob.begin() + std::ptrdiff_t(l.pubEnd));
  return pub;
}

// The RSA modulus of a TPM_KEY blob (big-endian).
inline std::vector<BYTE> ModulusOf(const std::vector<BYTE>& blob) {
  const KeyLayout l = LayoutOf(blob);
  return std::vector<BYTE>(blob.begin() + std::ptrdiff_t(l.pubStart + 4),
                           blob.begin() + std::ptrdiff_t(l.pubEnd));
}

// TPM_CreateWrapKey under `parent` over an OSAP session on it; the answer's HMAC is checked.
inline std::vector<BYTE> CreateKey(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE parent,
                                   const std::vector<BYTE>& keyInfo) {
  const TPM_SECRET secret = WellKnown();
  KESTTCS_AUTH_SESSION s{};
  EXPECT_EQ(KestAuth_OpenOSAP(h, KESTTCS_ET_KEYHANDLE, parent, &secret, &s), TSS_SUCCESS);
  TPM_ENCAUTH usage{}, migration{};
  EXPECT_EQ(KestAuth_EncAuth(&s, &secret, KESTTCS_ADIP_EVEN, &usage), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_NewNonceOdd(&s), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_EncAuth(&s, &secret, KESTTCS_ADIP_ODD, &migration), TSS_SUCCESS);
  std::vector<BYTE> digest(usage.authdata, usage.authdata + 20);
  digest.insert(digest.end(), migration.authdata, migration.authdata + 20);
  digest.insert(digest.end(), keyInfo.begin(), keyInfo.end());
  TPM_AUTH auth{};
  EXPECT_EQ(
      KestAuth_Authorize(&s, TPM_ORD_CreateWrapKey, digest.data(), UINT32(digest.size()), 0, &auth),
      TSS_SUCCESS);
  UINT32 size = 0;
  BYTE* data = nullptr;
  EXPECT_EQ(Tcsip_CreateWrapKey(h, parent, usage, migration, UINT32(keyInfo.size()),
                                const_cast<BYTE*>(keyInfo.data()), &auth, &size, &data),
            TSS_SUCCESS);
  std::vector<BYTE> blob(data, data + size);
  Tcs_FreeBuffer(data);
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_CreateWrapKey, blob.data(), UINT32(blob.size()), &auth),
            TSS_SUCCESS);
  return blob;
}

// Tcsip_LoadKey2ByBlob, the service authorising the load under `parent` itself.
inline TCS_KEY_HANDLE Load(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE parent,
                           const std::vector<BYTE>& blob) {
  TCS_KEY_HANDLE handle = 0;
  EXPECT_EQ(Tcsip_LoadKey2ByBlob(h, parent, UINT32(blob.size()), const_cast<BYTE*>(blob.data()),
                                 nullptr, &handle),
            TSS_SUCCESS);
  return handle;
}

// Tcsip_GetPubKey of `key`: the TPM's TPM_PUBKEY of it into *pub.
inline TSS_RESULT PubKey(TCS_CONTEXT_HANDLE h, TCS_KEY_HANDLE key, std::vector<BYTE>* pub) {
  UINT32 size = 0;
  BYTE* data = nullptr;
  const TSS_RESULT r = Tcsip_GetPubKey(h, key, nullptr, &size, &data);
  if (r == TSS_SUCCESS) pub->assign(data, data + size);
  Tcs_FreeBuffer(data);
  return r;
}

// How many keys the TPM holds now (TPM_CAP_KEY_HANDLE: a UINT16 count, then the handles).
inline size_t TpmKeyCount(TCS_CONTEXT_HANDLE h) {
  UINT32 size = 0;
  BYTE* resp = nullptr;
  EXPECT_EQ(Tcsip_GetCapability(h, TPM_CAP_KEY_HANDLE, 0, nullptr, &size, &resp), TSS_SUCCESS);
  const size_t count = size >= 2 ? size_t(resp[0]) << 8 | resp[1] : 0;
  Tcs_FreeBuffer(resp);
  return count;
}

}  // namespace kesttcs::testing::wrapped_keys
