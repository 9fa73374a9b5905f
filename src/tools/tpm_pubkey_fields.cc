#include "tools/tpm_pubkey_fields.h"

namespace kesttcs::cli {
namespace {

constexpr UINT32 kAlgRsa = 1;

// Reads big-endian integers and byte runs, refusing to run past the end.
class Reader {
 public:
  explicit Reader(std::span<const BYTE> bytes) : bytes_(bytes) {}
  bool U16(UINT32* v) { return Number(2, v); }
  bool U32(UINT32* v) { return Number(4, v); }
  bool Bytes(UINT32 n, std::span<const BYTE>* out) {
    if (n > bytes_.size() - at_) return false;
    *out = bytes_.subspan(at_, n);
    at_ += n;
    return true;
  }
  bool AtEnd() const { return at_ == bytes_.size(); }

 private:
  bool Number(size_t n, UINT32* v) {
    if (n > bytes_.size() - at_) return false;
    *v = 0;
    for (size_t i = 0; i < n; ++i) *v = *v << 8 | bytes_[at_++];
    return true;
  }
  std::span<const BYTE> bytes_;
  size_t at_ = 0;
};

}  // namespace

std::optional<RsaPublicFields> ParseRsaPubKey(std::span<const BYTE> bytes) {
  Reader r(bytes);
  UINT32 algorithm = 0, scheme = 0, parmSize = 0, keyLength = 0, primes = 0, exponentSize = 0,
         modulusSize = 0;
  std::span<const BYTE> parms;
  RsaPublicFields key;
  if (!r.U32(&algorithm) || algorithm != kAlgRsa || !r.U16(&scheme) || !r.U16(&scheme) ||
      !r.U32(&parmSize) || !r.Bytes(parmSize, &parms) || !r.U32(&modulusSize) ||
      !r.Bytes(modulusSize, &key.modulus) || !r.AtEnd() || modulusSize == 0) {
    return std::nullopt;
  }
  Reader p(parms);
  if (!p.U32(&keyLength) || !p.U32(&primes) || !p.U32(&exponentSize) ||
      !p.Bytes(exponentSize, &key.exponent) || !p.AtEnd()) {
    return std::nullopt;
  }
  return key;
}

}  // namespace kesttcs::cli
