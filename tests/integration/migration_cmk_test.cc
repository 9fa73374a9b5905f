// Migration and certified migration through the real kesttcsd on the embedded libtpms TPM with an
// owner (the well-known owner and SRK secrets), every command authorised with the client's helper
// and every answer's HMAC checked:
//  - a migratable key made under the SRK is authorised for a new parent by the owner, rewrapped
//    for it (TPM_MS_REWRAP) and, in the migrate scheme, converted under it with its random pad;
//    it also goes through a migration authority's key, which re-encrypts it for the new parent
//    (a storage key acting as the authority gets the TPM's refusal back unchanged); every result
//    loads under the new parent with the key's public part unchanged;
//  - certified migration with a migration authority whose key OpenSSL holds: the owner restricts
//    delegated use and approves the authority, a certified migratable key is made for it, a
//    signature of the authority becomes a ticket (a spoiled one is refused), the key's migration
//    blob for the authority is made without tickets, and converting something the TPM did not
//    make gets the TPM's refusal back unchanged.
#include <memory>
#include <optional>
#include <vector>

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "authorised_calls.h"
#include "wrapped_keys.h"

namespace kesttcs::testing {
namespace {

using namespace authorised_calls;  // NOLINT: the test's vocabulary
using wrapped_keys::CreateKey;
using wrapped_keys::KeyInfo;
using wrapped_keys::kSrk;
using wrapped_keys::LayoutOf;
using wrapped_keys::Load;
using wrapped_keys::PubKeyOf;

constexpr UINT16 kMigrate = 1;
constexpr UINT16 kRewrap = 2;
constexpr UINT16 kRestrictMigrate = 4;
constexpr UINT16 kMigrateUsage = 0x0016;
constexpr size_t kKeyFlagsAt = 6;
constexpr BYTE kMigratable = 0x02;
constexpr BYTE kMigrateAuthority = 0x10;
constexpr UINT32 kCmkDelegateSigning = 0x80000000;
// The TPM's refusals, as the service passes them on.
constexpr TSS_RESULT kTpmDecryptError = 0xE0280021;
constexpr TSS_RESULT kTpmInvalidKeyUsage = 0xE0280024;
constexpr TSS_RESULT kTpmBadSignature = 0xE0280062;

// Where a TPM_KEY blob's encrypted part starts (after its size).
Bytes EncDataOf(const Bytes& blob) {
  return Bytes(blob.begin() + std::ptrdiff_t(LayoutOf(blob).pubEnd + 4), blob.end());
}
// The key blob with its encrypted part replaced.
Bytes WithEncData(const Bytes& blob, const Bytes& encData) {
  const Bytes head(blob.begin(), blob.begin() + std::ptrdiff_t(LayoutOf(blob).pubEnd));
  return Cat({head, U32(UINT32(encData.size())), encData});
}

class MigrationCmkTest : public OwnedDaemonTest {
 protected:
  TSS_RESULT AuthorizeMigrationKey(UINT16 scheme, const Bytes& destination, Bytes* keyAuth) {
    return OverOIAP(h_, wellKnown_, TPM_ORD_AuthorizeMigrationKey, Cat({U16(scheme), destination}),
                    [&](TPM_AUTH* a, Bytes* out) {
                      UINT32 size = 0;
                      BYTE* data = nullptr;
                      const TSS_RESULT r = Tcsip_AuthorizeMigrationKey(
                          h_, scheme, UINT32(destination.size()),
                          const_cast<BYTE*>(destination.data()), a, &size, &data);
                      *keyAuth = *out = Take(data, size);
                      return r;
                    });
  }

