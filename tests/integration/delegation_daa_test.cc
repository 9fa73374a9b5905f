// Delegation and DAA through the real kesttcsd on the embedded libtpms TPM with an owner (the
// well-known owner and SRK secrets), every command authorised with the client's helper and every
// answer's HMAC checked:
//  - a family is created and enabled; an owner delegation for TPM_OwnerReadInternalPub is made,
//    loaded into the delegate table and read back with the table; a DSAP session on its row runs
//    the delegated command, and an owner command not delegated is refused;
//  - a new delegation that raises the family's verification count makes the old blob fail
//    verification until its count is updated; the row is updated by its index;
//  - a key delegation of the SRK carries the public part asked for and verifies;
//  - DAA_Join stage 0 opens a join session and answers its handle; a DAA_Sign stage without the
//    issuer's settings gets the TPM's own refusal back unchanged.
#include <algorithm>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinals.h>

#include "authorised_calls.h"

namespace kesttcs::testing {
namespace {

using namespace authorised_calls;  // NOLINT: the test's vocabulary

constexpr TCS_KEY_HANDLE kSrk = 0x40000000;
constexpr UINT32 kEndorsementKeyHandle = 0x40000006;
constexpr UINT32 kFamilyCreate = 1;
constexpr UINT32 kFamilyEnable = 2;
constexpr UINT32 kOwnerBits = 1;
constexpr UINT32 kKeyBits = 2;
constexpr UINT32 kDelegateOwnerReadInternalPub = 1u << 18;
// A TPM_DELEGATE_PUBLIC is 51 bytes with a 3-byte PCR selection; blobs open with a 2-byte tag.
constexpr size_t kDelegatePublicSize = 51;
constexpr size_t kBlobPublicAt = 2;
// TPM return codes as the service maps them.
constexpr TSS_RESULT kTpmAuthFail = 0xE0280001;
constexpr TSS_RESULT kTpmFamilyCount = 0xE0280040;
constexpr TSS_RESULT kTpmDaaInputData0 = 0xE0280051;

// A delegation's public part: all localities, no PCRs, the given permissions and family.
Bytes DelegatePublic(UINT32 delegateType, UINT32 per1, UINT32 familyID) {
  return Cat({U16(0x001B),
              {1},
              U16(3),
              {0, 0, 0},
              {0x1F},
              Bytes(20, 0),
              U16(0x001A),
              U32(delegateType),
              U32(per1),
              U32(0),
              U32(familyID),
              U32(0)});
}

Bytes PublicOf(const Bytes& blob) {
  return Bytes(blob.begin() + kBlobPublicAt, blob.begin() + kBlobPublicAt + kDelegatePublicSize);
}

class DelegationDaaTest : public OwnedDaemonTest {
 protected:
  TSS_RESULT Manage(UINT32 familyID, UINT32 op, const Bytes& opData, Bytes* ret) {
    const Bytes in = Cat({U32(familyID), U32(op), U32(UINT32(opData.size())), opData});
    return OverOIAP(h_, wellKnown_, TPM_ORD_Delegate_Manage, in, [&](TPM_AUTH* a, Bytes* out) {
      UINT32 size = 0;
      BYTE* data = nullptr;
      const TSS_RESULT r = Tcsip_Delegate_Manage(h_, familyID, op, UINT32(opData.size()),
                                                 const_cast<BYTE*>(opData.data()), a, &size, &data);
      *ret = Take(data, size);
      *out = Cat({U32(size), *ret});
      return r;
    });
  }

  // A new delegation family labelled `label`, enabled.
  void CreateEnabledFamily(BYTE label, UINT32* family) {
    Bytes ret;
    ASSERT_EQ(Manage(0, kFamilyCreate, {label}, &ret), TSS_SUCCESS);
    ASSERT_EQ(ret.size(), 4u);
    *family = UINT32(ret[0]) << 24 | UINT32(ret[1]) << 16 | UINT32(ret[2]) << 8 | ret[3];
    ASSERT_EQ(Manage(*family, kFamilyEnable, {1}, &ret), TSS_SUCCESS);
    EXPECT_TRUE(ret.empty());
  }

  // TPM_Delegate_CreateOwnerDelegation over an owner OSAP session, the delegation's secret by
  // ADIP.
  TSS_RESULT CreateOwnerDelegation(BYTE increment, const Bytes& pub, Bytes* blob) {
    KESTTCS_AUTH_SESSION s{};
    if (TSS_RESULT r = KestAuth_OpenOSAP(h_, KESTTCS_ET_OWNER, 0, &wellKnown_, &s)) return r;
    TPM_ENCAUTH delAuth{};
    EXPECT_EQ(KestAuth_EncAuth(&s, &delegationSecret_, KESTTCS_ADIP_EVEN, &delAuth), TSS_SUCCESS);
    const Bytes in = Cat({{increment}, pub, Of(delAuth)});
    return Authorised(s, TPM_ORD_Delegate_CreateOwnerDele, in, [&](TPM_AUTH* a, Bytes* out) {
      UINT32 size = 0;
      BYTE* data = nullptr;
      const TSS_RESULT r = Tcsip_Delegate_CreateOwnerDelegation(h_, increment, UINT32(pub.size()),
                                                                const_cast<BYTE*>(pub.data()),
                                                                delAuth, a, &size, &data);
      *blob = Take(data, size);
      *out = Cat({U32(size), *blob});
      return r;
    });
  }

