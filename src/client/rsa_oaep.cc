#include "client/rsa_oaep.h"

#include <algorithm>
#include <array>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>

#include "client/raw_rsa.h"

namespace kesttcs::client {
namespace {

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

}  // namespace

TSS_RESULT RsaOaepEncrypt(const RsaPublicKey& key, Bytes message, Bytes label,
                          std::span<const BYTE, kDigestSize> seed, std::span<BYTE> out) {
  if (out.size() != key.modulus.size() ||
      key.modulus.size() < message.size() + 2 * kDigestSize + 2) {
    return TCS_E_BAD_PARAMETER;
  }
  std::vector<BYTE> em(out.size());
  const bool encoded = OaepEncode(message, label, seed, em);
  const bool done = encoded && RawRsaPublic(key, em, out);
  Wipe(em);
  return done ? TSS_SUCCESS : KESTTCS_AUTH_E_CRYPTO;
}

}  // namespace kesttcs::client
