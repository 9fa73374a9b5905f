// The authorisation helper's computations against values made outside it (Python's hmac and
// hashlib, the PKCS #1 v2.1 test vectors, OpenSSL's own OAEP decryption), and its answers to bad
// input.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "client/openssl_freer.h"
#include "client/rsa_oaep.h"
#include "client/tpm_pubkey.h"
#include "hex_bytes.h"

namespace kesttcs {
namespace {

using dcerpc::Hex;

template <typename T>
T Fill(BYTE first) {
  T value;
  BYTE* bytes = reinterpret_cast<BYTE*>(&value);
  for (size_t i = 0; i < sizeof value; ++i) bytes[i] = static_cast<BYTE>(first + i);
  return value;
}

template <typename T>
std::vector<BYTE> BytesOf(const T& value) {
  const BYTE* p = reinterpret_cast<const BYTE*>(&value);
  return std::vector<BYTE>(p, p + sizeof value);
}

const TPM_SECRET kKey = Fill<TPM_SECRET>(0x01);
const TPM_NONCE kNonceEven = Fill<TPM_NONCE>(0xA0);
const TPM_NONCE kNonceOdd = Fill<TPM_NONCE>(0x50);
const TPM_NONCE kNonceEvenOsap = Fill<TPM_NONCE>(0x10);
const TPM_NONCE kNonceOddOsap = Fill<TPM_NONCE>(0x70);
constexpr TCS_AUTHHANDLE kHandle = 0x02000001;

// An OIAP session on kKey whose next command uses kNonceOdd.
KESTTCS_AUTH_SESSION OiapWithFixedNonces() {
  KESTTCS_AUTH_SESSION s;
  EXPECT_EQ(KestAuth_BeginOIAP(&s, kHandle, &kNonceEven, &kKey), TSS_SUCCESS);
  s.nonceOdd = kNonceOdd;
  s.nonceOddFresh = 1;
  return s;
}

// An OSAP session on the secret of "owner pass", with the OSAP nonces above.
KESTTCS_AUTH_SESSION OsapWithFixedNonces() {
  TPM_SECRET owner;
  EXPECT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>("owner pass"), 10, &owner),
            TSS_SUCCESS);
  KESTTCS_AUTH_SESSION s;
  EXPECT_EQ(KestAuth_BeginOSAP(&s, kHandle, &kNonceEven, &kNonceEvenOsap, &kNonceOddOsap, &owner),
            TSS_SUCCESS);
  s.nonceOdd = kNonceOdd;
  s.nonceOddFresh = 1;
  return s;
}

// TPM_ChangeAuthOwner's digest parameters: protocolID 4, newAuth 0x33 * 20, entityType owner.
std::vector<BYTE> ChangeAuthOwnerParams() {
  std::vector<BYTE> params = {0x00, 0x04};
  params.insert(params.end(), 20, 0x33);
  params.insert(params.end(), {0x00, 0x02});
  return params;
}

