// kesttcs-cli's TPM_PUBKEY to PEM: an RSA public part becomes a PEM key that OpenSSL reads back
// with the same modulus and exponent (65537 when the TPM gives none); bytes that are short, too
// long or no RSA key give nothing.
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/tpm_pubkey_pem.h"

namespace kesttcs::cli {
namespace {

using Bytes = std::vector<BYTE>;

void Put32(Bytes& b, UINT32 v) {
  for (int shift = 24; shift >= 0; shift -= 8) b.push_back(BYTE(v >> shift));
}

// An RSA TPM_PUBKEY: PKCS#1 SHA-1 signing, `exponent` (may be empty), a modulus of `bytes` bytes
// with its top bit set.
Bytes PubKey(const Bytes& exponent, size_t bytes) {
  Bytes b;
  Put32(b, 1);                      // TPM_ALG_RSA
  b.insert(b.end(), {0, 1, 0, 2});  // no encryption, PKCS#1 v1.5 SHA-1
  Put32(b, UINT32(12 + exponent.size()));
  Put32(b, UINT32(bytes * 8));
  Put32(b, 2);
  Put32(b, UINT32(exponent.size()));
  b.insert(b.end(), exponent.begin(), exponent.end());
  Put32(b, UINT32(bytes));
  for (size_t i = 0; i < bytes; ++i) b.push_back(BYTE(0x80 | (i * 7 + 1)));
  return b;
}

// The modulus and exponent OpenSSL reads from `pem`, as hex.
std::optional<std::pair<std::string, std::string>> ReadBack(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), int(pem.size())),
                                                BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  if (!key) return std::nullopt;
  BIGNUM *n = nullptr, *e = nullptr;
  if (EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &n) != 1 ||
      EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_E, &e) != 1) {
    BN_free(n);
    return std::nullopt;
  }
  char* nHex = BN_bn2hex(n);
  char* eHex = BN_bn2hex(e);
  std::pair<std::string, std::string> out(nHex, eHex);
  OPENSSL_free(nHex);
  OPENSSL_free(eHex);
  BN_free(n);
  BN_free(e);
  return out;
}

TEST(PubKeyPemTest, AnRsaPublicPartReadsBackAndMalformedBytesGiveNothing) {
  const Bytes withExponent = PubKey({0x01, 0x00, 0x01}, 64);
  const std::optional<std::string> pem = PubKeyPem(withExponent);
  ASSERT_TRUE(pem);
  EXPECT_EQ(pem->rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0u);
  const auto key = ReadBack(*pem);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->first.size(), 128u);
  EXPECT_EQ(key->first.substr(0, 4), "8188");
  EXPECT_EQ(key->second, "010001");

  // No exponent: the TPM's default.
  const std::optional<std::string> defaulted = PubKeyPem(PubKey({}, 64));
  ASSERT_TRUE(defaulted);
  EXPECT_EQ(ReadBack(*defaulted)->second, "010001");

  // Every truncation, a byte too many, another algorithm, no modulus.
  for (size_t size = 0; size < withExponent.size(); ++size) {
    EXPECT_FALSE(PubKeyPem(Bytes(withExponent.begin(), withExponent.begin() + long(size)))) << size;
  }
  Bytes longer = withExponent;
  longer.push_back(0);
  EXPECT_FALSE(PubKeyPem(longer));
  Bytes otherAlgorithm = withExponent;
  otherAlgorithm[3] = 2;
  EXPECT_FALSE(PubKeyPem(otherAlgorithm));
  EXPECT_FALSE(PubKeyPem(PubKey({1, 0, 1}, 0)));
}

}  // namespace
}  // namespace kesttcs::cli