  TSS_RESULT UpdateVerification(const Bytes& input, Bytes* output) {
    const Bytes in = Cat({U32(UINT32(input.size())), input});
    return OverOIAP(
        h_, wellKnown_, TPM_ORD_Delegate_UpdateVerification, in, [&](TPM_AUTH* a, Bytes* out) {
          UINT32 size = 0;
          BYTE* data = nullptr;
          const TSS_RESULT r = Tcsip_Delegate_UpdateVerificationCount(
              h_, UINT32(input.size()), const_cast<BYTE*>(input.data()), a, &size, &data);
          *output = Take(data, size);
          *out = Cat({U32(size), *output});
          return r;
        });
  }

  TSS_RESULT Verify(const Bytes& blob) {
    return Tcsip_Delegate_VerifyDelegation(h_, UINT32(blob.size()), const_cast<BYTE*>(blob.data()));
  }

  // TPM_OwnerReadInternalPub of the endorsement key, authorised by a DSAP session on delegate row
  // `row`.
  TSS_RESULT ReadEndorsementKeyByRow(UINT32 row) {
    KESTTCS_AUTH_SESSION s{};
    const Bytes entity = U32(row);
    if (TSS_RESULT r = KestAuth_OpenDSAP(h_, KESTTCS_ET_DEL_ROW, 0, 4, entity.data(),
                                         &delegationSecret_, &s)) {
      return r;
    }
    return Authorised(s, TPM_ORD_OwnerReadInternalPub, U32(kEndorsementKeyHandle),
                      [&](TPM_AUTH* a, Bytes* out) {
                        UINT32 size = 0;
                        BYTE* data = nullptr;
                        const TSS_RESULT r = Tcsip_OwnerReadPubek(h_, a, &size, &data);
                        *out = Take(data, size);
                        return r;
                      });
  }

  TPM_SECRET delegationSecret_ = As<TPM_SECRET>(Bytes(20, 0xD5));
};

TEST_F(DelegationDaaTest, OwnerDelegationLoadedReadBackUsedThroughDsapAndKeptCurrent) {
  UINT32 family = 0;
  ASSERT_NO_FATAL_FAILURE(CreateEnabledFamily(0x42, &family));

  const Bytes pub = DelegatePublic(kOwnerBits, kDelegateOwnerReadInternalPub, family);
  Bytes blob;
  ASSERT_EQ(CreateOwnerDelegation(0, pub, &blob), TSS_SUCCESS);
  ASSERT_GT(blob.size(), kBlobPublicAt + kDelegatePublicSize);
  EXPECT_EQ(Verify(blob), TSS_SUCCESS);

  constexpr UINT32 kRow = 0;
  ASSERT_EQ(OverOIAP(h_, wellKnown_, TPM_ORD_Delegate_LoadOwnerDelega,
                     Cat({U32(kRow), U32(UINT32(blob.size())), blob}),
                     [&](TPM_AUTH* a, Bytes* out) {
                       out->clear();
                       return Tcsip_Delegate_LoadOwnerDelegation(h_, kRow, UINT32(blob.size()),
                                                                 blob.data(), a);
                     }),
            TSS_SUCCESS);

  // The tables: our family (label 0x42, enabled) and our row with the blob's public part.
  UINT32 familySize = 0, delegateSize = 0;
  BYTE* familyData = nullptr;
  BYTE* delegateData = nullptr;
  ASSERT_EQ(Tcsip_Delegate_ReadTable(h_, &familySize, &familyData, &delegateSize, &delegateData),
            TSS_SUCCESS);
  const Bytes families = Take(familyData, familySize);
  const Bytes delegates = Take(delegateData, delegateSize);
  const Bytes familyEntry = Cat({U16(0x0025), {0x42}, U32(family), U32(1), U32(1)});
  EXPECT_NE(std::search(families.begin(), families.end(), familyEntry.begin(), familyEntry.end()),
            families.end());
  EXPECT_EQ(Bytes(delegates.begin(), delegates.begin() + 4 + kDelegatePublicSize),
            Cat({U32(kRow), PublicOf(blob)}));

  // The row authorises what it delegates, and only that.
  EXPECT_EQ(ReadEndorsementKeyByRow(kRow), TSS_SUCCESS);
  KESTTCS_AUTH_SESSION s{};
  const Bytes entity = U32(kRow);
  ASSERT_EQ(KestAuth_OpenDSAP(h_, KESTTCS_ET_DEL_ROW, 0, 4, entity.data(), &delegationSecret_, &s),
            TSS_SUCCESS);
  TPM_AUTH auth{};
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_DisablePubekRead, nullptr, 0, 0, &auth), TSS_SUCCESS);
  EXPECT_EQ(Tcsip_DisablePubekRead(h_, &auth), kTpmAuthFail);

