// KestAuth_EncryptForOwnership: an owner or SRK secret encrypted under the endorsement key for
// TPM_TakeOwnership.
#include <array>
#include <optional>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>

#include "client/auth_crypto.h"
#include "client/rsa_oaep.h"
#include "client/tpm_pubkey.h"

namespace {

// The OAEP label a TPM 1.2 decrypts ownership secrets with.
constexpr std::array<BYTE, 4> kTcpaLabel = {'T', 'C', 'P', 'A'};

}  // namespace

extern "C" TSS_RESULT KestAuth_EncryptForOwnership(const BYTE* pubEndorsementKey,
                                                   UINT32 pubEndorsementKeySize,
                                                   const TPM_SECRET* secret, BYTE* out,
                                                   UINT32* outSize) {
  using kesttcs::TCS_E_BAD_PARAMETER;
  using kesttcs::client::Bytes;
  using kesttcs::client::BytesOf;
  using kesttcs::client::kDigestSize;
  using kesttcs::client::ParseTpmPubKey;
  using kesttcs::client::RandomBytes;
  using kesttcs::client::RsaOaepEncrypt;
  using kesttcs::client::RsaPublicKey;
  using kesttcs::client::Wipe;
  if (pubEndorsementKey == nullptr || secret == nullptr || outSize == nullptr ||
      (out == nullptr && *outSize != 0)) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::optional<RsaPublicKey> key =
      ParseTpmPubKey(Bytes(pubEndorsementKey, pubEndorsementKeySize));
  if (!key) return TCS_E_BAD_PARAMETER;
  const UINT32 needed = static_cast<UINT32>(key->modulus.size());
  if (*outSize < needed) {
    *outSize = needed;
    return KESTTCS_AUTH_E_SMALL_BUFFER;
  }
  std::array<BYTE, kDigestSize> seed;
  if (!RandomBytes(seed)) return KESTTCS_AUTH_E_CRYPTO;
  const TSS_RESULT rc =
      RsaOaepEncrypt(*key, BytesOf(*secret), kTcpaLabel, seed, std::span<BYTE>(out, needed));
  Wipe(seed);
  if (rc == kesttcs::TSS_SUCCESS) *outSize = needed;
  return rc;
}
