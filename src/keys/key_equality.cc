#include "keys/key_equality.h"

#include <algorithm>

namespace kesttcs {

bool pubKeysEqual(const TPM_STORE_PUBKEY& a, const TPM_STORE_PUBKEY& b) {
  return a.keyLength == b.keyLength && a.key == b.key;
}

bool keysEqual(const TPM_KEY& a, const TPM_KEY& b) {
  if (!pubKeysEqual(a.pubKey, b.pubKey) || a.encSize != b.encSize) return false;
  if (a.encData.empty() || b.encData.empty()) return a.encData.empty() == b.encData.empty();
  return a.encData == b.encData;
}

bool versionsEqual(const TPM_STRUCT_VER& a, const TPM_STRUCT_VER& b) {
  return a.major == b.major && a.minor == b.minor && a.revMajor == b.revMajor &&
         a.revMinor == b.revMinor;
}

bool keyParmsEqual(const TPM_KEY_PARMS& a, const TPM_KEY_PARMS& b) {
  return a.algorithmID == b.algorithmID && a.encScheme == b.encScheme &&
         a.sigScheme == b.sigScheme && a.parmSize == b.parmSize && a.parms == b.parms;
}

bool holdsEncData(const TPM_KEY& key, std::span<const BYTE> encData) {
  if (key.encData.size() < key.encSize || encData.size() < key.encSize) return false;
  return std::equal(key.encData.begin(), key.encData.begin() + key.encSize, encData.begin());
}

}  // namespace kesttcs
