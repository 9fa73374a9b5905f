#include <windows.h>
// windows.h first: bcrypt.h relies on its declarations.
#include <bcrypt.h>

#include "client/auth_crypto.h"

namespace kesttcs::client {
namespace {

// SHA-1, keyed (HMAC) when `key` is given, of the concatenation of `parts`.
bool Sha1Of(const Bytes* key, std::initializer_list<Bytes> parts, Digest out) {
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  if (!BCRYPT_SUCCESS(
          BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, nullptr,
                                      key != nullptr ? BCRYPT_ALG_HANDLE_HMAC_FLAG : 0))) {
    return false;
  }
  // HMAC pads its key with zeros to a block: one zero byte is the empty key, and bcrypt wants one.
  static const BYTE kNoKey = 0;
  const BYTE* secret = key == nullptr ? nullptr : key->empty() ? &kNoKey : key->data();
  const ULONG secretSize = key == nullptr ? 0 : key->empty() ? 1 : static_cast<ULONG>(key->size());
  BCRYPT_HASH_HANDLE hash = nullptr;
  bool ok = BCRYPT_SUCCESS(
      BCryptCreateHash(algorithm, &hash, nullptr, 0, const_cast<BYTE*>(secret), secretSize, 0));
  for (Bytes part : parts) {
    ok = ok && (part.empty() || BCRYPT_SUCCESS(BCryptHashData(hash, const_cast<BYTE*>(part.data()),
                                                              static_cast<ULONG>(part.size()), 0)));
  }
  ok = ok && BCRYPT_SUCCESS(BCryptFinishHash(hash, out.data(), static_cast<ULONG>(out.size()), 0));
  if (hash != nullptr) BCryptDestroyHash(hash);
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return ok;
}

}  // namespace

bool Sha1(std::initializer_list<Bytes> parts, Digest out) { return Sha1Of(nullptr, parts, out); }

bool HmacSha1(Bytes key, std::initializer_list<Bytes> parts, Digest out) {
  return Sha1Of(&key, parts, out);
}

bool RandomBytes(std::span<BYTE> out) {
  return BCRYPT_SUCCESS(BCryptGenRandom(nullptr, out.data(), static_cast<ULONG>(out.size()),
                                        BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

bool SameBytes(Bytes a, Bytes b) {
  if (a.size() != b.size()) return false;
  BYTE difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= a[i] ^ b[i];
  return difference == 0;
}

void Wipe(std::span<BYTE> bytes) { SecureZeroMemory(bytes.data(), bytes.size()); }

}  // namespace kesttcs::client
