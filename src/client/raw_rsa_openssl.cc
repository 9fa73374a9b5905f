#include "client/raw_rsa.h"

#include <array>
#include <memory>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include "client/openssl_freer.h"

namespace kesttcs::client {
namespace {

using UniqueBn = std::unique_ptr<BIGNUM, Freer<BN_free>>;
using UniquePkey = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using UniquePkeyCtx = std::unique_ptr<EVP_PKEY_CTX, Freer<EVP_PKEY_CTX_free>>;

constexpr std::array<BYTE, 3> kDefaultExponent = {0x01, 0x00, 0x01};  // 65537

UniquePkey PublicKey(const RsaPublicKey& key) {
  const std::span<const BYTE> exponent =
      key.exponent.empty() ? std::span<const BYTE>(kDefaultExponent) : key.exponent;
  UniqueBn n(BN_bin2bn(key.modulus.data(), static_cast<int>(key.modulus.size()), nullptr));
  UniqueBn e(BN_bin2bn(exponent.data(), static_cast<int>(exponent.size()), nullptr));
  std::unique_ptr<OSSL_PARAM_BLD, Freer<OSSL_PARAM_BLD_free>> build(OSSL_PARAM_BLD_new());
  if (!n || !e || !build ||
      OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return nullptr;
  }
  std::unique_ptr<OSSL_PARAM, Freer<OSSL_PARAM_free>> params(OSSL_PARAM_BLD_to_param(build.get()));
  UniquePkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* made = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &made, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return nullptr;
  }
  return UniquePkey(made);
}

}  // namespace

bool RawRsaPublic(const RsaPublicKey& key, std::span<const BYTE> block, std::span<BYTE> out) {
  UniquePkey pkey = PublicKey(key);
  UniquePkeyCtx ctx(pkey ? EVP_PKEY_CTX_new(pkey.get(), nullptr) : nullptr);
  std::size_t written = out.size();
  return ctx && EVP_PKEY_encrypt_init(ctx.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) == 1 &&
         EVP_PKEY_encrypt(ctx.get(), out.data(), &written, block.data(), block.size()) == 1 &&
         written == out.size();
}

}  // namespace kesttcs::client