TEST(AuthHelperTest, CommandAndResponseHmacsMatchIndependentValues) {
  KESTTCS_AUTH_SESSION s = OiapWithFixedNonces();
  const std::vector<BYTE> in = ChangeAuthOwnerParams();
  TPM_AUTH auth;
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_ChangeAuthOwner, in.data(), in.size(), 1, &auth),
            TSS_SUCCESS);
  // python3: hmac.new(bytes(range(1,21)), sha1(bytes.fromhex('00000010') + params).digest()
  //   + bytes(range(0xA0,0xB4)) + bytes(range(0x50,0x64)) + b'\x01', sha1).digest()
  EXPECT_EQ(BytesOf(auth.HMAC), Hex("59 6b 6f d3 2f e9 2b 70 dc 64 98 09 ac a7 cb c5 18 e7 1f b4"));
  EXPECT_EQ(auth.AuthHandle, kHandle);
  EXPECT_EQ(BytesOf(auth.NonceOdd), BytesOf(kNonceOdd));
  EXPECT_EQ(BytesOf(auth.NonceEven), BytesOf(kNonceEven));
  EXPECT_EQ(auth.fContinueAuthSession, 1);

  // The answer of TPM_GetCapabilityOwner (version 1.2, flags 0x11 and 0x22) sent without
  // continue. python3: hmac.new(key, sha1(bytes.fromhex('00000000' '00000066') + out).digest()
  //   + bytes(range(0xC0,0xD4)) + bytes(range(0x50,0x64)) + b'\x00', sha1).digest()
  const std::vector<BYTE> out = Hex("01 02 00 00 00 00 00 11 00 00 00 22");
  TPM_AUTH answer = auth;
  answer.NonceEven = Fill<TPM_NONCE>(0xC0);
  answer.fContinueAuthSession = 0;
  const std::vector<BYTE> resAuth =
      Hex("85 0f c8 3c 63 b6 35 42 8d 1d 05 f8 9d d5 aa 36 71 c8 17 df");
  std::memcpy(&answer.HMAC, resAuth.data(), resAuth.size());

  // A wrong output byte, a wrong HMAC bit, a forged continue flag: each refused, the session kept.
  std::vector<BYTE> changed = out;
  changed[11] ^= 1;
  EXPECT_EQ(
      KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, changed.data(), changed.size(), &answer),
      KESTTCS_AUTH_E_VERIFY);
  TPM_AUTH flipped = answer;
  flipped.HMAC.authdata[19] ^= 0x80;
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out.data(), out.size(), &flipped),
            KESTTCS_AUTH_E_VERIFY);
  TPM_AUTH continued = answer;
  continued.fContinueAuthSession = 1;
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out.data(), out.size(), &continued),
            KESTTCS_AUTH_E_VERIFY);
  EXPECT_EQ(BytesOf(s.nonceEven), BytesOf(kNonceEven));

  // The record's NonceOdd is not what counts: the session's own is.
  TPM_AUTH otherOdd = answer;
  otherOdd.NonceOdd = Fill<TPM_NONCE>(0xE0);
  ASSERT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out.data(), out.size(), &otherOdd),
            TSS_SUCCESS);
  EXPECT_EQ(BytesOf(s.nonceEven), BytesOf(answer.NonceEven));
  EXPECT_FALSE(s.open);
  // Verified once: nothing awaits an answer any more, and nothing more can be authorised.
  EXPECT_EQ(KestAuth_Verify(&s, TPM_ORD_GetCapabilityOwner, out.data(), out.size(), &answer),
            KESTTCS_AUTH_E_CLOSED);
  EXPECT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, nullptr, 0, 0, &auth),
            KESTTCS_AUTH_E_CLOSED);
}

TEST(AuthHelperTest, ContinuedSessionsRollTheirNoncesAndUseFreshOddOnes) {
  KESTTCS_AUTH_SESSION s = OiapWithFixedNonces();
  TPM_AUTH first;
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, nullptr, 0, 1, &first), TSS_SUCCESS);
  EXPECT_FALSE(s.nonceOddFresh);
  // Sent without an answer verified: a second command is still allowed (the caller may drop an
  // answer), and gets a new random nonceOdd.
  TPM_AUTH second;
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_GetCapabilityOwner, nullptr, 0, 1, &second),
            TSS_SUCCESS);
  EXPECT_NE(BytesOf(second.NonceOdd), BytesOf(first.NonceOdd));
  EXPECT_NE(BytesOf(second.HMAC), BytesOf(first.HMAC));
  EXPECT_TRUE(s.open);
  EXPECT_TRUE(s.pending);
}

