// The hash, HMAC and random-number primitives of the authorisation helper, with a source per
// platform (libcrypto on Linux, bcrypt on Windows). Each takes its message as a list of byte spans,
// hashed in order as one concatenation, because the TPM's digests are always concatenations of
// several fields.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>

#include <kesttcs/tcs_types.h>

namespace kesttcs::client {

inline constexpr std::size_t kDigestSize = 20;

using Digest = std::span<BYTE, kDigestSize>;
using Bytes = std::span<const BYTE>;

// SHA-1 of the concatenation of `parts`, written to `out`. False when the platform's crypto fails
// (then `out` is unspecified).
[[nodiscard]] bool Sha1(std::initializer_list<Bytes> parts, Digest out);

// HMAC-SHA-1 under `key` of the concatenation of `parts`, written to `out`. False when the
// platform's crypto fails.
[[nodiscard]] bool HmacSha1(Bytes key, std::initializer_list<Bytes> parts, Digest out);

// Fills `out` from the system's random source. False when it cannot.
[[nodiscard]] bool RandomBytes(std::span<BYTE> out);

// True when `a` and `b` hold the same bytes, compared in a time that does not depend on where they
// differ (for MACs).
bool SameBytes(Bytes a, Bytes b);

// Overwrites `bytes` with zeros in a way the compiler keeps (for secrets going out of use).
void Wipe(std::span<BYTE> bytes);

// The bytes of a fixed 20-byte TPM value (nonce, secret, digest).
template <typename T>
std::span<BYTE, kDigestSize> BytesOf(T& value) {
  static_assert(sizeof(T) == kDigestSize);
  return std::span<BYTE, kDigestSize>(reinterpret_cast<BYTE*>(&value), kDigestSize);
}
template <typename T>
std::span<const BYTE, kDigestSize> BytesOf(const T& value) {
  static_assert(sizeof(T) == kDigestSize);
  return std::span<const BYTE, kDigestSize>(reinterpret_cast<const BYTE*>(&value), kDigestSize);
}

}  // namespace kesttcs::client