  // A new delegation that raises the family's count leaves the old blob and the row behind...
  Bytes newer;
  ASSERT_EQ(CreateOwnerDelegation(1, pub, &newer), TSS_SUCCESS);
  EXPECT_EQ(Verify(newer), TSS_SUCCESS);
  EXPECT_EQ(Verify(blob), kTpmFamilyCount);
  EXPECT_NE(ReadEndorsementKeyByRow(kRow), TSS_SUCCESS);
  // ... until their counts are brought up to date: the blob comes back updated, the row in place.
  Bytes updated;
  ASSERT_EQ(UpdateVerification(blob, &updated), TSS_SUCCESS);
  EXPECT_EQ(updated.size(), blob.size());
  EXPECT_EQ(Verify(updated), TSS_SUCCESS);
  ASSERT_EQ(UpdateVerification(U32(kRow), &updated), TSS_SUCCESS);
  EXPECT_TRUE(updated.empty());
  EXPECT_EQ(ReadEndorsementKeyByRow(kRow), TSS_SUCCESS);
}

TEST_F(DelegationDaaTest, KeyDelegationOfTheSrkVerifies) {
  UINT32 family = 0;
  ASSERT_NO_FATAL_FAILURE(CreateEnabledFamily(0x43, &family));
  KESTTCS_AUTH_SESSION s{};
  ASSERT_EQ(KestAuth_OpenOSAP(h_, KESTTCS_ET_KEYHANDLE, kSrk, &wellKnown_, &s), TSS_SUCCESS);
  TPM_ENCAUTH delAuth{};
  ASSERT_EQ(KestAuth_EncAuth(&s, &delegationSecret_, KESTTCS_ADIP_EVEN, &delAuth), TSS_SUCCESS);
  const Bytes pub = DelegatePublic(kKeyBits, 1, family);
  Bytes blob;
  ASSERT_EQ(Authorised(s, TPM_ORD_Delegate_CreateKeyDelegat, Cat({pub, Of(delAuth)}),
                       [&](TPM_AUTH* a, Bytes* out) {
                         UINT32 size = 0;
                         BYTE* data = nullptr;
                         const TSS_RESULT r = Tcsip_Delegate_CreateKeyDelegation(
                             h_, kSrk, UINT32(pub.size()), const_cast<BYTE*>(pub.data()), delAuth,
                             a, &size, &data);
                         blob = Take(data, size);
                         *out = Cat({U32(size), blob});
                         return r;
                       }),
            TSS_SUCCESS);
  // A key blob: its tag, then the public part as asked, the family's count set by the TPM.
  ASSERT_GT(blob.size(), kBlobPublicAt + kDelegatePublicSize);
  EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 2), U16(0x0027));
  Bytes expected = pub;
  std::copy_n(U32(1).begin(), 4, expected.end() - 4);
  EXPECT_EQ(PublicOf(blob), expected);
  EXPECT_EQ(Verify(blob), TSS_SUCCESS);
}

TEST_F(DelegationDaaTest, DaaJoinStageZeroOpensASessionAndSignAnswersAsTheTpmDoes) {
  const Bytes count = U32(1);
  Bytes handle;
  ASSERT_EQ(OverOIAP(h_, wellKnown_, TPM_ORD_DAA_Join, Cat({{0}, U32(4), count, U32(0)}),
                     [&](TPM_AUTH* a, Bytes* out) {
                       UINT32 size = 0;
                       BYTE* data = nullptr;
                       const TSS_RESULT r =
                           Tcsip_TPM_DAA_Join(h_, 0, 0, 4, const_cast<BYTE*>(count.data()), 0,
                                              nullptr, a, &size, &data);
                       handle = Take(data, size);
                       *out = Cat({U32(size), handle});
                       return r;
                     }),
            TSS_SUCCESS);
  ASSERT_EQ(handle.size(), 4u);
  EXPECT_NE(handle, U32(0));

  // Stage 0 of a sign wants the issuer's settings; four bytes are none.
  UINT32 size = 0;
  BYTE* data = nullptr;
  KESTTCS_AUTH_SESSION s{};
  ASSERT_EQ(KestAuth_OpenOIAP(h_, &wellKnown_, &s), TSS_SUCCESS);
  TPM_AUTH auth{};
  const Bytes in = Cat({{0}, U32(4), count, U32(0)});
  ASSERT_EQ(KestAuth_Authorize(&s, TPM_ORD_DAA_Sign, in.data(), UINT32(in.size()), 0, &auth),
            TSS_SUCCESS);
  const TSS_RESULT r = Tcsip_TPM_DAA_Sign(h_, 0, 0, 4, const_cast<BYTE*>(count.data()), 0, nullptr,
                                          &auth, &size, &data);
  Tcs_FreeBuffer(data);
  EXPECT_EQ(r, kTpmDaaInputData0) << std::hex << r;
}

}  // namespace
}  // namespace kesttcs::testing
