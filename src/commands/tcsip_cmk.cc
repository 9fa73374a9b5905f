#include "commands/tcsip_cmk.h"

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "commands/command_parts.h"
#include "commands/input_checks.h"
#include "storage/persistent_storage.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

namespace {

constexpr UINT32 kUint32Bytes = 4;
constexpr UINT32 kDigestBytes = sizeof(TPM_DIGEST);
// Header, restriction, the session trailer.
constexpr UINT32 kSetRestrictionsFixedBytes =
    kTpmHeaderSize + kUint32Bytes + kAuthRequestTrailerSize;
// Header, digest, the session trailer.
constexpr UINT32 kApproveMAFixedBytes = kTpmHeaderSize + kDigestBytes + kAuthRequestTrailerSize;
// Header, parentHandle, dataUsageAuth, the approval ticket, the authorities' digest, the trailer.
constexpr UINT32 kCreateKeyFixedBytes =
    kTpmHeaderSize + kUint32Bytes + 3 * kDigestBytes + kAuthRequestTrailerSize;
// Header, signedData, signatureValueSize, the session trailer.
constexpr UINT32 kCreateTicketFixedBytes =
    kTpmHeaderSize + kDigestBytes + kUint32Bytes + kAuthRequestTrailerSize;
// Header, parentHandle, migrationType, pubSourceKeyDigest, the four sizes, the session trailer.
constexpr UINT32 kCreateBlobFixedBytes =
    kTpmHeaderSize + kUint32Bytes + 2 + kDigestBytes + 4 * kUint32Bytes + kAuthRequestTrailerSize;
// Header, parentHandle, restrictTicket, sigTicket, msaListSize, randomSize, the session trailer.
constexpr UINT32 kConvertMigrationFixedBytes = kTpmHeaderSize + kUint32Bytes +
                                               sizeof(TPM_CMK_AUTH) + kDigestBytes +
                                               2 * kUint32Bytes + kAuthRequestTrailerSize;

}  // namespace

TSS_RESULT Tcsip_CMK_SetRestrictions_Internal(TCS_CONTEXT_HANDLE hContext,
                                              TSS_CMK_DELEGATE Restriction, TPM_AUTH* ownerAuth) {
  TpmCommand command(hContext, TPM_ORD_CMK_SetRestrictions);
  if (TSS_RESULT rc = command.Check(kSetRestrictionsFixedBytes)) return rc;
  if (ownerAuth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  return command.RunAuthorised(UINT32{Restriction});
}

TSS_RESULT Tcsip_CMK_ApproveMA_Internal(TCS_CONTEXT_HANDLE hContext,
                                        const TPM_DIGEST& migrationAuthorityDigest,
                                        TPM_AUTH* ownerAuth, TPM_HMAC* HmacMigAuthDigest) {
  if (HmacMigAuthDigest == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CMK_ApproveMA);
  if (TSS_RESULT rc = command.Check(kApproveMAFixedBytes)) return rc;
  if (ownerAuth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(migrationAuthorityDigest)) return rc;
  return command.Unload(HmacMigAuthDigest);
}

TSS_RESULT Tcsip_CMK_CreateKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hWrappingKey,
                                        const TPM_ENCAUTH& KeyUsageAuth,
                                        const TPM_HMAC& MigAuthApproval,
                                        const TPM_DIGEST& MigAuthorityDigest, UINT32* keyDataSize,
                                        BYTE** prgbKeyData, TPM_AUTH* pAuth) {
  if (keyDataSize == nullptr || prgbKeyData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CMK_CreateKey);
  if (TSS_RESULT rc = command.Check(kCreateKeyFixedBytes, *keyDataSize, *prgbKeyData)) return rc;
  const std::span<const BYTE> keyInfo = Bytes(*keyDataSize, *prgbKeyData);
  if (pAuth == nullptr || !HoldsExactlyOne<TPM_KEY12>(keyInfo)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hWrappingKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pAuth)) return rc;
  if (TSS_RESULT rc =
          command.RunAuthorised(slot, KeyUsageAuth, keyInfo, MigAuthApproval, MigAuthorityDigest)) {
    return rc;
  }
  return command.UnloadStructure<TPM_KEY12>(keyDataSize, prgbKeyData);
}

