#include "client/rsa_oaep.h"

#include <array>
#include <memory>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

namespace kesttcs::client {
namespace {

using UniqueBn = std::unique_ptr<BIGNUM, Freer<BN_free>>;
using UniquePkey = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using UniquePkeyCtx = std::unique_ptr<EVP_PKEY_CTX, Freer<EVP_PKEY_CTX_free>>;

constexpr std::array<BYTE, 3> kDefaultExponent = {0x01, 0x00, 0x01};  // 65537

// Masks `target` in place with MGF1-SHA-1(seed): XOR with SHA1(seed || counter) for counter =
// 0, 1...
bool XorMgf1(Bytes seed, std::span<BYTE> target) {
  std::array<BYTE, kDigestSize> block;
  for (UINT32 counter = 0; !target.empty(); ++counter) {
    std::array<BYTE, 4> counterBytes;
    KestAuth_PutUINT32(counterBytes.data(), counter);
    if (!Sha1({seed, counterBytes}, block)) return false;
    const std::size_t n = std::min(target.size(), block.size());
    for (std::size_t i = 0; i < n; ++i) target[i] ^= block[i];
    target = target.subspan(n);
  }
  return true;
}

// EME-OAEP encoding: EM = 0x00 || maskedSeed || maskedDB, DB = SHA1(label) || zeros || 0x01 || M.
bool OaepEncode(Bytes message, Bytes label, std::span<const BYTE, kDigestSize> seed,
                std::span<BYTE> em) {
  em[0] = 0x00;
  const std::span<BYTE> maskedSeed = em.subspan(1, kDigestSize);
  const std::span<BYTE> db = em.subspan(1 + kDigestSize);
  std::fill(db.begin(), db.end(), 0);
  if (!Sha1({label}, db.first<kDigestSize>())) return false;
  db[db.size() - message.size() - 1] = 0x01;
  std::copy(message.begin(), message.end(), db.end() - static_cast<std::ptrdiff_t>(message.size()));
  std::copy(seed.begin(), seed.end(), maskedSeed.begin());
  return XorMgf1(maskedSeed, db) && XorMgf1(db, maskedSeed);
}

UniquePkey PublicKey(const RsaPublicKey& key) {
  const Bytes exponent = key.exponent.empty() ? Bytes(kDefaultExponent) : key.exponent;
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

TSS_RESULT RsaOaepEncrypt(const RsaPublicKey& key, Bytes message, Bytes label,
                          std::span<const BYTE, kDigestSize> seed, std::span<BYTE> out) {
  if (out.size() != key.modulus.size() ||
      key.modulus.size() < message.size() + 2 * kDigestSize + 2) {
    return TCS_E_BAD_PARAMETER;
  }
  std::vector<BYTE> em(out.size());
  const bool encoded = OaepEncode(message, label, seed, em);
  UniquePkey pkey = encoded ? PublicKey(key) : nullptr;
  UniquePkeyCtx ctx(pkey ? EVP_PKEY_CTX_new(pkey.get(), nullptr) : nullptr);
  std::size_t written = out.size();
  const bool done = ctx && EVP_PKEY_encrypt_init(ctx.get()) == 1 &&
                    EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) == 1 &&
                    EVP_PKEY_encrypt(ctx.get(), out.data(), &written, em.data(), em.size()) == 1 &&
                    written == out.size();
  Wipe(em);
  return done ? TSS_SUCCESS : KESTTCS_AUTH_E_CRYPTO;
}

}  // namespace kesttcs::client