  // TPM_CreateMigrationBlob of a key wrapped by the SRK: the SRK's session and the key's
  // migration session, both OIAP with the well-known secret, both answers checked.
  TSS_RESULT CreateMigrationBlob(UINT16 scheme, const Bytes& keyAuth, const Bytes& encData,
                                 Bytes* random, Bytes* outData) {
    KESTTCS_AUTH_SESSION parent{}, entity{};
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &wellKnown_, &parent)) return r;
    if (TSS_RESULT r = KestAuth_OpenOIAP(h_, &wellKnown_, &entity)) return r;
    const Bytes in = Cat({U16(scheme), keyAuth, U32(UINT32(encData.size())), encData});
    const TPM_COMMAND_CODE ord = TPM_ORD_CreateMigrationBlob;
    TPM_AUTH parentAuth{}, entityAuth{};
    EXPECT_EQ(KestAuth_Authorize(&parent, ord, in.data(), UINT32(in.size()), 0, &parentAuth), 0u);
    EXPECT_EQ(KestAuth_Authorize(&entity, ord, in.data(), UINT32(in.size()), 0, &entityAuth), 0u);
    UINT32 randomSize = 0, outSize = 0;
    BYTE* randomData = nullptr;
    BYTE* outBytes = nullptr;
    const TSS_RESULT r = Tcsip_CreateMigrationBlob(
        h_, kSrk, scheme, UINT32(keyAuth.size()), const_cast<BYTE*>(keyAuth.data()),
        UINT32(encData.size()), const_cast<BYTE*>(encData.data()), &parentAuth, &entityAuth,
        &randomSize, &randomData, &outSize, &outBytes);
    *random = Take(randomData, randomSize);
    *outData = Take(outBytes, outSize);
    if (r != TSS_SUCCESS) return r;
    const Bytes out = Cat({U32(randomSize), *random, U32(outSize), *outData});
    EXPECT_EQ(KestAuth_Verify(&parent, ord, out.data(), UINT32(out.size()), &parentAuth), 0u);
    EXPECT_EQ(KestAuth_Verify(&entity, ord, out.data(), UINT32(out.size()), &entityAuth), 0u);
    return r;
  }

  TSS_RESULT Convert(TCS_KEY_HANDLE parent, const Bytes& migrated, const Bytes& random,
                     Bytes* encData) {
    UINT32 size = 0;
    BYTE* data = nullptr;
    const TSS_RESULT r = Tcsip_ConvertMigrationBlob(
        h_, parent, UINT32(migrated.size()), const_cast<BYTE*>(migrated.data()),
        UINT32(random.size()), const_cast<BYTE*>(random.data()), nullptr, &size, &data);
    *encData = Take(data, size);
    return r;
  }

  // TPM_MigrateKey: the authority key `authority` (its session OIAP with the well-known secret)
  // re-encrypts `inData` for `destination`.
  TSS_RESULT MigrateKey(TCS_KEY_HANDLE authority, const Bytes& destination, const Bytes& inData,
                        Bytes* outData) {
    return OverOIAP(
        h_, wellKnown_, TPM_ORD_MigrateKey, Cat({destination, U32(UINT32(inData.size())), inData}),
        [&](TPM_AUTH* a, Bytes* out) {
          UINT32 size = 0;
          BYTE* data = nullptr;
          const TSS_RESULT r = Tcsip_MigrateKey(
              h_, authority, UINT32(destination.size()), const_cast<BYTE*>(destination.data()),
              UINT32(inData.size()), const_cast<BYTE*>(inData.data()), a, &size, &data);
          *outData = Take(data, size);
          *out = Cat({U32(size), *outData});
          return r;
        });
  }

  Bytes PubKey(TCS_KEY_HANDLE key) {
    UINT32 size = 0;
    BYTE* data = nullptr;
    EXPECT_EQ(Tcsip_GetPubKey(h_, key, nullptr, &size, &data), TSS_SUCCESS);
    return Take(data, size);
  }
};

