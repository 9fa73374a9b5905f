#include "client/tpm_pubkey.h"

#include <algorithm>

namespace kesttcs::client {
namespace {

// A bounds-checked big-endian reader; every read fails once one has failed.
class Reader {
 public:
  explicit Reader(std::span<const BYTE> bytes) : rest_(bytes) {}

  bool ok() const { return ok_; }
  bool AtEnd() const { return ok_ && rest_.empty(); }

  std::span<const BYTE> Take(std::size_t n) {
    if (!ok_ || rest_.size() < n) {
      ok_ = false;
      return {};
    }
    std::span<const BYTE> taken = rest_.first(n);
    rest_ = rest_.subspan(n);
    return taken;
  }
  UINT32 Uint(std::size_t width) {
    UINT32 value = 0;
    for (BYTE b : Take(width)) value = (value << 8) | b;
    return value;
  }

 private:
  std::span<const BYTE> rest_;
  bool ok_ = true;
};

constexpr UINT32 kTwoPrimes = 2;

bool UsableExponent(std::span<const BYTE> exponent) {
  if (exponent.empty()) return true;
  if (exponent.size() > kMaxExponentBytes || (exponent.back() & 1) == 0) return false;
  // Odd, so above 1 unless every byte before the last is zero and the last is 1.
  return exponent.back() != 1 ||
         std::any_of(exponent.begin(), exponent.end() - 1, [](BYTE b) { return b != 0; });
}

}  // namespace

std::optional<RsaPublicKey> ParseTpmPubKey(std::span<const BYTE> blob) {
  Reader key(blob);
  const UINT32 algorithmID = key.Uint(4);
  const UINT32 encScheme = key.Uint(2);
  key.Uint(2);  // the signature scheme does not matter for encryption
  const UINT32 parmSize = key.Uint(4);
  Reader parms(key.Take(parmSize));
  const UINT32 keyLengthBits = parms.Uint(4);
  const UINT32 numPrimes = parms.Uint(4);
  const UINT32 exponentSize = parms.Uint(4);
  const std::span<const BYTE> exponent = parms.Take(exponentSize);
  const UINT32 modulusSize = key.Uint(4);
  const std::span<const BYTE> modulus = key.Take(modulusSize);

  if (!key.AtEnd() || !parms.AtEnd()) return std::nullopt;
  if (algorithmID != kTpmAlgRsa || encScheme != kTpmEsRsaOaepSha1Mgf1 || numPrimes != kTwoPrimes) {
    return std::nullopt;
  }
  if (modulus.size() < kMinModulusBytes || modulus.size() > kMaxModulusBytes ||
      keyLengthBits != 8 * modulus.size() || modulus.front() == 0) {
    return std::nullopt;
  }
  if (!UsableExponent(exponent)) return std::nullopt;
  return RsaPublicKey{modulus, exponent};
}

}  // namespace kesttcs::client
