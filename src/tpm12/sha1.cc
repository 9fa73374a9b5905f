#include "tpm12/sha1.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <vector>

#include "tpm12/blob_cursor.h"

namespace kesttcs {
namespace {

constexpr std::array<UINT32, 5> kInitialChain = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476,
                                                 0xC3D2E1F0};
constexpr std::array<UINT32, 4> kRoundConstants = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
constexpr BYTE kInnerPad = 0x36;
constexpr BYTE kOuterPad = 0x5C;

// One SHA-1 round with round function value `f`; rotates the five working words.
inline void Round(std::array<UINT32, 5>& v, UINT32 f, UINT32 k, UINT32 w) {
  const UINT32 temp = std::rotl(v[0], 5) + f + v[4] + w + k;
  v[4] = v[3];
  v[3] = v[2];
  v[2] = std::rotl(v[1], 30);
  v[1] = v[0];
  v[0] = temp;
}

void ProcessBlock(std::array<UINT32, 5>& chain, const BYTE* block) {
  std::array<UINT32, 80> w;
  for (int t = 0; t < 16; ++t) w[t] = ArrayToUINT32(std::span<const BYTE, 4>(block + 4 * t, 4));
  for (int t = 16; t < 80; ++t) w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);

  // Four loops of twenty rounds, one per round function, so the loops carry no branch.
  std::array<UINT32, 5> v = chain;
  for (int t = 0; t < 20; ++t) {
    Round(v, (v[1] & v[2]) | (~v[1] & v[3]), kRoundConstants[0], w[t]);
  }
  for (int t = 20; t < 40; ++t) Round(v, v[1] ^ v[2] ^ v[3], kRoundConstants[1], w[t]);
  for (int t = 40; t < 60; ++t) {
    Round(v, (v[1] & v[2]) | (v[1] & v[3]) | (v[2] & v[3]), kRoundConstants[2], w[t]);
  }
  for (int t = 60; t < 80; ++t) Round(v, v[1] ^ v[2] ^ v[3], kRoundConstants[3], w[t]);
  for (std::size_t i = 0; i < chain.size(); ++i) chain[i] += v[i];
}

// The 64-byte HMAC key block: the key itself up to 64 bytes, its digest beyond, zero-filled.
std::array<BYTE, kSha1BlockSize> HmacKeyBlock(UINT32 keyLen, const BYTE* key) {
  std::array<BYTE, kSha1BlockSize> block{};
  if (keyLen > kSha1BlockSize) {
    static_cast<void>(SHA1(block.data(), key, keyLen));  // key is not null: cannot fail
  } else {
    std::copy_n(key, keyLen, block.begin());
  }
  return block;
}

// SHA-1 of (key block XOR pad) || first || second.
void HashPadded(const std::array<BYTE, kSha1BlockSize>& keyBlock, BYTE pad, const BYTE* first,
                std::size_t firstLen, BYTE* digest20) {
  std::array<BYTE, kSha1BlockSize> padded;
  std::transform(keyBlock.begin(), keyBlock.end(), padded.begin(),
                 [pad](BYTE b) { return static_cast<BYTE>(b ^ pad); });
  Sha1State state;
  SHA1_Init(state);
  SHA1_Update(state, padded.data(), padded.size());
  SHA1_Update(state, first, firstLen);
  SHA1_Final(state, digest20);
}

struct SelfTestCase {
  std::vector<BYTE> key;
  std::vector<BYTE> data;
  std::string_view expectedHex;
};

std::vector<BYTE> Repeat(BYTE value, std::size_t count) { return std::vector<BYTE>(count, value); }

std::vector<BYTE> Text(std::string_view text) {
  return std::vector<BYTE>(text.begin(), text.end());
}

std::vector<BYTE> CountingKey() {
  std::vector<BYTE> key(25);
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<BYTE>(i + 1);
  return key;
}

bool MatchesHex(const BYTE* mac, std::string_view hex) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (std::size_t i = 0; i < kSha1DigestSize; ++i) {
    if (hex[2 * i] != kDigits[mac[i] >> 4] || hex[2 * i + 1] != kDigits[mac[i] & 0xF]) return false;
  }
  return true;
}

}  // namespace

void SHA1_Init(Sha1State& state) {
  state.chain = kInitialChain;
  state.lengthBits = 0;
  state.blockUsed = 0;
}

