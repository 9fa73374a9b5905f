// The RSA fields of a TPM_PUBKEY (as Tcsip_GetPubKey gives it), for writing the key out.
#pragma once

#include <optional>
#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

struct RsaPublicFields {
  std::span<const BYTE> exponent;  // big-endian; empty for the default 65537
  std::span<const BYTE> modulus;   // big-endian
};

// TPM_PUBKEY: TPM_KEY_PARMS (algorithm, two schemes, the sized TPM_RSA_KEY_PARMS: key length,
// number of primes, the sized exponent), then TPM_STORE_PUBKEY (the sized modulus). Nothing when
// the bytes are no RSA TPM_PUBKEY or do not end where it does.
std::optional<RsaPublicFields> ParseRsaPubKey(std::span<const BYTE> bytes);

}  // namespace kesttcs::cli
