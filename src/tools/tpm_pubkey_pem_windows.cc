// The PEM text through crypt32: the RSA key as a SubjectPublicKeyInfo, base64 between the PEM
// lines OpenSSL writes.
#include <windows.h>
// windows.h first: wincrypt.h relies on its declarations.
#include <wincrypt.h>

#include <algorithm>
#include <vector>

#include "tools/tpm_pubkey_fields.h"
#include "tools/tpm_pubkey_pem.h"

namespace kesttcs::cli {
namespace {

constexpr DWORD kDefaultExponent = 65537;

// What crypt32 encodes `structType` from, DER.
std::optional<std::vector<BYTE>> Encode(LPCSTR structType, const void* value) {
  DWORD size = 0;
  if (!CryptEncodeObjectEx(X509_ASN_ENCODING, structType, value, 0, nullptr, nullptr, &size)) {
    return std::nullopt;
  }
  std::vector<BYTE> der(size);
  if (!CryptEncodeObjectEx(X509_ASN_ENCODING, structType, value, 0, nullptr, der.data(), &size)) {
    return std::nullopt;
  }
  der.resize(size);
  return der;
}

}  // namespace

std::optional<std::string> PubKeyPem(std::span<const BYTE> tpmPubKey) {
  const std::optional<RsaPublicFields> rsa = ParseRsaPubKey(tpmPubKey);
  if (!rsa || rsa->exponent.size() > sizeof(DWORD)) return std::nullopt;
  DWORD exponent = rsa->exponent.empty() ? kDefaultExponent : 0;
  for (BYTE b : rsa->exponent) exponent = exponent << 8 | b;
  // The key as CryptoAPI holds it: its header, then the modulus little-endian.
  std::vector<BYTE> blob(sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY));
  auto* header = reinterpret_cast<PUBLICKEYSTRUC*>(blob.data());
  header->bType = PUBLICKEYBLOB;
  header->bVersion = CUR_BLOB_VERSION;
  header->aiKeyAlg = CALG_RSA_KEYX;
  auto* rsaKey = reinterpret_cast<RSAPUBKEY*>(blob.data() + sizeof(PUBLICKEYSTRUC));
  rsaKey->magic = 0x31415352;  // "RSA1": a public key
  rsaKey->bitlen = static_cast<DWORD>(rsa->modulus.size() * 8);
  rsaKey->pubexp = exponent;
  blob.insert(blob.end(), rsa->modulus.rbegin(), rsa->modulus.rend());
  std::optional<std::vector<BYTE>> rsaDer = Encode(RSA_CSP_PUBLICKEYBLOB, blob.data());
  if (!rsaDer) return std::nullopt;

  static const BYTE kNullParameters[] = {0x05, 0x00};
  CERT_PUBLIC_KEY_INFO info{};
  info.Algorithm.pszObjId = const_cast<LPSTR>(szOID_RSA_RSA);
  info.Algorithm.Parameters.cbData = sizeof(kNullParameters);
  info.Algorithm.Parameters.pbData = const_cast<BYTE*>(kNullParameters);
  info.PublicKey.cbData = static_cast<DWORD>(rsaDer->size());
  info.PublicKey.pbData = rsaDer->data();
  std::optional<std::vector<BYTE>> der = Encode(X509_PUBLIC_KEY_INFO, &info);
  if (!der) return std::nullopt;

  const DWORD flags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCR;
  DWORD size = 0;
  if (!CryptBinaryToStringA(der->data(), static_cast<DWORD>(der->size()), flags, nullptr, &size)) {
    return std::nullopt;
  }
  std::string base64(size, '\0');
  if (!CryptBinaryToStringA(der->data(), static_cast<DWORD>(der->size()), flags, base64.data(),
                            &size)) {
    return std::nullopt;
  }
  base64.resize(size);
  return "-----BEGIN PUBLIC KEY-----\n" + base64 + "-----END PUBLIC KEY-----\n";
}

}  // namespace kesttcs::cli