TEST(AuthHelperTest, SecretsSharedSecretAndEncAuthMatchIndependentValues) {
  TPM_SECRET owner;
  ASSERT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>("owner pass"), 10, &owner),
            TSS_SUCCESS);
  // python3: hashlib.sha1(b'owner pass').digest()
  EXPECT_EQ(BytesOf(owner), Hex("0a cd 68 8b db ec b2 8d 5d b2 d9 96 39 07 45 f8 1d 09 a8 6c"));
  TPM_SECRET wellKnown;
  KestAuth_WellKnownSecret(&wellKnown);
  EXPECT_EQ(BytesOf(wellKnown), std::vector<BYTE>(20, 0));

  // python3: hmac.new(sha1(b'owner pass').digest(),
  //   bytes(range(0x10,0x24)) + bytes(range(0x70,0x84)), sha1).digest()
  const std::vector<BYTE> shared =
      Hex("03 7d c4 e4 2e e7 17 d0 24 81 49 09 f3 36 a1 a0 43 3e 4a 88");
  KESTTCS_AUTH_SESSION s = OsapWithFixedNonces();
  EXPECT_EQ(s.kind, KESTTCS_AUTH_OSAP);
  EXPECT_EQ(BytesOf(s.key), shared);
  KESTTCS_AUTH_SESSION dsap;
  ASSERT_EQ(
      KestAuth_BeginDSAP(&dsap, kHandle, &kNonceEven, &kNonceEvenOsap, &kNonceOddOsap, &owner),
      TSS_SUCCESS);
  EXPECT_EQ(dsap.kind, KESTTCS_AUTH_DSAP);
  EXPECT_EQ(BytesOf(dsap.key), shared);
  // Begun again from its own fields: the values are read before the session is reset.
  KESTTCS_AUTH_SESSION again = OiapWithFixedNonces();
  ASSERT_EQ(KestAuth_BeginOIAP(&again, kHandle, &again.nonceEven, &again.key), TSS_SUCCESS);
  EXPECT_EQ(BytesOf(again.key), BytesOf(kKey));
  EXPECT_EQ(BytesOf(again.nonceEven), BytesOf(kNonceEven));

  // python3: bytes(a ^ b for a, b in zip(b'\x5a' * 20, sha1(shared + nonce).digest())), nonce
  // bytes(range(0xA0,0xB4)) for the even one and bytes(range(0x50,0x64)) for the odd one.
  TPM_SECRET newSecret;
  std::memset(&newSecret, 0x5a, sizeof newSecret);
  TPM_ENCAUTH even;
  TPM_ENCAUTH odd;
  ASSERT_EQ(KestAuth_EncAuth(&s, &newSecret, KESTTCS_ADIP_EVEN, &even), TSS_SUCCESS);
  ASSERT_EQ(KestAuth_EncAuth(&s, &newSecret, KESTTCS_ADIP_ODD, &odd), TSS_SUCCESS);
  EXPECT_EQ(BytesOf(even), Hex("a3 ad 05 6d 73 ec 05 0b 34 4b 66 12 73 1d f7 24 3e 79 f5 cf"));
  EXPECT_EQ(BytesOf(odd), Hex("50 d0 f7 42 05 45 72 12 0e 3b d8 e4 6e ed 6d a5 74 f5 38 02"));

  // The odd pad needs the command's own nonceOdd: once used, it is refused until a new one.
  TPM_AUTH auth;
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_ChangeAuthOwner, nullptr, 0, 1, &auth), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_EncAuth(&s, &newSecret, KESTTCS_ADIP_ODD, &odd), TCS_E_BAD_PARAMETER);
  ASSERT_EQ(KestAuth_NewNonceOdd(&s), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_EncAuth(&s, &newSecret, KESTTCS_ADIP_ODD, &odd), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_EncAuth(&s, &newSecret, 2, &odd), TCS_E_BAD_PARAMETER);
  // OIAP sessions have no shared secret to encrypt with.
  KESTTCS_AUTH_SESSION oiap = OiapWithFixedNonces();
  EXPECT_EQ(KestAuth_EncAuth(&oiap, &newSecret, KESTTCS_ADIP_EVEN, &even), TCS_E_BAD_PARAMETER);
}

// PKCS #1 v2.1 test vectors (oaep-vect.txt), RSAES-OAEP Encryption Example 1.1: 1024-bit key,
// e = 65537, empty label.
const char kVectorModulus[] =
    "a8 b3 b2 84 af 8e b5 0b 38 70 34 a8 60 f1 46 c4 91 9f 31 87 63 cd 6c 55 98 c8 ae 48 11 a1 e0 "
    "ab "
    "c4 c7 e0 b0 82 d6 93 a5 e7 fc ed 67 5c f4 66 85 12 77 2c 0c bc 64 a7 42 c6 c6 30 f5 33 c8 cc "
    "72 "
    "f6 2a e8 33 c4 0b f2 58 42 e9 84 bb 78 bd bf 97 c0 10 7d 55 bd b6 62 f5 c4 e0 fa b9 84 5c b5 "
    "14 "
    "8e f7 39 2d d3 aa ff 93 ae 1e 6b 66 7b b3 d4 24 76 16 d4 f5 ba 10 d4 cf d2 26 de 88 d3 9f 16 "
    "fb";
const char kVectorMessage[] =
    "66 28 19 4e 12 07 3d b0 3b a9 4c da 9e f9 53 23 97 d5 0d ba 79 b9 87 00 4a fe fe 34";
