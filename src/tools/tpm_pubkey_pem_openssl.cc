#include "tools/tpm_pubkey_pem.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <memory>

#include "tools/tpm_pubkey_fields.h"

namespace kesttcs::cli {

namespace {

constexpr unsigned long kDefaultExponent = 65537;

}  // namespace

std::optional<std::string> PubKeyPem(std::span<const BYTE> tpmPubKey) {
  const std::optional<RsaPublicFields> rsa = ParseRsaPubKey(tpmPubKey);
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