TEST_F(MigrationCmkTest, MigratableKeyRewrappedAndConvertedUnderANewParentKeepsItsPublicPart) {
  const Bytes parentBlob = CreateKey(h_, kSrk, KeyInfo(wrapped_keys::kStorageUsage, 2048, 3, 1));
  const TCS_KEY_HANDLE parent = Load(h_, kSrk, parentBlob);
  Bytes keyInfo = KeyInfo(wrapped_keys::kSigningUsage, 512, 1, 2);
  keyInfo[kKeyFlagsAt + 3] = kMigratable;
  const Bytes keyBlob = CreateKey(h_, kSrk, keyInfo);
  ASSERT_FALSE(HasFailure());
  const Bytes destination = PubKeyOf(parentBlob);

  // Rewrap: the owner's approval names the destination and the scheme; the blob needs no pad.
  Bytes keyAuth;
  ASSERT_EQ(AuthorizeMigrationKey(kRewrap, destination, &keyAuth), TSS_SUCCESS);
  ASSERT_EQ(keyAuth.size(), destination.size() + 2 + 20);
  EXPECT_EQ(Bytes(keyAuth.begin(), keyAuth.begin() + std::ptrdiff_t(destination.size() + 2)),
            Cat({destination, U16(kRewrap)}));
  Bytes random, rewrapped;
  ASSERT_EQ(CreateMigrationBlob(kRewrap, keyAuth, EncDataOf(keyBlob), &random, &rewrapped),
            TSS_SUCCESS);
  EXPECT_TRUE(random.empty());
  const TCS_KEY_HANDLE moved = Load(h_, parent, WithEncData(keyBlob, rewrapped));
  EXPECT_EQ(PubKey(moved), PubKeyOf(keyBlob));
  EXPECT_EQ(Tcsip_EvictKey(h_, moved), TSS_SUCCESS);

  // Migrate: the blob comes with a random pad, and the new parent converts the two.
  ASSERT_EQ(AuthorizeMigrationKey(kMigrate, destination, &keyAuth), TSS_SUCCESS);
  Bytes migrated;
  ASSERT_EQ(CreateMigrationBlob(kMigrate, keyAuth, EncDataOf(keyBlob), &random, &migrated),
            TSS_SUCCESS);
  EXPECT_FALSE(random.empty());
  Bytes converted;
  ASSERT_EQ(Convert(parent, migrated, random, &converted), TSS_SUCCESS);
  const TCS_KEY_HANDLE convertedKey = Load(h_, parent, WithEncData(keyBlob, converted));
  EXPECT_EQ(PubKey(convertedKey), PubKeyOf(keyBlob));
  EXPECT_EQ(Tcsip_EvictKey(h_, convertedKey), TSS_SUCCESS);

  // Through a migration authority: the blob made for its key, which re-encrypts it for the new
  // parent; a storage key is no such authority.
  const Bytes authorityBlob = CreateKey(h_, kSrk, KeyInfo(kMigrateUsage, 2048, 3, 1));
  const TCS_KEY_HANDLE authority = Load(h_, kSrk, authorityBlob);
  ASSERT_EQ(AuthorizeMigrationKey(kMigrate, PubKeyOf(authorityBlob), &keyAuth), TSS_SUCCESS);
  Bytes forAuthority;
  ASSERT_EQ(CreateMigrationBlob(kMigrate, keyAuth, EncDataOf(keyBlob), &random, &forAuthority),
            TSS_SUCCESS);
  Bytes reencrypted;
  EXPECT_EQ(MigrateKey(parent, destination, forAuthority, &reencrypted), kTpmInvalidKeyUsage);
  ASSERT_EQ(MigrateKey(authority, destination, forAuthority, &reencrypted), TSS_SUCCESS);
  ASSERT_EQ(Convert(parent, reencrypted, random, &converted), TSS_SUCCESS);
  EXPECT_EQ(PubKey(Load(h_, parent, WithEncData(keyBlob, converted))), PubKeyOf(keyBlob));
}

// A migration authority's RSA key, held by OpenSSL.
class Authority {
 public:
  Authority() : key_(EVP_RSA_gen(2048), EVP_PKEY_free) {}

  // Its TPM_PUBKEY with the given schemes: as a destination it encrypts with OAEP, as a signer
  // it signs with PKCS#1 v1.5 and SHA-1.
  Bytes PubKey(UINT16 encScheme, UINT16 sigScheme) const {
    BIGNUM* n = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key_.get(), "n", &n), 1);
    Bytes modulus(size_t(BN_num_bytes(n)));
    BN_bn2bin(n, modulus.data());
    BN_free(n);
    return Cat({U32(1), U16(encScheme), U16(sigScheme), U32(12), U32(2048), U32(2), U32(0),
                U32(UINT32(modulus.size())), modulus});
  }

  // A PKCS#1 v1.5 signature of the SHA-1 digest `digest`.
  Bytes Sign(const Bytes& digest) const {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(
        EVP_PKEY_CTX_new(key_.get(), nullptr), EVP_PKEY_CTX_free);
    EXPECT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()), 1);
    size_t size = 0;
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &size, digest.data(), digest.size()), 1);
    Bytes signature(size);
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), signature.data(), &size, digest.data(), digest.size()), 1);
    signature.resize(size);
    return signature;
  }

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
};

