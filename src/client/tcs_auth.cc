// The authorisation helper's sessions: secrets, session set-up from values the caller has, command
// HMACs, response checks and ADIP encryption (declared in <kesttcs/tcs_auth.h>).
#include <kesttcs/tcs_auth.h>

#include <array>
#include <cstring>

#include <kesttcs/tcs_results.h>

#include "client/auth_crypto.h"

namespace {

using kesttcs::TCS_E_BAD_PARAMETER;
using kesttcs::TPM_SUCCESS;
using kesttcs::TSS_SUCCESS;
using kesttcs::client::Bytes;
using kesttcs::client::BytesOf;
using kesttcs::client::HmacSha1;
using kesttcs::client::kDigestSize;
using kesttcs::client::RandomBytes;
using kesttcs::client::SameBytes;
using kesttcs::client::Sha1;
using kesttcs::client::Wipe;

using Uint32Bytes = std::array<BYTE, 4>;

constexpr TSS_BOOL kTrue = 1;

Uint32Bytes BigEndian(UINT32 value) {
  Uint32Bytes bytes;
  KestAuth_PutUINT32(bytes.data(), value);
  return bytes;
}

// A caller's (pointer, size) pair as bytes; false when the pointer is null with a size.
bool ParamBytes(const BYTE* p, UINT32 size, Bytes& out) {
  if (p == nullptr && size != 0) return false;
  out = size == 0 ? Bytes() : Bytes(p, size);
  return true;
}

// Sets up `s` for a session whose HMAC key is already known: open, nothing pending. The nonce and
// key come by value: a caller may pass them from the session it sets up again.
void Begin(KESTTCS_AUTH_SESSION* s, UINT32 kind, TCS_AUTHHANDLE handle, TPM_NONCE nonceEven,
           TPM_SECRET key) {
  std::memset(s, 0, sizeof *s);
  s->kind = kind;
  s->handle = handle;
  s->nonceEven = nonceEven;
  s->key = key;
  s->open = kTrue;
  Wipe(BytesOf(key));
}

// OSAP and DSAP: the shared secret HMAC(secret, nonceEvenXSAP || nonceOddXSAP) becomes the key.
TSS_RESULT BeginShared(KESTTCS_AUTH_SESSION* s, UINT32 kind, TCS_AUTHHANDLE handle,
                       const TPM_NONCE* nonceEven, const TPM_NONCE* nonceEvenXSAP,
                       const TPM_NONCE* nonceOddXSAP, const TPM_SECRET* secret) {
  if (s == nullptr || nonceEven == nullptr || nonceEvenXSAP == nullptr || nonceOddXSAP == nullptr ||
      secret == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TPM_SECRET shared;
  if (!HmacSha1(BytesOf(*secret), {BytesOf(*nonceEvenXSAP), BytesOf(*nonceOddXSAP)},
                BytesOf(shared))) {
    return KESTTCS_AUTH_E_CRYPTO;
  }
  Begin(s, kind, handle, *nonceEven, shared);
  Wipe(BytesOf(shared));
  return TSS_SUCCESS;
}

// The HMAC of one authorised exchange: HMAC(key, SHA1(paramDigestPrefix || ordinal || params) ||
// nonceEven || nonceOdd || continue). Commands hash no prefix; responses hash their return code
// (always 0: only successful answers carry a record to check).
bool SessionHmac(const KESTTCS_AUTH_SESSION& s, Bytes prefix, TPM_COMMAND_CODE ordinal,
                 Bytes params, const TPM_NONCE& nonceEven, TSS_BOOL continueSession,
                 TPM_AUTHDATA& hmac) {
  const Uint32Bytes ordinalBytes = BigEndian(ordinal);
  std::array<BYTE, kDigestSize> paramDigest;
  const BYTE continueByte = continueSession ? 1 : 0;
  return Sha1({prefix, ordinalBytes, params}, paramDigest) &&
         HmacSha1(BytesOf(s.key),
                  {paramDigest, BytesOf(nonceEven), BytesOf(s.nonceOdd), Bytes(&continueByte, 1)},
                  BytesOf(hmac));
}

}  // namespace

extern "C" {

void KestAuth_WellKnownSecret(TPM_SECRET* secret) {
  if (secret != nullptr) std::memset(secret, 0, sizeof *secret);
}

TSS_RESULT KestAuth_SecretFromPassword(const BYTE* password, UINT32 size, TPM_SECRET* secret) {
  Bytes bytes;
  if (secret == nullptr || !ParamBytes(password, size, bytes)) return TCS_E_BAD_PARAMETER;
  return Sha1({bytes}, BytesOf(*secret)) ? TSS_SUCCESS : KESTTCS_AUTH_E_CRYPTO;
}

TSS_RESULT KestAuth_Sha1(const BYTE* data, UINT32 size, TPM_DIGEST* digest) {
  Bytes bytes;
  if (digest == nullptr || !ParamBytes(data, size, bytes)) return TCS_E_BAD_PARAMETER;
  return Sha1({bytes}, BytesOf(*digest)) ? TSS_SUCCESS : KESTTCS_AUTH_E_CRYPTO;
}

TSS_RESULT KestAuth_BeginOIAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                              const TPM_NONCE* nonceEven, const TPM_SECRET* usageSecret) {
  if (s == nullptr || nonceEven == nullptr || usageSecret == nullptr) return TCS_E_BAD_PARAMETER;
  Begin(s, KESTTCS_AUTH_OIAP, handle, *nonceEven, *usageSecret);
  return TSS_SUCCESS;
}

TSS_RESULT KestAuth_BeginOSAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                              const TPM_NONCE* nonceEven, const TPM_NONCE* nonceEvenOSAP,
                              const TPM_NONCE* nonceOddOSAP, const TPM_SECRET* usageSecret) {
  return BeginShared(s, KESTTCS_AUTH_OSAP, handle, nonceEven, nonceEvenOSAP, nonceOddOSAP,
                     usageSecret);
}

