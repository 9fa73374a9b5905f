// A TPM key's public part (TPM_PUBKEY, as Tcsip_GetPubKey gives it) as a PEM "PUBLIC KEY", so that
// a verifier can check the key's signatures with `openssl dgst -sha1 -verify`.
#pragma once

#include <optional>
#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// The PEM text of an RSA TPM_PUBKEY (its exponent, or 65537 when it gives none). Nothing when the
// bytes are no RSA TPM_PUBKEY or the platform cannot encode the key.
std::optional<std::string> PubKeyPem(std::span<const BYTE> tpmPubKey);

}  // namespace kesttcs::cli