const char kVectorSeed[] = "18 b7 76 ea 21 06 9d 69 77 6a 33 e9 6b ad 48 e1 dd a0 a5 ef";
const char kVectorCiphertext[] =
    "35 4f e6 7b 4a 12 6d 5d 35 fe 36 c7 77 79 1a 3f 7b a1 3d ef 48 4e 2d 39 08 af f7 22 fa d4 68 "
    "fb "
    "21 69 6d e9 5d 0b e9 11 c2 d3 17 4f 8a fc c2 01 03 5f 7b 6d 8e 69 40 2d e5 45 16 18 c2 1a 53 "
    "5f "
    "a9 d7 bf c5 b8 dd 9f c2 43 f8 cf 92 7d b3 13 22 d6 e8 81 ea a9 1a 99 61 70 e6 57 a0 5a 26 64 "
    "26 "
    "d9 8c 88 00 3f 84 77 c1 22 70 94 a0 d9 fa 1e 8c 40 24 30 9c e1 ec cc b5 21 00 35 d4 7a c7 2e "
    "8a";

TEST(AuthHelperTest, SeededOaepEncryptionMatchesThePublishedVector) {
  const std::vector<BYTE> modulus = Hex(kVectorModulus);
  const std::vector<BYTE> seedBytes = Hex(kVectorSeed);
  ASSERT_EQ(seedBytes.size(), 20u);
  std::array<BYTE, 20> seed;
  std::copy(seedBytes.begin(), seedBytes.end(), seed.begin());
  const std::vector<BYTE> exponent = Hex("01 00 01");
  std::vector<BYTE> out(modulus.size());
  // The default exponent (none given) and the same one spelt out encrypt alike.
  for (const std::vector<BYTE>& e : {std::vector<BYTE>{}, exponent}) {
    const client::RsaPublicKey key{modulus, e};
    ASSERT_EQ(client::RsaOaepEncrypt(key, Hex(kVectorMessage), {}, seed, out), TSS_SUCCESS);
    EXPECT_EQ(out, Hex(kVectorCiphertext));
  }
  const client::RsaPublicKey key{modulus, {}};
  // Room for the modulus exactly, and a message that leaves room for the padding.
  std::vector<BYTE> shortOut(modulus.size() - 1);
  EXPECT_EQ(client::RsaOaepEncrypt(key, Hex(kVectorMessage), {}, seed, shortOut),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(client::RsaOaepEncrypt(key, std::vector<BYTE>(modulus.size() - 41), {}, seed, out),
            TCS_E_BAD_PARAMETER);
  EXPECT_EQ(client::RsaOaepEncrypt(key, std::vector<BYTE>(modulus.size() - 42), {}, seed, out),
            TSS_SUCCESS);
}

using UniquePkey = std::unique_ptr<EVP_PKEY, client::Freer<EVP_PKEY_free>>;
using UniquePkeyCtx = std::unique_ptr<EVP_PKEY_CTX, client::Freer<EVP_PKEY_CTX_free>>;

UniquePkey MakeRsaKey(unsigned bits) { return UniquePkey(EVP_RSA_gen(bits)); }

std::vector<BYTE> BigEndianOf(const EVP_PKEY* key, const char* name) {
  BIGNUM* bn = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &bn), 1);
  std::vector<BYTE> bytes(BN_num_bytes(bn));
  BN_bn2bin(bn, bytes.data());
  BN_free(bn);
  return bytes;
}

void PutUint32(std::vector<BYTE>& blob, UINT32 v) {
  blob.insert(blob.end(), 4, 0);
  KestAuth_PutUINT32(blob.data() + blob.size() - 4, v);
}

// A TPM_PUBKEY of an OAEP key with modulus `n` and exponent `e` (empty: the default).
std::vector<BYTE> TpmPubKey(const std::vector<BYTE>& n, const std::vector<BYTE>& e) {
  std::vector<BYTE> blob;
  PutUint32(blob, 1);                                 // TPM_ALG_RSA
  blob.insert(blob.end(), {0x00, 0x03, 0x00, 0x01});  // OAEP SHA-1 MGF1; no signature scheme
  PutUint32(blob, 12 + e.size());
  PutUint32(blob, 8 * n.size());
  PutUint32(blob, 2);
  PutUint32(blob, e.size());
  blob.insert(blob.end(), e.begin(), e.end());
  PutUint32(blob, n.size());
  blob.insert(blob.end(), n.begin(), n.end());
  return blob;
}

// The TPM_PUBKEY of `key`, with the exponent spelt out or left to the default.
std::vector<BYTE> TpmPubKeyOf(const EVP_PKEY* key, bool spellExponent) {
  return TpmPubKey(BigEndianOf(key, "n"),
                   spellExponent ? BigEndianOf(key, "e") : std::vector<BYTE>{});
}

