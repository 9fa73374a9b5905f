// Independent checks with OpenSSL of what the TPM produced through the service: RSA keys made from
// a TPM key's modulus (default exponent), PKCS#1 v1.5 SHA-1 signatures, RSA-OAEP (SHA-1, MGF1,
// label "TCPA") encryption to a TPM key, and SHA-1.
#pragma once

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <memory>
#include <optional>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::testing::rsa_checks {

using Bytes = std::vector<BYTE>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using Pkey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

inline Bytes Sha1(const Bytes& in) {
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(in.data(), in.size(), out.data());
  return out;
}

// The RSA public key of `modulus` (big-endian) and the default exponent; null on failure.
inline Pkey RsaPublicKey(const Bytes& modulus) {
  using Bn = std::unique_ptr<BIGNUM, decltype(&BN_free)>;
  using Builder = std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)>;
  using Params = std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)>;
  const Bn n(BN_bin2bn(modulus.data(), int(modulus.size()), nullptr), BN_free);
  const Bn e(BN_new(), BN_free);
  const Builder builder(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
  if (!n || !e || !builder || BN_set_word(e.get(), RSA_F4) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return Pkey(nullptr, EVP_PKEY_free);
  }
  const Params params(OSSL_PARAM_BLD_to_param(builder.get()), OSSL_PARAM_free);
  const PkeyCtx fromData(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (!params || !fromData || EVP_PKEY_fromdata_init(fromData.get()) != 1 ||
      EVP_PKEY_fromdata(fromData.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    return Pkey(nullptr, EVP_PKEY_free);
  }
  return Pkey(raw, EVP_PKEY_free);
}

// Whether `sig` is an RSASSA-PKCS1-v1_5 signature of the SHA-1 digest `sha1` under the RSA key of
// `modulus` and the default exponent.
inline bool VerifiesWith(const Bytes& modulus, const Bytes& sha1, const Bytes& sig) {
  const Pkey key = RsaPublicKey(modulus);
  const PkeyCtx verify(key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr, EVP_PKEY_CTX_free);
  return verify && EVP_PKEY_verify_init(verify.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(verify.get(), RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(verify.get(), EVP_sha1()) == 1 &&
         EVP_PKEY_verify(verify.get(), sig.data(), sig.size(), sha1.data(), sha1.size()) == 1;
}

// `plain` encrypted to the RSA key of `modulus` as a TPM decrypts with its OAEP scheme (SHA-1,
// MGF1, label "TCPA"); nothing on failure.
inline std::optional<Bytes> OaepEncrypt(const Bytes& modulus, const Bytes& plain) {
  static constexpr char kLabel[] = "TCPA";
  const Pkey key = RsaPublicKey(modulus);
  const PkeyCtx ctx(key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr, EVP_PKEY_CTX_free);
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), EVP_sha1()) != 1 ||
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha1()) != 1) {
    return std::nullopt;
  }
  void* label = OPENSSL_memdup(kLabel, sizeof kLabel - 1);
  if (label == nullptr ||
      EVP_PKEY_CTX_set0_rsa_oaep_label(ctx.get(), label, sizeof kLabel - 1) != 1) {
    OPENSSL_free(label);
    return std::nullopt;
  }
  size_t size = 0;
  if (EVP_PKEY_encrypt(ctx.get(), nullptr, &size, plain.data(), plain.size()) != 1) {
    return std::nullopt;
  }
  Bytes out(size);
  if (EVP_PKEY_encrypt(ctx.get(), out.data(), &size, plain.data(), plain.size()) != 1) {
    return std::nullopt;
  }
  out.resize(size);
  return out;
}

}  // namespace kesttcs::testing::rsa_checks