void SHA1_Update(Sha1State& state, const BYTE* data, std::size_t len) {
  state.lengthBits += static_cast<UINT64>(len) << 3;
  while (len > 0) {
    if (state.blockUsed == 0 && len >= kSha1BlockSize) {
      ProcessBlock(state.chain, data);
      data += kSha1BlockSize;
      len -= kSha1BlockSize;
      continue;
    }
    const std::size_t take = std::min(len, kSha1BlockSize - state.blockUsed);
    std::memcpy(state.block.data() + state.blockUsed, data, take);
    state.blockUsed += take;
    data += take;
    len -= take;
    if (state.blockUsed == kSha1BlockSize) {
      ProcessBlock(state.chain, state.block.data());
      state.blockUsed = 0;
    }
  }
}

void SHA1_Final(Sha1State& state, BYTE* digest20) {
  const UINT64 lengthBits = state.lengthBits;
  state.block[state.blockUsed++] = 0x80;
  if (state.blockUsed > kSha1BlockSize - 8) {
    std::fill(state.block.begin() + state.blockUsed, state.block.end(), 0);
    ProcessBlock(state.chain, state.block.data());
    state.blockUsed = 0;
  }
  std::fill(state.block.begin() + state.blockUsed, state.block.end() - 8, 0);
  UINT64ToArray(lengthBits, std::span(state.block).last<8>());
  ProcessBlock(state.chain, state.block.data());
  for (std::size_t i = 0; i < state.chain.size(); ++i) {
    UINT32ToArray(state.chain[i], std::span<BYTE, 4>(digest20 + 4 * i, 4));
  }
  SHA1_Init(state);
}

int SHA1(BYTE* digest20, const BYTE* data, UINT32 len) {
  if (digest20 == nullptr || (data == nullptr && len != 0)) return 1;
  Sha1State state;
  SHA1_Init(state);
  SHA1_Update(state, data, len);
  SHA1_Final(state, digest20);
  return 0;
}

int HMAC_SHA1(UINT32 keyLen, const BYTE* key, UINT32 dataLen, const BYTE* data, BYTE* mac20) {
  if (key == nullptr || data == nullptr || mac20 == nullptr) return 1;
  const std::array<BYTE, kSha1BlockSize> keyBlock = HmacKeyBlock(keyLen, key);
  std::array<BYTE, kSha1DigestSize> inner;
  HashPadded(keyBlock, kInnerPad, data, dataLen, inner.data());
  HashPadded(keyBlock, kOuterPad, inner.data(), inner.size(), mac20);
  return 0;
}

int MGF1_SHA1(BYTE* out, const BYTE* seed, UINT32 seedLen, UINT32 outLen) {
  if ((out == nullptr && outLen != 0) || (seed == nullptr && seedLen != 0)) return 1;
  std::array<BYTE, 4> counterBytes;
  std::array<BYTE, kSha1DigestSize> digest;
  for (UINT32 counter = 0, done = 0; done < outLen; ++counter) {
    UINT32ToArray(counter, counterBytes);
    Sha1State state;
    SHA1_Init(state);
    SHA1_Update(state, seed, seedLen);
    SHA1_Update(state, counterBytes.data(), counterBytes.size());
    SHA1_Final(state, digest.data());
    const UINT32 take = std::min<UINT32>(outLen - done, kSha1DigestSize);
    std::copy_n(digest.begin(), take, out + done);
    done += take;
  }
  return 0;
}

UINT32 HMAC_SHA1_SelfTest() {
  const std::array<SelfTestCase, kHmacSha1SelfTestCases> cases = {{
      {Repeat(0x0B, 20), Text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
      {Text("Jefe"), Text("what do ya want for nothing?"),
       "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {Repeat(0xAA, 20), Repeat(0xDD, 50), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {CountingKey(), Repeat(0xCD, 50), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {Repeat(0x0C, 20), Text("Test With Truncation"), "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {Repeat(0xAA, 80), Text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {Repeat(0xAA, 80),
       Text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
       "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
  }};
  UINT32 failed = 0;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const SelfTestCase& c = cases[i];
    std::array<BYTE, kSha1DigestSize> mac{};
    if (HMAC_SHA1(static_cast<UINT32>(c.key.size()), c.key.data(),
                  static_cast<UINT32>(c.data.size()), c.data.data(), mac.data()) != 0 ||
        !MatchesHex(mac.data(), c.expectedHex)) {
      failed |= UINT32{1} << i;
    }
  }
  return failed;
}

}  // namespace kesttcs