TSS_RESULT Tcsip_CMK_CreateTicket_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 PublicVerifyKeySize,
                                           const BYTE* PublicVerifyKey,
                                           const TPM_DIGEST& SignedData, UINT32 SigValueSize,
                                           const BYTE* SigValue, TPM_AUTH* pOwnerAuth,
                                           TPM_HMAC* SigTicket) {
  if (SigTicket == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CMK_CreateTicket);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (pOwnerAuth == nullptr ||
      !PartsFit(kCreateTicketFixedBytes,
                {{PublicVerifyKeySize, PublicVerifyKey}, {SigValueSize, SigValue}})) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::span<const BYTE> verifyKey = Bytes(PublicVerifyKeySize, PublicVerifyKey);
  if (!HoldsExactlyOne<TPM_PUBKEY>(verifyKey)) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(pOwnerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(verifyKey, SignedData, SigValueSize,
                                            Bytes(SigValueSize, SigValue))) {
    return rc;
  }
  return command.Unload(SigTicket);
}

TSS_RESULT Tcsip_CMK_CreateBlob_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize, const BYTE* MigrationKeyAuth, const TPM_DIGEST& PubSourceKeyDigest,
    UINT32 msaListSize, const BYTE* msaList, UINT32 restrictTicketSize, const BYTE* restrictTicket,
    UINT32 sigTicketSize, const BYTE* sigTicket, UINT32 encDataSize, const BYTE* encData,
    TPM_AUTH* parentAuth, UINT32* randomSize, BYTE** random, UINT32* outDataSize, BYTE** outData) {
  if (randomSize == nullptr || random == nullptr || outDataSize == nullptr || outData == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CMK_CreateBlob);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!PartsFit(kCreateBlobFixedBytes, {{MigrationKeyAuthSize, MigrationKeyAuth},
                                        {msaListSize, msaList},
                                        {restrictTicketSize, restrictTicket},
                                        {sigTicketSize, sigTicket},
                                        {encDataSize, encData}})) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::span<const BYTE> keyAuth = Bytes(MigrationKeyAuthSize, MigrationKeyAuth);
  if (!HoldsExactlyOne<TPM_MIGRATIONKEYAUTH>(keyAuth)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(parentAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(
          slot, migrationType, keyAuth, PubSourceKeyDigest, msaListSize,
          Bytes(msaListSize, msaList), restrictTicketSize,
          Bytes(restrictTicketSize, restrictTicket), sigTicketSize, Bytes(sigTicketSize, sigTicket),
          encDataSize, Bytes(encDataSize, encData))) {
    return rc;
  }
  return UnloadTwoSized(command.Outputs(), hContext, randomSize, random, outDataSize, outData);
}

TSS_RESULT Tcsip_CMK_ConvertMigration_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, const TPM_CMK_AUTH& restrictTicket,
    const TPM_HMAC& sigTicket, UINT32 keyDataSize, const BYTE* prgbKeyData, UINT32 msaListSize,
    const BYTE* msaList, UINT32 randomSize, const BYTE* random, TPM_AUTH* parentAuth,
    UINT32* outDataSize, BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_CMK_ConvertMigration);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!PartsFit(kConvertMigrationFixedBytes,
                {{keyDataSize, prgbKeyData}, {msaListSize, msaList}, {randomSize, random}})) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::span<const BYTE> migratedKey = Bytes(keyDataSize, prgbKeyData);
  if (!HoldsExactlyOne<TPM_KEY12>(migratedKey)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(parentAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(
          slot, restrictTicket.migrationAuthorityDigest, restrictTicket.destinationKeyDigest,
          restrictTicket.sourceKeyDigest, sigTicket, migratedKey, msaListSize,
          Bytes(msaListSize, msaList), randomSize, Bytes(randomSize, random))) {
    return rc;
  }
  return command.UnloadSized(outDataSize, outData);
}

}  // namespace kesttcs
