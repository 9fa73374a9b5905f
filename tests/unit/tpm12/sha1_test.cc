// SHA-1, HMAC-SHA-1 and MGF1 against the RFC 2202 vectors and against OpenSSL on random inputs.
#include "tpm12/sha1.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rsa.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kesttcs {
namespace {

using Digest = std::array<BYTE, kSha1DigestSize>;
using Bytes = std::vector<BYTE>;

std::string Hex(const BYTE* p, std::size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += kDigits[p[i] >> 4];
    s += kDigits[p[i] & 0xF];
  }
  return s;
}
std::string Hex(const Digest& d) { return Hex(d.data(), d.size()); }

Bytes Text(const std::string& s) { return Bytes(s.begin(), s.end()); }

Digest OurSha1(const Bytes& data) {
  Digest d{};
  EXPECT_EQ(SHA1(d.data(), data.data(), static_cast<UINT32>(data.size())), 0);
  return d;
}

// HMAC_SHA1 refuses null pointers even for empty inputs, and an empty vector's data() may be null.
const BYTE* NonNull(const Bytes& b) {
  static const BYTE kEmpty = 0;
  return b.empty() ? &kEmpty : b.data();
}

Digest OurHmac(const Bytes& key, const Bytes& data) {
  Digest d{};
  EXPECT_EQ(HMAC_SHA1(static_cast<UINT32>(key.size()), NonNull(key),
                      static_cast<UINT32>(data.size()), NonNull(data), d.data()),
            0);
  return d;
}

Bytes OurMgf1(const Bytes& seed, UINT32 outLen) {
  Bytes out(outLen);
  EXPECT_EQ(MGF1_SHA1(out.data(), seed.data(), static_cast<UINT32>(seed.size()), outLen), 0);
  return out;
}

Digest OpenSslSha1(const Bytes& data) {
  Digest d{};
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), d.data(), &len, EVP_sha1(), nullptr), 1);
  return d;
}

Digest OpenSslHmac(const Bytes& key, const Bytes& data) {
  Digest d{};
  unsigned int len = 0;
  EXPECT_NE(HMAC(EVP_sha1(), NonNull(key), static_cast<int>(key.size()), NonNull(data), data.size(),
                 d.data(), &len),
            nullptr);
  return d;
}

Bytes OpenSslMgf1(const Bytes& seed, UINT32 outLen) {
  Bytes out(outLen);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  EXPECT_EQ(PKCS1_MGF1(out.data(), outLen, seed.data(), static_cast<long>(seed.size()), EVP_sha1()),
            0);
#pragma GCC diagnostic pop
  return out;
}

Bytes RandomBytes(std::mt19937& rng, std::size_t n) {
  Bytes b(n);
  for (BYTE& x : b) x = static_cast<BYTE>(rng());
  return b;
}

std::size_t Uniform(std::mt19937& rng, std::size_t lo, std::size_t hi) {
  return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
}

