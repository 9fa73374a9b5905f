// Reads the RSA public key out of a TPM_PUBKEY (as TPM_ReadPubek returns the endorsement key):
// algorithm parameters, then the modulus.
#pragma once

#include <optional>
#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs::client {

// An RSA public key borrowed from the blob it was read from.
struct RsaPublicKey {
  std::span<const BYTE> modulus;   // big-endian, first byte nonzero
  std::span<const BYTE> exponent;  // big-endian; empty for the default 65537
};

inline constexpr UINT32 kTpmAlgRsa = 0x00000001;
inline constexpr UINT16 kTpmEsRsaOaepSha1Mgf1 = 0x0003;
inline constexpr std::size_t kMinModulusBytes = 64;   // 512 bits
inline constexpr std::size_t kMaxModulusBytes = 512;  // 4096 bits
inline constexpr std::size_t kMaxExponentBytes = 8;

// The key of `blob` when it is a well-formed TPM_PUBKEY of an RSA OAEP (SHA-1, MGF1) key: two
// primes; a modulus of kMinModulusBytes to kMaxModulusBytes, as long as its keyLength says; an
// exponent of at most kMaxExponentBytes that is odd and above 1 (or absent); nothing after the
// modulus. Nothing otherwise.
std::optional<RsaPublicKey> ParseTpmPubKey(std::span<const BYTE> blob);

}  // namespace kesttcs::client
