#include "client/auth_crypto.h"
#include "client/openssl_freer.h"

#include <memory>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace kesttcs::client {
bool Sha1(std::initializer_list<Bytes> parts, Digest out) {
  std::unique_ptr<EVP_MD_CTX, Freer<EVP_MD_CTX_free>> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha1(), nullptr) != 1) return false;
  for (Bytes part : parts) {
    if (!part.empty() && EVP_DigestUpdate(ctx.get(), part.data(), part.size()) != 1) return false;
  }
  unsigned int size = 0;
  return EVP_DigestFinal_ex(ctx.get(), out.data(), &size) == 1 && size == kDigestSize;
}

bool HmacSha1(Bytes key, std::initializer_list<Bytes> parts, Digest out) {
  std::unique_ptr<EVP_MAC, Freer<EVP_MAC_free>> mac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
  if (!mac) return false;
  std::unique_ptr<EVP_MAC_CTX, Freer<EVP_MAC_CTX_free>> ctx(EVP_MAC_CTX_new(mac.get()));
  char digestName[] = "SHA1";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string("digest", digestName, 0),
      OSSL_PARAM_construct_end(),
  };
  // An empty key is still a key (HMAC pads it to a block of zeros); libcrypto wants a pointer.
  static const BYTE kNoKey = 0;
  if (!ctx ||
      EVP_MAC_init(ctx.get(), key.empty() ? &kNoKey : key.data(), key.size(), params) != 1) {
    return false;
  }
  for (Bytes part : parts) {
    if (!part.empty() && EVP_MAC_update(ctx.get(), part.data(), part.size()) != 1) return false;
  }
  size_t size = 0;
  return EVP_MAC_final(ctx.get(), out.data(), &size, out.size()) == 1 && size == kDigestSize;
}

bool RandomBytes(std::span<BYTE> out) {
  return RAND_bytes(out.data(), static_cast<int>(out.size())) == 1;
}

bool SameBytes(Bytes a, Bytes b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

void Wipe(std::span<BYTE> bytes) { OPENSSL_cleanse(bytes.data(), bytes.size()); }

}  // namespace kesttcs::client