TEST_F(MigrationCmkTest, CertifiedMigrationKeyMadeForAnApprovedAuthorityAndItsBlobCreated) {
  const Authority authority;
  const Bytes authorityPub = authority.PubKey(/*OAEP*/ 3, /*none*/ 1);
  const Bytes signerPub = authority.PubKey(/*none*/ 1, /*PKCS#1 v1.5 SHA-1*/ 2);
  // The list of approved authorities (TPM_MSA_COMPOSITE) holds the digests of its key in both
  // forms.
  const Bytes msaList = Cat({U32(2), Sha1(authorityPub), Sha1(signerPub)});
  const Bytes msaDigest = Sha1(msaList);

  ASSERT_EQ(OverOIAP(h_, wellKnown_, TPM_ORD_CMK_SetRestrictions, U32(kCmkDelegateSigning),
                     [&](TPM_AUTH* a, Bytes* out) {
                       out->clear();
                       return Tcsip_CMK_SetRestrictions(h_, kCmkDelegateSigning, a);
                     }),
            TSS_SUCCESS);
  TPM_HMAC approval{};
  ASSERT_EQ(OverOIAP(h_, wellKnown_, TPM_ORD_CMK_ApproveMA, msaDigest,
                     [&](TPM_AUTH* a, Bytes* out) {
                       const TSS_RESULT r =
                           Tcsip_CMK_ApproveMA(h_, As<TPM_DIGEST>(msaDigest), a, &approval);
                       *out = Of(approval);
                       return r;
                     }),
            TSS_SUCCESS);

  // A certified migratable key (a TPM_KEY12 template) under the SRK, for the approved list.
  Bytes keyTemplate = KeyInfo(wrapped_keys::kSigningUsage, 512, 1, 2);
  keyTemplate[0] = 0x00;
  keyTemplate[1] = 0x28;
  keyTemplate[kKeyFlagsAt + 3] = kMigratable | kMigrateAuthority;
  KESTTCS_AUTH_SESSION s{};
  ASSERT_EQ(KestAuth_OpenOSAP(h_, KESTTCS_ET_KEYHANDLE, kSrk, &wellKnown_, &s), TSS_SUCCESS);
  TPM_ENCAUTH usageAuth{};
  ASSERT_EQ(KestAuth_EncAuth(&s, &wellKnown_, KESTTCS_ADIP_EVEN, &usageAuth), TSS_SUCCESS);
  Bytes cmk;
  ASSERT_EQ(Authorised(s, TPM_ORD_CMK_CreateKey,
                       Cat({Of(usageAuth), keyTemplate, Of(approval), msaDigest}),
                       [&](TPM_AUTH* a, Bytes* out) {
                         Bytes in = keyTemplate;
                         BYTE* keyData = in.data();
                         UINT32 keySize = UINT32(in.size());
                         const TSS_RESULT r =
                             Tcsip_CMK_CreateKey(h_, kSrk, usageAuth, approval,
                                                 As<TPM_DIGEST>(msaDigest), &keySize, &keyData, a);
                         if (keyData != in.data()) cmk = Take(keyData, keySize);
                         *out = cmk;
                         return r;
                       }),
            TSS_SUCCESS);
  ASSERT_GT(cmk.size(), keyTemplate.size());
  EXPECT_EQ(Bytes(cmk.begin(), cmk.begin() + 2), (Bytes{0x00, 0x28}));
  EXPECT_EQ(cmk[kKeyFlagsAt + 3] & (kMigratable | kMigrateAuthority),
            kMigratable | kMigrateAuthority);

  // The authority's signature over a digest becomes a ticket; a spoiled one is refused.
  const Bytes signedData = Sha1(Bytes{'r', 'e', 's', 't', 'r', 'i', 'c', 't'});
  const Bytes signature = authority.Sign(signedData);
  auto createTicket = [&](const Bytes& sig, TPM_HMAC* ticket) {
    return OverOIAP(h_, wellKnown_, TPM_ORD_CMK_CreateTicket,
                    Cat({signerPub, signedData, U32(UINT32(sig.size())), sig}),
                    [&](TPM_AUTH* a, Bytes* out) {
                      const TSS_RESULT r = Tcsip_CMK_CreateTicket(
                          h_, UINT32(signerPub.size()), const_cast<BYTE*>(signerPub.data()),
                          As<TPM_DIGEST>(signedData), UINT32(sig.size()),
                          const_cast<BYTE*>(sig.data()), a, ticket);
                      *out = Of(*ticket);
                      return r;
                    });
  };
  TPM_HMAC sigTicket{};
  EXPECT_EQ(createTicket(signature, &sigTicket), TSS_SUCCESS);
  EXPECT_NE(Of(sigTicket), Bytes(20, 0));
  Bytes spoiled = signature;
  spoiled[10] ^= 1;
  TPM_HMAC unused{};
  EXPECT_EQ(createTicket(spoiled, &unused), kTpmBadSignature);

  // The key's blob for the authority itself: no tickets needed. It is encrypted under the
  // authority's 2048-bit key.
  Bytes keyAuth;
  ASSERT_EQ(AuthorizeMigrationKey(kRestrictMigrate, authorityPub, &keyAuth), TSS_SUCCESS);
  const Bytes sourceDigest = Sha1(PubKeyOf(cmk));
  const Bytes encData = EncDataOf(cmk);
  Bytes random, blob;
  ASSERT_EQ(OverOIAP(h_, wellKnown_, TPM_ORD_CMK_CreateBlob,
                     Cat({U16(kRestrictMigrate), keyAuth, sourceDigest, U32(UINT32(msaList.size())),
                          msaList, U32(0), U32(0), U32(UINT32(encData.size())), encData}),
                     [&](TPM_AUTH* a, Bytes* out) {
                       UINT32 randomSize = 0, outSize = 0;
                       BYTE* randomData = nullptr;
                       BYTE* outData = nullptr;
                       const TSS_RESULT r = Tcsip_CMK_CreateBlob(
                           h_, kSrk, kRestrictMigrate, UINT32(keyAuth.size()), keyAuth.data(),
                           As<TPM_DIGEST>(sourceDigest), UINT32(msaList.size()),
                           const_cast<BYTE*>(msaList.data()), 0, nullptr, 0, nullptr,
                           UINT32(encData.size()), const_cast<BYTE*>(encData.data()), a,
                           &randomSize, &randomData, &outSize, &outData);
                       random = Take(randomData, randomSize);
                       blob = Take(outData, outSize);
                       *out = Cat({U32(randomSize), random, U32(outSize), blob});
                       return r;
                     }),
            TSS_SUCCESS);
  EXPECT_FALSE(random.empty());
  EXPECT_EQ(blob.size(), 256u);

  // Converting needs a key the SRK can decrypt, which this blob (for the authority) is not.
  const TPM_CMK_AUTH restrictTicket{As<TPM_DIGEST>(msaDigest), As<TPM_DIGEST>(sourceDigest),
                                    As<TPM_DIGEST>(sourceDigest)};
  const Bytes migratedKey = WithEncData(cmk, blob);
  const TSS_RESULT r =
      OverOIAP(h_, wellKnown_, TPM_ORD_CMK_ConvertMigration,
               Cat({msaDigest, sourceDigest, sourceDigest, Of(sigTicket), migratedKey,
                    U32(UINT32(msaList.size())), msaList, U32(UINT32(random.size())), random}),
               [&](TPM_AUTH* a, Bytes* out) {
                 out->clear();
                 UINT32 outSize = 0;
                 BYTE* outData = nullptr;
                 const TSS_RESULT result = Tcsip_CMK_ConvertMigration(
                     h_, kSrk, restrictTicket, sigTicket, UINT32(migratedKey.size()),
                     const_cast<BYTE*>(migratedKey.data()), UINT32(msaList.size()),
                     const_cast<BYTE*>(msaList.data()), UINT32(random.size()), random.data(), a,
                     &outSize, &outData);
                 Tcs_FreeBuffer(outData);
                 return result;
               });
  EXPECT_EQ(r, kTpmDecryptError) << std::hex << r;
}

}  // namespace
}  // namespace kesttcs::testing