TSS_RESULT KestAuth_BeginDSAP(KESTTCS_AUTH_SESSION* s, TCS_AUTHHANDLE handle,
                              const TPM_NONCE* nonceEven, const TPM_NONCE* nonceEvenDSAP,
                              const TPM_NONCE* nonceOddDSAP, const TPM_SECRET* delegationSecret) {
  return BeginShared(s, KESTTCS_AUTH_DSAP, handle, nonceEven, nonceEvenDSAP, nonceOddDSAP,
                     delegationSecret);
}

TSS_RESULT KestAuth_NewNonceOdd(KESTTCS_AUTH_SESSION* s) {
  if (s == nullptr) return TCS_E_BAD_PARAMETER;
  if (!s->open) return KESTTCS_AUTH_E_CLOSED;
  if (!RandomBytes(BytesOf(s->nonceOdd))) return KESTTCS_AUTH_E_CRYPTO;
  s->nonceOddFresh = kTrue;
  return TSS_SUCCESS;
}

TSS_RESULT KestAuth_Authorize(KESTTCS_AUTH_SESSION* s, TPM_COMMAND_CODE ordinal,
                              const BYTE* inParams, UINT32 inSize, TSS_BOOL continueSession,
                              TPM_AUTH* auth) {
  Bytes params;
  if (s == nullptr || auth == nullptr || !ParamBytes(inParams, inSize, params)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (!s->open) return KESTTCS_AUTH_E_CLOSED;
  if (!s->nonceOddFresh) {
    if (TSS_RESULT rc = KestAuth_NewNonceOdd(s); rc != TSS_SUCCESS) return rc;
  }
  TPM_AUTHDATA hmac;
  if (!SessionHmac(*s, Bytes(), ordinal, params, s->nonceEven, continueSession, hmac)) {
    return KESTTCS_AUTH_E_CRYPTO;
  }
  auth->AuthHandle = s->handle;
  auth->NonceOdd = s->nonceOdd;
  auth->NonceEven = s->nonceEven;
  auth->fContinueAuthSession = continueSession ? kTrue : 0;
  auth->HMAC = hmac;
  s->nonceOddFresh = 0;
  s->pending = kTrue;
  if (!continueSession) s->open = 0;
  return TSS_SUCCESS;
}

TSS_RESULT KestAuth_Verify(KESTTCS_AUTH_SESSION* s, TPM_COMMAND_CODE ordinal, const BYTE* outParams,
                           UINT32 outSize, const TPM_AUTH* auth) {
  Bytes params;
  if (s == nullptr || auth == nullptr || !ParamBytes(outParams, outSize, params)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (s->kind == 0 || !s->pending) return KESTTCS_AUTH_E_CLOSED;
  const Uint32Bytes returnCode = BigEndian(TPM_SUCCESS);
  TPM_AUTHDATA expected;
  if (!SessionHmac(*s, returnCode, ordinal, params, auth->NonceEven, auth->fContinueAuthSession,
                   expected)) {
    return KESTTCS_AUTH_E_CRYPTO;
  }
  if (!SameBytes(BytesOf(expected), BytesOf(auth->HMAC))) return KESTTCS_AUTH_E_VERIFY;
  s->nonceEven = auth->NonceEven;
  s->pending = 0;
  if (!auth->fContinueAuthSession) s->open = 0;
  return TSS_SUCCESS;
}

TSS_RESULT KestAuth_EncAuth(const KESTTCS_AUTH_SESSION* s, const TPM_SECRET* secret,
                            UINT32 whichNonce, TPM_ENCAUTH* encAuth) {
  if (s == nullptr || secret == nullptr || encAuth == nullptr) return TCS_E_BAD_PARAMETER;
  if (!s->open) return KESTTCS_AUTH_E_CLOSED;
  if (s->kind != KESTTCS_AUTH_OSAP && s->kind != KESTTCS_AUTH_DSAP) return TCS_E_BAD_PARAMETER;
  const TPM_NONCE* nonce = nullptr;
  if (whichNonce == KESTTCS_ADIP_EVEN) {
    nonce = &s->nonceEven;
  } else if (whichNonce == KESTTCS_ADIP_ODD && s->nonceOddFresh) {
    nonce = &s->nonceOdd;
  } else {
    return TCS_E_BAD_PARAMETER;
  }
  std::array<BYTE, kDigestSize> pad;
  if (!Sha1({BytesOf(s->key), BytesOf(*nonce)}, pad)) return KESTTCS_AUTH_E_CRYPTO;
  const auto plain = BytesOf(*secret);
  const auto out = BytesOf(*encAuth);
  for (std::size_t i = 0; i < kDigestSize; ++i) out[i] = plain[i] ^ pad[i];
  Wipe(pad);
  return TSS_SUCCESS;
}

void KestAuth_PutUINT32(BYTE* p, UINT32 value) {
  if (p == nullptr) return;
  p[0] = static_cast<BYTE>(value >> 24);
  p[1] = static_cast<BYTE>(value >> 16);
  p[2] = static_cast<BYTE>(value >> 8);
  p[3] = static_cast<BYTE>(value);
}

void KestAuth_PutUINT16(BYTE* p, UINT16 value) {
  if (p == nullptr) return;
  p[0] = static_cast<BYTE>(value >> 8);
  p[1] = static_cast<BYTE>(value);
}

}  // extern "C"
