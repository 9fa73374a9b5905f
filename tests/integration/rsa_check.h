// Independent checks of what a TPM key signed, with OpenSSL alone: SHA-1 of the signed bytes and
// an RSASSA-PKCS1-v1_5 verification against the key's modulus.
#pragma once

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <memory>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::testing::rsa_check {

inline std::vector<BYTE> Sha1(const std::vector<BYTE>& in) {
  std::vector<BYTE> out(SHA_DIGEST_LENGTH);
  SHA1(in.data(), in.size(), out.data());
  return out;
}

// The public RSA key of `modulus` (big-endian) and the default exponent.
inline std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> PublicKey(
    const std::vector<BYTE>& modulus) {
  using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
  using Builder = std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)>;
  using Params = std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)>;
  using Ctx = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> none(nullptr, EVP_PKEY_free);
  const Bn n(BN_bin2bn(modulus.data(), int(modulus.size()), nullptr), BN_free);
  const Bn e(BN_new(), BN_free);
  const Builder builder(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  if (!n || !e || !builder || BN_set_word(e.get(), RSA_F4) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return none;
  }
  const Params params(OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
  const Ctx fromData(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (!params || !fromData || EVP_PKEY_fromdata_init(fromData.get()) != 1 ||
      EVP_PKEY_fromdata(fromData.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return none;
  }
  return {raw, EVP_PKEY_free};
}

// Whether `sig` is an RSASSA-PKCS1-v1_5 signature of the SHA-1 digest `sha1` under the RSA key of
// `modulus` and the default exponent.
inline bool VerifiesWith(const std::vector<BYTE>& modulus, const std::vector<BYTE>& sha1,
                         const std::vector<BYTE>& sig) {
  using Ctx = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
  const auto key = PublicKey(modulus);
  if (!key) return false;
  const Ctx verify(EVP_PKEY_CTX_new(key.get(), nullptr), EVP_PKEY_CTX_free);
  return verify && EVP_PKEY_verify_init(verify.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(verify.get(), RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(verify.get(), EVP_sha1()) == 1 &&
         EVP_PKEY_verify(verify.get(), sig.data(), sig.size(), sha1.data(), sha1.size()) == 1;
}

}  // namespace kesttcs::testing::rsa_check
