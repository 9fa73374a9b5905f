#include <windows.h>
// windows.h first: bcrypt.h relies on its declarations.
#include <bcrypt.h>

#include <array>
#include <cstring>
#include <vector>

#include "client/raw_rsa.h"

namespace kesttcs::client {
namespace {

constexpr std::array<BYTE, 3> kDefaultExponent = {0x01, 0x00, 0x01};  // 65537

// The key as bcrypt imports a public RSA key: the header, then exponent and modulus, big-endian.
std::vector<BYTE> PublicBlob(const RsaPublicKey& key) {
  const std::span<const BYTE> exponent =
      key.exponent.empty() ? std::span<const BYTE>(kDefaultExponent) : key.exponent;
  BCRYPT_RSAKEY_BLOB header{};
  header.Magic = BCRYPT_RSAPUBLIC_MAGIC;
  header.BitLength = static_cast<ULONG>(key.modulus.size() * 8);
  header.cbPublicExp = static_cast<ULONG>(exponent.size());
  header.cbModulus = static_cast<ULONG>(key.modulus.size());
  std::vector<BYTE> blob(sizeof(header));
  std::memcpy(blob.data(), &header, sizeof(header));
  blob.insert(blob.end(), exponent.begin(), exponent.end());
  blob.insert(blob.end(), key.modulus.begin(), key.modulus.end());
  return blob;
}

}  // namespace

bool RawRsaPublic(const RsaPublicKey& key, std::span<const BYTE> block, std::span<BYTE> out) {
  BCRYPT_ALG_HANDLE algorithm = nullptr;
  if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RSA_ALGORITHM, nullptr, 0))) {
    return false;
  }
  std::vector<BYTE> blob = PublicBlob(key);
  BCRYPT_KEY_HANDLE handle = nullptr;
  ULONG written = 0;
  const bool ok =
      BCRYPT_SUCCESS(BCryptImportKeyPair(algorithm, nullptr, BCRYPT_RSAPUBLIC_BLOB, &handle,
                                         blob.data(), static_cast<ULONG>(blob.size()), 0)) &&
      BCRYPT_SUCCESS(BCryptEncrypt(
          handle, const_cast<BYTE*>(block.data()), static_cast<ULONG>(block.size()), nullptr,
          nullptr, 0, out.data(), static_cast<ULONG>(out.size()), &written, BCRYPT_PAD_NONE)) &&
      written == out.size();
  if (handle != nullptr) BCryptDestroyKey(handle);
  BCryptCloseAlgorithmProvider(algorithm, 0);
  return ok;
}

}  // namespace kesttcs::client
