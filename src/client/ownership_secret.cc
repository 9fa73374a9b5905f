// KestAuth_EncryptForOwnership: an owner or SRK secret encrypted under the endorsement key for
// TPM_TakeOwnership.
#include <array>
#include <optional>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>

#include "client/auth_crypto.h"
#include "client/rsa_oaep.h"
#include "client/tpm_pubkey.h"

namespace kesttcs::client {
namespace {

// The OAEP label a TPM 1.2 decrypts ownership secrets with.
constexpr std::array<BYTE, 4> kTcpaLabel = {'T', 'C', 'P', 'A'};

// The function's work once its pointers are known to be there.
TSS_RESULT EncryptForOwnership(Bytes pubEndorsementKey, const TPM_SECRET& secret, BYTE* out,
                               UINT32& outSize) {
  const std::optional<RsaPublicKey> key = ParseTpmPubKey(pubEndorsementKey);
  if (!key) return TCS_E_BAD_PARAMETER;
  const UINT32 needed = static_cast<UINT32>(key->modulus.size());
  if (outSize < needed) {
    outSize = needed;
    return KESTTCS_AUTH_E_SMALL_BUFFER;
  }
  std::array<BYTE, kDigestSize> seed;
  if (!RandomBytes(seed)) return KESTTCS_AUTH_E_CRYPTO;
  const TSS_RESULT rc =
      RsaOaepEncrypt(*key, BytesOf(secret), kTcpaLabel, seed, std::span<BYTE>(out, needed));
  Wipe(seed);
  if (rc == TSS_SUCCESS) outSize = needed;
  return rc;
}

}  // namespace
}  // namespace kesttcs::client

extern "C" TSS_RESULT KestAuth_EncryptForOwnership(const BYTE* pubEndorsementKey,
                                                   UINT32 pubEndorsementKeySize,
                                                   const TPM_SECRET* secret, BYTE* out,
                                                   UINT32* outSize) {
  if (pubEndorsementKey == nullptr || secret == nullptr || outSize == nullptr ||
      (out == nullptr && *outSize != 0)) {
    return kesttcs::TCS_E_BAD_PARAMETER;
  }
  return kesttcs::client::EncryptForOwnership(
      kesttcs::client::Bytes(pubEndorsementKey, pubEndorsementKeySize), *secret, out, *outSize);
}