TEST(Sha1Test, KnownDigests) {
  EXPECT_EQ(Hex(OurSha1({})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(Hex(OurSha1(Text("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Hex(OurSha1(Text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"))),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(Hex(OurSha1(Bytes(1000000, 'a'))), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");

  // Fed in odd pieces, the running state gives the same digest as one call.
  Sha1State state;
  SHA1_Init(state);
  const Bytes million(1000000, 'a');
  for (std::size_t done = 0, step = 1; done < million.size();
       done += step, step = step * 3 % 211 + 1) {
    SHA1_Update(state, million.data() + done, std::min(step, million.size() - done));
  }
  Digest d{};
  SHA1_Final(state, d.data());
  EXPECT_EQ(Hex(d), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  // Final leaves the state ready for a new message.
  SHA1_Final(state, d.data());
  EXPECT_EQ(Hex(d), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Sha1Test, Rfc2202HmacCases) {
  Bytes countingKey;
  for (BYTE i = 1; i <= 25; ++i) countingKey.push_back(i);
  struct Case {
    Bytes key, data;
    std::string mac;
  };
  const std::vector<Case> cases = {
      {Bytes(20, 0x0B), Text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
      {Text("Jefe"), Text("what do ya want for nothing?"),
       "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {Bytes(20, 0xAA), Bytes(50, 0xDD), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {countingKey, Bytes(50, 0xCD), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {Bytes(20, 0x0C), Text("Test With Truncation"), "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {Bytes(80, 0xAA), Text("Test Using Larger Than Block-Size Key - Hash Key First"),
       "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {Bytes(80, 0xAA),
       Text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
       "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(Hex(OurHmac(cases[i].key, cases[i].data)), cases[i].mac) << "case " << i + 1;
  }
  EXPECT_EQ(HMAC_SHA1_SelfTest(), 0u);
}

TEST(Sha1Test, KeysOfBlockSizeAreUsedAndLongerKeysHashed) {
  const Bytes data = Text("message");
  const Bytes key64(64, 0x5A);
  const Bytes key65(65, 0x5A);
  const Digest digest64 = OurSha1(key64);
  const Digest digest65 = OurSha1(key65);
  EXPECT_EQ(OurHmac(key65, data), OurHmac(Bytes(digest65.begin(), digest65.end()), data));
  EXPECT_NE(OurHmac(key64, data), OurHmac(Bytes(digest64.begin(), digest64.end()), data));
  EXPECT_EQ(OurHmac(key64, data), OpenSslHmac(key64, data));
  EXPECT_EQ(OurHmac(key65, data), OpenSslHmac(key65, data));
}

TEST(Sha1Test, Mgf1RoundsAndTruncation) {
  const Bytes seed = Text("seed");
  Bytes seed0 = seed, seed1 = seed;
  seed0.insert(seed0.end(), {0, 0, 0, 0});
  seed1.insert(seed1.end(), {0, 0, 0, 1});
  const Digest round0 = OurSha1(seed0);
  const Digest round1 = OurSha1(seed1);

  EXPECT_EQ(OurMgf1(seed, 20), Bytes(round0.begin(), round0.end()));
  Bytes expected21(round0.begin(), round0.end());
  expected21.push_back(round1[0]);
  EXPECT_EQ(OurMgf1(seed, 21), expected21);
  EXPECT_EQ(OurMgf1(seed, 0), Bytes{});
}

TEST(Sha1Test, NullArgumentsAreRefusedWithoutWriting) {
  const BYTE data[1] = {1};
  Digest out;
  out.fill(0xEE);
  EXPECT_EQ(SHA1(nullptr, data, 1), 1);
  EXPECT_EQ(SHA1(out.data(), nullptr, 1), 1);
  EXPECT_EQ(HMAC_SHA1(1, nullptr, 1, data, out.data()), 1);
  EXPECT_EQ(HMAC_SHA1(0, nullptr, 1, data, out.data()), 1);
  EXPECT_EQ(HMAC_SHA1(1, data, 0, nullptr, out.data()), 1);
  EXPECT_EQ(HMAC_SHA1(1, data, 1, data, nullptr), 1);
  EXPECT_EQ(MGF1_SHA1(nullptr, data, 1, 5), 1);
  EXPECT_EQ(MGF1_SHA1(out.data(), nullptr, 1, 5), 1);
  Digest filled;
  filled.fill(0xEE);
  EXPECT_EQ(out, filled);
  // Empty inputs behind null pointers are fine where no bytes are read.
  EXPECT_EQ(SHA1(out.data(), nullptr, 0), 0);
  EXPECT_EQ(Hex(out), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(MGF1_SHA1(nullptr, nullptr, 0, 0), 0);
}

TEST(Sha1Test, EveryLengthAroundTheBlockBoundariesMatchesOpenSsl) {
  std::mt19937 rng(7);
  for (std::size_t n = 0; n <= 200; ++n) {
    const Bytes data = RandomBytes(rng, n);
    EXPECT_EQ(OurSha1(data), OpenSslSha1(data)) << "length " << n;
    EXPECT_EQ(OurHmac(data, data), OpenSslHmac(data, data)) << "length " << n;
    EXPECT_EQ(OurMgf1(data, static_cast<UINT32>(n)), OpenSslMgf1(data, static_cast<UINT32>(n)))
        << "length " << n;
  }
}

TEST(Sha1Test, RandomInputsMatchOpenSsl) {
  std::mt19937 rng(20240601);
  for (int i = 0; i < 1000; ++i) {
    const Bytes data = RandomBytes(rng, Uniform(rng, 0, 10000));
    const Bytes key = RandomBytes(rng, Uniform(rng, 0, 200));
    const auto outLen = static_cast<UINT32>(Uniform(rng, 0, 300));
    ASSERT_EQ(OurSha1(data), OpenSslSha1(data)) << "iteration " << i;
    ASSERT_EQ(OurHmac(key, data), OpenSslHmac(key, data)) << "iteration " << i;
    ASSERT_EQ(OurMgf1(key, outLen), OpenSslMgf1(key, outLen)) << "iteration " << i;
  }
}

}  // namespace
}  // namespace kesttcs
