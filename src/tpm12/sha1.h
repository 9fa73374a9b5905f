// SHA-1 (FIPS 180-2), HMAC-SHA-1 (RFC 2104) and the SHA-1 mask generation function MGF1 (PKCS #1),
// computed by the service itself for its own authorisation helpers. Every computation keeps its
// state in a caller-owned Sha1State, so any number of threads may hash at once.
#pragma once

#include <array>
#include <cstddef>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr std::size_t kSha1DigestSize = 20;
inline constexpr std::size_t kSha1BlockSize = 64;

// The running state of one SHA-1 computation. Start it with SHA1_Init; it holds no resources.
struct Sha1State {
  std::array<UINT32, 5> chain{};  // chaining value H0..H4
  UINT64 lengthBits = 0;          // message length so far, modulo 2^64
  std::array<BYTE, kSha1BlockSize> block{};
  std::size_t blockUsed = 0;  // bytes of `block` waiting for a full block
};

// Sets `state` to the SHA-1 initial value with an empty message.
void SHA1_Init(Sha1State& state);

// Appends `len` bytes at `data` to the message. `data` may be null only when `len` is 0.
void SHA1_Update(Sha1State& state, const BYTE* data, std::size_t len);

// Pads the message, writes the 20-byte digest (chaining words big-endian) to `digest20`, and leaves
// `state` re-initialised for a new message.
void SHA1_Final(Sha1State& state, BYTE* digest20);

// One-shot SHA-1 of `len` bytes at `data` into `digest20`. Returns 0 on success, 1 when `digest20`
// is null or `data` is null with a non-zero length (nothing written).
[[nodiscard]] int SHA1(BYTE* digest20, const BYTE* data, UINT32 len);

// HMAC-SHA-1 of `dataLen` bytes at `data` under the `keyLen`-byte `key`, written to the 20 bytes at
// `mac20`. A key of 65 bytes or more is replaced by its SHA-1 digest; up to 64 bytes it is used as
// is. Returns 0 on success, 1 when key, data or mac20 is null (even with a zero length; nothing
// written).
[[nodiscard]] int HMAC_SHA1(UINT32 keyLen, const BYTE* key, UINT32 dataLen, const BYTE* data,
                            BYTE* mac20);

// MGF1 with SHA-1: writes `outLen` bytes to `out`, the concatenation of SHA-1(seed || counter) for
// counter = 0, 1, ... (big-endian 32-bit), cut to length. Returns 0 on success, 1 when `out` is
// null with a non-zero outLen or `seed` is null with a non-zero seedLen (nothing written).
[[nodiscard]] int MGF1_SHA1(BYTE* out, const BYTE* seed, UINT32 seedLen, UINT32 outLen);

// Number of RFC 2202 HMAC-SHA-1 test cases HMAC_SHA1_SelfTest runs.
inline constexpr int kHmacSha1SelfTestCases = 7;

// Runs the seven RFC 2202 HMAC-SHA-1 test cases and compares each MAC with the RFC's value.
// Returns 0 when all match; otherwise bit (n - 1) is set for every case n (1..7) that did not
// match, so a diagnostic can name the failing cases. A diagnostic entry: nothing in the service
// calls it.
[[nodiscard]] UINT32 HMAC_SHA1_SelfTest();

}  // namespace kesttcs
