// RSAES-OAEP encryption with SHA-1 and MGF1 (PKCS #1 v2.1), the scheme a TPM 1.2 decrypts owner and
// SRK secrets with. The encoding is done here, with a seed the caller gives, so that published test
// vectors can check it; the platform's crypto does the raw RSA operation (client/raw_rsa.h).
#pragma once

#include <span>

#include <kesttcs/tcs_types.h>

#include "client/auth_crypto.h"
#include "client/tpm_pubkey.h"

namespace kesttcs::client {

// Encrypts `message` under `key` with the OAEP label `label` and the 20-byte `seed` into `out`,
// which must be exactly the modulus size. Results: 0; TCS_E_BAD_PARAMETER when `out` has another
// size or the message is longer than the modulus allows (its size - 42 bytes);
// KESTTCS_AUTH_E_CRYPTO when the platform's crypto fails (`out` is then unspecified).
[[nodiscard]] TSS_RESULT RsaOaepEncrypt(const RsaPublicKey& key, Bytes message, Bytes label,
                                        std::span<const BYTE, kDigestSize> seed,
                                        std::span<BYTE> out);

}  // namespace kesttcs::client
