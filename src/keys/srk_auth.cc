#include "keys/srk_auth.h"

#include <array>
#include <mutex>
#include <random>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "base/mutex.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "keys/key_commands.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/sha1.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

struct SrkSecretState {
  // Leaf: nothing else is taken while it is held.
  Mutex mu;
  std::optional<TPM_SECRET> secret GUARDED_BY(mu) = TPM_SECRET{};
};

SrkSecretState& State() {
  static SrkSecretState state;
  return state;
}

std::optional<TPM_SECRET> Secret() {
  SrkSecretState& s = State();
  MutexLock lock(s.mu);
  return s.secret;
}

void FillRandom(TPM_NONCE* nonce) {
  std::random_device device;
  for (BYTE& b : nonce->nonce) b = static_cast<BYTE>(device());
}

// The parameters every SRK has: a 2048-bit RSA key of two primes with the default exponent, OAEP
// encryption and no signing.
TPM_KEY_PARMS SrkKeyParms() {
  TPM_KEY_PARMS parms;
  parms.algorithmID = 0x00000001;  // TPM_ALG_RSA
  parms.encScheme = 0x0003;        // TPM_ES_RSAESOAEP_SHA1_MGF1
  parms.sigScheme = 0x0001;        // TPM_SS_NONE
  // TPM_RSA_KEY_PARMS: keyLength 2048, numPrimes 2, exponentSize 0.
  parms.parms = {0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0};
  parms.parmSize = static_cast<UINT32>(parms.parms.size());
  return parms;
}

}  // namespace

void SetSrkSecret(std::optional<TPM_SECRET> secret) {
  SrkSecretState& s = State();
  MutexLock lock(s.mu);
  s.secret = secret;
}

bool SrkSecretKnown() { return Secret().has_value(); }

SrkSession::~SrkSession() {
  if (open_) Finish(TCS_E_FAIL);
}

TSS_RESULT SrkSession::Open() {
  if (!SrkSecretKnown()) return TCS_E_FAIL;
  if (TSS_RESULT rc = OpenOiap(&handle_, &nonceEven_)) return rc;
  {
    MutexLock lock(auth_mutex());
    if (TSS_RESULT rc = auth_mgr_add(kInternalContextHandle, handle_, TPM_RT_AUTH)) {
      static_cast<void>(auth_mgr_flush(handle_, TPM_RT_AUTH));
      return rc;
    }
  }
  open_ = true;
  return TSS_SUCCESS;
}

TSS_RESULT SrkSession::Authorize(TPM_COMMAND_CODE ordinal, std::span<const BYTE> hashedParams,
                                 TPM_AUTH* auth) {
  const std::optional<TPM_SECRET> secret = Secret();
  if (!open_ || !secret) return TCS_E_FAIL;
  std::vector<BYTE> params(4 + hashedParams.size());
  UINT32ToArray(ordinal, std::span(params).first<4>());
  std::copy(hashedParams.begin(), hashedParams.end(), params.begin() + 4);
  // HMAC input: inParamDigest, nonceEven, nonceOdd, continueAuthSession.
  std::array<BYTE, 3 * kSha1DigestSize + 1> hmacInput{};
  if (SHA1(hmacInput.data(), params.data(), static_cast<UINT32>(params.size())) != 0) {
    return TCS_E_INTERNAL_ERROR;
  }
  *auth = TPM_AUTH{};
  auth->AuthHandle = handle_;
  auth->NonceEven = nonceEven_;
  FillRandom(&auth->NonceOdd);
  auth->fContinueAuthSession = 0;
  std::copy_n(nonceEven_.nonce, kSha1DigestSize, hmacInput.begin() + kSha1DigestSize);
  std::copy_n(auth->NonceOdd.nonce, kSha1DigestSize, hmacInput.begin() + 2 * kSha1DigestSize);
  if (HMAC_SHA1(sizeof secret->authdata, secret->authdata, hmacInput.size(), hmacInput.data(),
                auth->HMAC.authdata) != 0) {
    return TCS_E_INTERNAL_ERROR;
  }
  return TSS_SUCCESS;
}

void SrkSession::Finish(TSS_RESULT commandResult) {
  if (!open_) return;
  open_ = false;
  if (commandResult == TSS_SUCCESS) {
    auth_mgr_forget(handle_);
  } else {
    static_cast<void>(auth_mgr_release(handle_));
  }
}

TSS_RESULT ReadSrkKey(TPM_KEY* srk) {
  constexpr TPM_KEY_HANDLE kSrkHandle = 0x40000000;
  constexpr TPM_KEY_USAGE kStorageKey = 0x0011;
  SrkSession session;
  if (TSS_RESULT rc = session.Open()) return rc;
  TPM_AUTH auth{};
  if (TSS_RESULT rc = session.Authorize(TPM_ORD_GetPubKey, {}, &auth)) return rc;
  KeyCommand command(TPM_ORD_GetPubKey);
  TPM_PUBKEY pub;
  TSS_RESULT result = command.Run(TPM_TAG_RQU_AUTH1_COMMAND, kSrkHandle, auth);
  if (result == TSS_SUCCESS) result = command.Unload(&pub);
  session.Finish(result);
  if (result == TpmResult(TPM_INVALID_KEYHANDLE)) {
    // The owner keeps the SRK's public part unreadable. Every SRK has the same parameters (a
    // 2048-bit RSA storage key with OAEP encryption and no signing), and its children are loaded
    // under its fixed handle, so the key is known but for its modulus.
    TcsTracef("ReadSrkKey: the TPM keeps the SRK's public part unreadable");
    pub = TPM_PUBKEY{};
    pub.algorithmParms = SrkKeyParms();
    result = TSS_SUCCESS;
  }
  if (result != TSS_SUCCESS) return result;
  *srk = TPM_KEY{};
  srk->ver = TPM_STRUCT_VER{1, 1, 0, 0};
  srk->keyUsage = kStorageKey;
  srk->authDataUsage = 1;
  srk->algorithmParms = std::move(pub.algorithmParms);
  srk->pubKey = std::move(pub.pubKey);
  return TSS_SUCCESS;
}

}  // namespace kesttcs
