// The migration operations: the owner authorising a migration destination, a migratable key's
// blob rewrapped or encrypted for it, the blob converted under a new parent, and a migration
// authority re-encrypting a blob for its destination. Each follows the pattern of the other
// authorised commands (command_exchange.h): keys named by handle are made resident first (a key
// that cannot be loaded gives TCS_E_INVALID_KEY), the caller's sessions pass through untouched,
// outputs land in the context's memory. Structures the TPM reads without a size in front
// (TPM_PUBKEY, TPM_MIGRATIONKEYAUTH) must be exactly one structure, else TCS_E_BAD_PARAMETER.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_CreateMigrationBlob (0x28): encData (a key wrapped by parentHandle) for the destination in
// MigrationKeyAuth (one TPM_MIGRATIONKEYAUTH from Tcsip_AuthorizeMigrationKey) by migrationType.
// parentAuth (the parent's session) is optional, entityAuth (the key's migration secret) required.
// The random pad goes to (*randomSize, *random), the migration blob to (*outDataSize, *outData).
[[nodiscard]] TSS_RESULT Tcsip_CreateMigrationBlob_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize, const BYTE* MigrationKeyAuth, UINT32 encDataSize,
    const BYTE* encData, TPM_AUTH* parentAuth, TPM_AUTH* entityAuth, UINT32* randomSize,
    BYTE** random, UINT32* outDataSize, BYTE** outData);

// TPM_ConvertMigrationBlob (0x2A): a rewrapped migration blob and its random pad, converted into a
// key wrapped by parentHandle (to (*outDataSize, *outData)); the parent's session optional.
[[nodiscard]] TSS_RESULT Tcsip_ConvertMigrationBlob_Internal(TCS_CONTEXT_HANDLE hContext,
                                                             TCS_KEY_HANDLE parentHandle,
                                                             UINT32 inDataSize, const BYTE* inData,
                                                             UINT32 randomSize, const BYTE* random,
                                                             TPM_AUTH* parentAuth,
                                                             UINT32* outDataSize, BYTE** outData);

// TPM_AuthorizeMigrationKey (0x2B): the owner (session required) approves MigrationKey (one
// TPM_PUBKEY) as a destination for migrateScheme; the TPM_MIGRATIONKEYAUTH goes to
// (*MigrationKeyAuthSize, *MigrationKeyAuth).
[[nodiscard]] TSS_RESULT Tcsip_AuthorizeMigrationKey_Internal(
    TCS_CONTEXT_HANDLE hContext, TPM_MIGRATE_SCHEME migrateScheme, UINT32 MigrationKeySize,
    const BYTE* MigrationKey, TPM_AUTH* ownerAuth, UINT32* MigrationKeyAuthSize,
    BYTE** MigrationKeyAuth);

// TPM_MigrateKey (0x25): the migration-authority key hMaKey decrypts inData and re-encrypts it for
// PublicKey (one TPM_PUBKEY); ownerAuth is the session of hMaKey (optional for a key that needs
// none). The result goes to (*outDataSize, *outData).
[[nodiscard]] TSS_RESULT Tcsip_MigrateKey_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   TCS_KEY_HANDLE hMaKey, UINT32 PublicKeySize,
                                                   const BYTE* PublicKey, UINT32 inDataSize,
                                                   const BYTE* inData, TPM_AUTH* ownerAuth,
                                                   UINT32* outDataSize, BYTE** outData);

}  // namespace kesttcs
