#include "tools/tpm_pubkey_pem.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <memory>

namespace kesttcs::cli {

namespace {

constexpr UINT32 kAlgRsa = 1;
constexpr unsigned long kDefaultExponent = 65537;

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

struct RsaPublic {
  std::span<const BYTE> exponent;
  std::span<const BYTE> modulus;
};

// TPM_PUBKEY: TPM_KEY_PARMS (algorithm, two schemes, the sized TPM_RSA_KEY_PARMS: key length,
// number of primes, the sized exponent), then TPM_STORE_PUBKEY (the sized modulus).
std::optional<RsaPublic> ParsePubKey(std::span<const BYTE> bytes) {
  Reader r(bytes);
  UINT32 algorithm = 0, scheme = 0, parmSize = 0, keyLength = 0, primes = 0, exponentSize = 0,
         modulusSize = 0;
  std::span<const BYTE> parms;
  RsaPublic key;
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

}  // namespace

std::optional<std::string> PubKeyPem(std::span<const BYTE> tpmPubKey) {
  const std::optional<RsaPublic> rsa = ParsePubKey(tpmPubKey);
  if (!rsa) return std::nullopt;
  using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
  const Bn n(BN_bin2bn(rsa->modulus.data(), int(rsa->modulus.size()), nullptr), BN_free);
  Bn e(BN_new(), BN_free);
  if (!n || !e) return std::nullopt;
  if (rsa->exponent.empty()
          ? BN_set_word(e.get(), kDefaultExponent) != 1
          : BN_bin2bn(rsa->exponent.data(), int(rsa->exponent.size()), e.get()) == nullptr) {
    return std::nullopt;
  }
  const std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(
      OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  if (!builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return std::nullopt;
  }
  const std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> params(
      OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
  const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
      EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return std::nullopt;
  }
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(raw, EVP_PKEY_free);
  const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key.get()) != 1) return std::nullopt;
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  if (size <= 0 || text == nullptr) return std::nullopt;
  return std::string(text, size_t(size));
}

}  // namespace kesttcs::cli
