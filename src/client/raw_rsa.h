// The raw RSA public-key operation (no padding), with a source per platform: libcrypto on Linux,
// bcrypt on Windows. The padding is the caller's (rsa_oaep.cc).
#pragma once

#include <span>

#include <kesttcs/tcs_types.h>

#include "client/tpm_pubkey.h"

namespace kesttcs::client {

// `block` (exactly the modulus size, below the modulus as a number) to the power of the key's
// exponent modulo its modulus, into `out` (the modulus size). False when the platform's crypto
// refuses or fails.
[[nodiscard]] bool RawRsaPublic(const RsaPublicKey& key, std::span<const BYTE> block,
                                std::span<BYTE> out);

}  // namespace kesttcs::client
