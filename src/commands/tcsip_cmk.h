// The certified-migration operations: the owner restricting which delegations may use certified
// migration keys, approving a migration-selection authority, and turning an authority's signature
// into a ticket; certified migration keys created under a parent, their migration blobs made for
// an approved destination and converted under a new parent. Each follows the pattern of the other
// authorised commands (command_exchange.h): keys named by handle are made resident first (a key
// that cannot be loaded gives TCS_E_INVALID_KEY), the caller's session passes through untouched,
// outputs land in the context's memory. Structures the TPM reads without a size in front
// (TPM_KEY12, TPM_PUBKEY, TPM_MIGRATIONKEYAUTH) must be exactly one structure, else
// TCS_E_BAD_PARAMETER.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_CMK_SetRestrictions (0x1C): which delegated key kinds may use certified migration keys; the
// owner's session required.
[[nodiscard]] TSS_RESULT Tcsip_CMK_SetRestrictions_Internal(TCS_CONTEXT_HANDLE hContext,
                                                            TSS_CMK_DELEGATE Restriction,
                                                            TPM_AUTH* ownerAuth);

// TPM_CMK_ApproveMA (0x1D): the owner (session required) approves the TPM_MSA_COMPOSITE whose
// digest is migrationAuthorityDigest; the approval ticket goes to *HmacMigAuthDigest.
[[nodiscard]] TSS_RESULT Tcsip_CMK_ApproveMA_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      const TPM_DIGEST& migrationAuthorityDigest,
                                                      TPM_AUTH* ownerAuth,
                                                      TPM_HMAC* HmacMigAuthDigest);

// TPM_CMK_CreateKey (0x13) under hWrappingKey: the usage secret by ADIP, the key template (one
// TPM_KEY12, *keyDataSize bytes at *prgbKeyData), the approval ticket and the authorities' digest,
// the parent's OSAP session required. On success (*keyDataSize, *prgbKeyData) become the new
// wrapped key in the context's memory; on failure they are left as they were.
[[nodiscard]] TSS_RESULT Tcsip_CMK_CreateKey_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hWrappingKey, const TPM_ENCAUTH& KeyUsageAuth,
    const TPM_HMAC& MigAuthApproval, const TPM_DIGEST& MigAuthorityDigest, UINT32* keyDataSize,
    BYTE** prgbKeyData, TPM_AUTH* pAuth);

// TPM_CMK_CreateTicket (0x12): the owner (session required) has the TPM check SigValue over
// SignedData with PublicVerifyKey (one TPM_PUBKEY); the signature ticket goes to *SigTicket.
[[nodiscard]] TSS_RESULT Tcsip_CMK_CreateTicket_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         UINT32 PublicVerifyKeySize,
                                                         const BYTE* PublicVerifyKey,
                                                         const TPM_DIGEST& SignedData,
                                                         UINT32 SigValueSize, const BYTE* SigValue,
                                                         TPM_AUTH* pOwnerAuth, TPM_HMAC* SigTicket);

// TPM_CMK_CreateBlob (0x1B): as Tcsip_CreateMigrationBlob for a certified migration key, with the
// authorities' list, and the restriction and signature tickets (each may be empty: the
// restricted-migration scheme needs neither). The parent's session optional. The random pad goes
// to (*randomSize, *random), the blob to (*outDataSize, *outData).
[[nodiscard]] TSS_RESULT Tcsip_CMK_CreateBlob_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TPM_MIGRATE_SCHEME migrationType,
    UINT32 MigrationKeyAuthSize, const BYTE* MigrationKeyAuth, const TPM_DIGEST& PubSourceKeyDigest,
    UINT32 msaListSize, const BYTE* msaList, UINT32 restrictTicketSize, const BYTE* restrictTicket,
    UINT32 sigTicketSize, const BYTE* sigTicket, UINT32 encDataSize, const BYTE* encData,
    TPM_AUTH* parentAuth, UINT32* randomSize, BYTE** random, UINT32* outDataSize, BYTE** outData);

// TPM_CMK_ConvertMigration (0x24): a migrated certified key (one TPM_KEY12, its private part
// still masked by `random`) with its tickets and the authorities' list, converted into a key
// wrapped by parentHandle (to (*outDataSize, *outData)); the parent's session optional.
[[nodiscard]] TSS_RESULT Tcsip_CMK_ConvertMigration_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, const TPM_CMK_AUTH& restrictTicket,
    const TPM_HMAC& sigTicket, UINT32 keyDataSize, const BYTE* prgbKeyData, UINT32 msaListSize,
    const BYTE* msaList, UINT32 randomSize, const BYTE* random, TPM_AUTH* parentAuth,
    UINT32* outDataSize, BYTE** outData);

}  // namespace kesttcs