// OpenSSL's own RSA-OAEP (SHA-1, MGF1) decryption with the label "TCPA".
std::vector<BYTE> DecryptTcpa(EVP_PKEY* key, const std::vector<BYTE>& cipher) {
  UniquePkeyCtx ctx(EVP_PKEY_CTX_new(key, nullptr));
  EXPECT_EQ(EVP_PKEY_decrypt_init(ctx.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_oaep_md(ctx.get(), EVP_sha1()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), EVP_sha1()), 1);
  // The context takes ownership of the label.
  BYTE* label = static_cast<BYTE*>(OPENSSL_memdup("TCPA", 4));
  EXPECT_EQ(EVP_PKEY_CTX_set0_rsa_oaep_label(ctx.get(), label, 4), 1);
  std::vector<BYTE> plain(cipher.size());
  size_t size = plain.size();
  if (EVP_PKEY_decrypt(ctx.get(), plain.data(), &size, cipher.data(), cipher.size()) != 1) {
    return {};
  }
  plain.resize(size);
  return plain;
}

TEST(AuthHelperTest, OwnershipSecretsDecryptWithThePrivateKeyAndTheTcpaLabel) {
  UniquePkey key = MakeRsaKey(2048);
  ASSERT_TRUE(key);
  TPM_SECRET secret;
  ASSERT_EQ(KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>("srk"), 3, &secret),
            TSS_SUCCESS);
  for (bool spellExponent : {false, true}) {
    const std::vector<BYTE> pub = TpmPubKeyOf(key.get(), spellExponent);
    // Asked with no room first: the size comes back.
    UINT32 size = 0;
    ASSERT_EQ(KestAuth_EncryptForOwnership(pub.data(), pub.size(), &secret, nullptr, &size),
              KESTTCS_AUTH_E_SMALL_BUFFER);
    ASSERT_EQ(size, 256u);
    std::vector<BYTE> cipher(300);
    size = cipher.size();
    ASSERT_EQ(KestAuth_EncryptForOwnership(pub.data(), pub.size(), &secret, cipher.data(), &size),
              TSS_SUCCESS);
    ASSERT_EQ(size, 256u);
    cipher.resize(size);
    EXPECT_EQ(DecryptTcpa(key.get(), cipher), BytesOf(secret));
    // A fresh seed each time: the same secret never encrypts the same way twice.
    std::vector<BYTE> again(256);
    ASSERT_EQ(KestAuth_EncryptForOwnership(pub.data(), pub.size(), &secret, again.data(), &size),
              TSS_SUCCESS);
    EXPECT_NE(again, cipher);
  }
}

