#include "commands/tcsip_migration.h"

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
// Header, parentHandle, migrationType, encDataSize, two session trailers.
constexpr UINT32 kCreateMigrationBlobFixedBytes =
    kTpmHeaderSize + kUint32Bytes + 2 + kUint32Bytes + 2 * kAuthRequestTrailerSize;
// Header, parentHandle, inDataSize, randomSize, the session trailer.
constexpr UINT32 kConvertMigrationBlobFixedBytes =
    kTpmHeaderSize + 3 * kUint32Bytes + kAuthRequestTrailerSize;
// Header, migrationScheme, the session trailer.
constexpr UINT32 kAuthorizeMigrationKeyFixedBytes = kTpmHeaderSize + 2 + kAuthRequestTrailerSize;
// Header, maKeyHandle, inDataSize, the session trailer.
constexpr UINT32 kMigrateKeyFixedBytes =
    kTpmHeaderSize + 2 * kUint32Bytes + kAuthRequestTrailerSize;

}  // namespace

TSS_RESULT Tcsip_CreateMigrationBlob_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize, const BYTE* MigrationKeyAuth, UINT32 encDataSize,
    const BYTE* encData, TPM_AUTH* parentAuth, TPM_AUTH* entityAuth, UINT32* randomSize,
    BYTE** random, UINT32* outDataSize, BYTE** outData) {
  if (randomSize == nullptr || random == nullptr || outDataSize == nullptr || outData == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CreateMigrationBlob);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (entityAuth == nullptr ||
      !PartsFit(kCreateMigrationBlobFixedBytes,
                {{MigrationKeyAuthSize, MigrationKeyAuth}, {encDataSize, encData}})) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::span<const BYTE> keyAuth = Bytes(MigrationKeyAuthSize, MigrationKeyAuth);
  if (!HoldsExactlyOne<TPM_MIGRATIONKEYAUTH>(keyAuth)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(parentAuth, entityAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, migrationType, keyAuth, encDataSize,
                                            Bytes(encDataSize, encData))) {
    return rc;
  }
  return UnloadTwoSized(command.Outputs(), hContext, randomSize, random, outDataSize, outData);
}

TSS_RESULT Tcsip_ConvertMigrationBlob_Internal(TCS_CONTEXT_HANDLE hContext,
                                               TCS_KEY_HANDLE parentHandle, UINT32 inDataSize,
                                               const BYTE* inData, UINT32 randomSize,
                                               const BYTE* random, TPM_AUTH* parentAuth,
                                               UINT32* outDataSize, BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_ConvertMigrationBlob);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!PartsFit(kConvertMigrationBlobFixedBytes, {{inDataSize, inData}, {randomSize, random}})) {
    return TCS_E_BAD_PARAMETER;
  }
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(parentHandle, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(parentAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, inDataSize, Bytes(inDataSize, inData), randomSize,
                                            Bytes(randomSize, random))) {
    return rc;
  }
  return command.UnloadSized(outDataSize, outData);
}

TSS_RESULT Tcsip_AuthorizeMigrationKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                TPM_MIGRATE_SCHEME migrateScheme,
                                                UINT32 MigrationKeySize, const BYTE* MigrationKey,
                                                TPM_AUTH* ownerAuth, UINT32* MigrationKeyAuthSize,
                                                BYTE** MigrationKeyAuth) {
  if (MigrationKeyAuthSize == nullptr || MigrationKeyAuth == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_AuthorizeMigrationKey);
  if (TSS_RESULT rc =
          command.Check(kAuthorizeMigrationKeyFixedBytes, MigrationKeySize, MigrationKey)) {
    return rc;
  }
  const std::span<const BYTE> key = Bytes(MigrationKeySize, MigrationKey);
  if (ownerAuth == nullptr || !HoldsExactlyOne<TPM_PUBKEY>(key)) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(migrateScheme, key)) return rc;
  return command.UnloadStructure<TPM_MIGRATIONKEYAUTH>(MigrationKeyAuthSize, MigrationKeyAuth);
}

TSS_RESULT Tcsip_MigrateKey_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hMaKey,
                                     UINT32 PublicKeySize, const BYTE* PublicKey, UINT32 inDataSize,
                                     const BYTE* inData, TPM_AUTH* ownerAuth, UINT32* outDataSize,
                                     BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_MigrateKey);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!PartsFit(kMigrateKeyFixedBytes, {{PublicKeySize, PublicKey}, {inDataSize, inData}})) {
    return TCS_E_BAD_PARAMETER;
  }
  const std::span<const BYTE> destination = Bytes(PublicKeySize, PublicKey);
  if (!HoldsExactlyOne<TPM_PUBKEY>(destination)) return TCS_E_BAD_PARAMETER;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = command.UseKey(hMaKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc =
          command.RunAuthorised(slot, destination, inDataSize, Bytes(inDataSize, inData))) {
    return rc;
  }
  return command.UnloadSized(outDataSize, outData);
}

}  // namespace kesttcs