TEST(AuthHelperTest, MalformedEndorsementKeysAreRefused) {
  UniquePkey key = MakeRsaKey(1024);
  ASSERT_TRUE(key);
  const std::vector<BYTE> good = TpmPubKeyOf(key.get(), true);  // exponent 01 00 01 at 24..26
  TPM_SECRET secret;
  KestAuth_WellKnownSecret(&secret);
  std::vector<BYTE> out(512);
  auto encrypt = [&](const std::vector<BYTE>& pub) {
    UINT32 size = out.size();
    return KestAuth_EncryptForOwnership(pub.data(), pub.size(), &secret, out.data(), &size);
  };
  ASSERT_EQ(encrypt(good), TSS_SUCCESS);

  // Each entry changes one thing about the good key; every one is refused.
  struct Change {
    const char* what;
    size_t offset;
    BYTE value;
  };
  const Change changes[] = {
      {"algorithm not RSA", 3, 0x02},
      {"scheme not OAEP", 5, 0x01},
      {"parmSize short of the exponent", 11, 14},
      {"parmSize past the exponent", 11, 16},
      {"keyLength not the modulus size", 14, 0x08},
      {"three primes", 19, 3},
      {"exponentSize past parmSize", 23, 4},
      {"even exponent", 26, 0x00},
      {"modulus size one short", 30, 0x7f},
      {"modulus size one long", 30, 0x81},
      {"modulus size huge", 27, 0xff},
      {"modulus with a leading zero", 31, 0x00},
  };
  for (const Change& change : changes) {
    std::vector<BYTE> bad = good;
    ASSERT_LT(change.offset, bad.size());
    bad[change.offset] = change.value;
    EXPECT_EQ(encrypt(bad), TCS_E_BAD_PARAMETER) << change.what;
  }
  // Cut anywhere, or with a byte too many.
  for (size_t size = 0; size < good.size(); size += 7) {
    EXPECT_EQ(encrypt(std::vector<BYTE>(good.begin(), good.begin() + size)), TCS_E_BAD_PARAMETER)
        << size;
  }
  std::vector<BYTE> longer = good;
  longer.push_back(0);
  EXPECT_EQ(encrypt(longer), TCS_E_BAD_PARAMETER);
  // An exponent of 1 or longer than 8 bytes; a modulus below 512 or above 4096 bits.
  const std::vector<BYTE> n = BigEndianOf(key.get(), "n");
  EXPECT_EQ(encrypt(TpmPubKey(n, {0x00, 0x01})), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(encrypt(TpmPubKey(n, std::vector<BYTE>(9, 0x01))), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(encrypt(TpmPubKey(std::vector<BYTE>(63, 0xff), {})), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(encrypt(TpmPubKey(std::vector<BYTE>(513, 0xff), {})), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(encrypt(TpmPubKey(std::vector<BYTE>(64, 0xff), {0x03})), TSS_SUCCESS);
}

TEST(AuthHelperTest, NullArgumentsAndClosedSessionsGetTheirCodes) {
  const TPM_NONCE nonce = kNonceEven;
  const TPM_SECRET secret = kKey;
  KESTTCS_AUTH_SESSION s;
  TPM_AUTH auth;
  TPM_ENCAUTH enc;
  BYTE byte = 0;
  EXPECT_EQ(KestAuth_SecretFromPassword(nullptr, 1, &s.key), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_SecretFromPassword(&byte, 1, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_SecretFromPassword(nullptr, 0, &s.key), TSS_SUCCESS);  // the empty pass phrase
  KestAuth_WellKnownSecret(nullptr);
  KestAuth_PutUINT32(nullptr, 1);
  KestAuth_PutUINT16(nullptr, 1);
  EXPECT_EQ(KestAuth_BeginOIAP(nullptr, 1, &nonce, &secret), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_BeginOIAP(&s, 1, nullptr, &secret), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_BeginOIAP(&s, 1, &nonce, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_BeginOSAP(&s, 1, &nonce, &nonce, nullptr, &secret), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_BeginOSAP(&s, 1, &nonce, nullptr, &nonce, &secret), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_BeginDSAP(&s, 1, &nonce, &nonce, &nonce, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_NewNonceOdd(nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Authorize(nullptr, 1, nullptr, 0, 0, &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Verify(nullptr, 1, nullptr, 0, &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_EncAuth(nullptr, &secret, KESTTCS_ADIP_EVEN, &enc), TCS_E_BAD_PARAMETER);

  // A session never begun (all zero) is closed.
  KESTTCS_AUTH_SESSION never;
  std::memset(&never, 0, sizeof never);
  EXPECT_EQ(KestAuth_Authorize(&never, 1, nullptr, 0, 1, &auth), KESTTCS_AUTH_E_CLOSED);
  EXPECT_EQ(KestAuth_Verify(&never, 1, nullptr, 0, &auth), KESTTCS_AUTH_E_CLOSED);
  EXPECT_EQ(KestAuth_NewNonceOdd(&never), KESTTCS_AUTH_E_CLOSED);
  EXPECT_EQ(KestAuth_EncAuth(&never, &secret, KESTTCS_ADIP_EVEN, &enc), KESTTCS_AUTH_E_CLOSED);

  // An open session with bad arguments: parameters claimed but not given, no record to fill.
  s = OiapWithFixedNonces();
  EXPECT_EQ(KestAuth_Authorize(&s, 1, nullptr, 4, 1, &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Authorize(&s, 1, nullptr, 0, 1, nullptr), TCS_E_BAD_PARAMETER);
  ASSERT_EQ(KestAuth_Authorize(&s, 1, nullptr, 0, 1, &auth), TSS_SUCCESS);
  EXPECT_EQ(KestAuth_Verify(&s, 1, nullptr, 4, &auth), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_Verify(&s, 1, nullptr, 0, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_EncAuth(&s, nullptr, KESTTCS_ADIP_EVEN, &enc), TCS_E_BAD_PARAMETER);

  // Ownership encryption: no key, no secret, no size, no room where room is claimed.
  UINT32 size = 16;
  EXPECT_EQ(KestAuth_EncryptForOwnership(nullptr, 0, &secret, &byte, &size), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_EncryptForOwnership(&byte, 1, nullptr, &byte, &size), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_EncryptForOwnership(&byte, 1, &secret, &byte, nullptr), TCS_E_BAD_PARAMETER);
  EXPECT_EQ(KestAuth_EncryptForOwnership(&byte, 1, &secret, nullptr, &size), TCS_E_BAD_PARAMETER);
}

}  // namespace
}  // namespace kesttcs
