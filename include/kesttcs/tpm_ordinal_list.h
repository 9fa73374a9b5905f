/* Every TPM 1.2 command ordinal, by its TPM name: X(name, value). One list for the service and
 * its clients: the service makes its C++ constants from it (tpm12/tpm_ordinals.h), clients their C
 * constants (<kesttcs/tpm_ordinals.h>). The vendor ordinals are the service's own business and are
 * not here. */
#ifndef KESTTCS_TPM_ORDINAL_LIST_H
#define KESTTCS_TPM_ORDINAL_LIST_H

#define KESTTCS_TPM_ORDINALS(X)                      \
  X(TPM_ORD_ActivateIdentity, 0x0000007A)            \
  X(TPM_ORD_AuthorizeMigrationKey, 0x0000002B)       \
  X(TPM_ORD_CMK_ApproveMA, 0x0000001D)               \
  X(TPM_ORD_CMK_ConvertMigration, 0x00000024)        \
  X(TPM_ORD_CMK_CreateBlob, 0x0000001B)              \
  X(TPM_ORD_CMK_CreateKey, 0x00000013)               \
  X(TPM_ORD_CMK_CreateTicket, 0x00000012)            \
  X(TPM_ORD_CMK_SetRestrictions, 0x0000001C)         \
  X(TPM_ORD_CertifyKey, 0x00000032)                  \
  X(TPM_ORD_CertifyKey2, 0x00000033)                 \
  X(TPM_ORD_CertifySelfTest, 0x00000052)             \
  X(TPM_ORD_ChangeAuth, 0x0000000C)                  \
  X(TPM_ORD_ChangeAuthAsymFinish, 0x0000000F)        \
  X(TPM_ORD_ChangeAuthAsymStart, 0x0000000E)         \
  X(TPM_ORD_ChangeAuthOwner, 0x00000010)             \
  X(TPM_ORD_ContinueSelfTest, 0x00000053)            \
  X(TPM_ORD_ConvertMigrationBlob, 0x0000002A)        \
  X(TPM_ORD_CreateCounter, 0x000000DC)               \
  X(TPM_ORD_CreateEndorsementKeyPair, 0x00000078)    \
  X(TPM_ORD_CreateMaintenanceArchive, 0x0000002C)    \
  X(TPM_ORD_CreateMigrationBlob, 0x00000028)         \
  X(TPM_ORD_CreateRevocableEK, 0x0000007F)           \
  X(TPM_ORD_CreateWrapKey, 0x0000001F)               \
  X(TPM_ORD_DAA_Join, 0x00000029)                    \
  X(TPM_ORD_DAA_Sign, 0x00000031)                    \
  X(TPM_ORD_DSAP, 0x00000011)                        \
  X(TPM_ORD_Delegate_CreateKeyDelegat, 0x000000D4)   \
  X(TPM_ORD_Delegate_CreateOwnerDele, 0x000000D5)    \
  X(TPM_ORD_Delegate_LoadOwnerDelega, 0x000000D8)    \
  X(TPM_ORD_Delegate_Manage, 0x000000D2)             \
  X(TPM_ORD_Delegate_ReadTable, 0x000000DB)          \
  X(TPM_ORD_Delegate_UpdateVerification, 0x000000D1) \
  X(TPM_ORD_Delegate_VerifyDelegation, 0x000000D6)   \
  X(TPM_ORD_DirRead, 0x0000001A)                     \
  X(TPM_ORD_DirWriteAuth, 0x00000019)                \
  X(TPM_ORD_DisableForceClear, 0x0000005E)           \
  X(TPM_ORD_DisableOwnerClear, 0x0000005C)           \
  X(TPM_ORD_DisablePubekRead, 0x0000007E)            \
  X(TPM_ORD_EstablishTransport, 0x000000E6)          \
  X(TPM_ORD_EvictKey, 0x00000022)                    \
  X(TPM_ORD_ExecuteTransport, 0x000000E7)            \
  X(TPM_ORD_Extend, 0x00000014)                      \
  X(TPM_ORD_FieldUpgrade, 0x000000AA)                \
  X(TPM_ORD_FlushSpecific, 0x000000BA)               \
  X(TPM_ORD_ForceClear, 0x0000005D)                  \
  X(TPM_ORD_GetAuditDigest, 0x00000085)              \
  X(TPM_ORD_GetAuditDigestSigned, 0x00000086)        \
  X(TPM_ORD_GetAuditEvent, 0x00000082)               \
  X(TPM_ORD_GetAuditEventSigned, 0x00000083)         \
  X(TPM_ORD_GetCapability, 0x00000065)               \
  X(TPM_ORD_GetCapabilityOwner, 0x00000066)          \
  X(TPM_ORD_GetCapabilitySigned, 0x00000064)         \
  X(TPM_ORD_GetOrdinalAuditStatus, 0x0000008C)       \
  X(TPM_ORD_GetPubKey, 0x00000021)                   \
  X(TPM_ORD_GetRandom, 0x00000046)                   \
  X(TPM_ORD_GetTestResult, 0x00000054)               \
  X(TPM_ORD_GetTicks, 0x000000F1)                    \
  X(TPM_ORD_IncrementCounter, 0x000000DD)            \
  X(TPM_ORD_Init, 0x00000097)                        \
  X(TPM_ORD_KeyControlOwner, 0x00000023)             \
  X(TPM_ORD_KillMaintenanceFeature, 0x0000002E)      \
  X(TPM_ORD_LoadAuthContext, 0x000000B7)             \
  X(TPM_ORD_LoadContext, 0x000000B9)                 \
  X(TPM_ORD_LoadKey, 0x00000020)                     \
  X(TPM_ORD_LoadKey2, 0x00000041)                    \
  X(TPM_ORD_LoadKeyContext, 0x000000B5)              \
  X(TPM_ORD_LoadMaintenanceArchive, 0x0000002D)      \
  X(TPM_ORD_LoadManuMaintPub, 0x0000002F)            \
  X(TPM_ORD_MakeIdentity, 0x00000079)                \
  X(TPM_ORD_MigrateKey, 0x00000025)                  \
  X(TPM_ORD_NV_DefineSpace, 0x000000CC)              \
  X(TPM_ORD_NV_ReadValue, 0x000000CF)                \
  X(TPM_ORD_NV_ReadValueAuth, 0x000000D0)            \
  X(TPM_ORD_NV_WriteValue, 0x000000CD)               \
  X(TPM_ORD_NV_WriteValueAuth, 0x000000CE)           \
  X(TPM_ORD_OIAP, 0x0000000A)                        \
  X(TPM_ORD_OSAP, 0x0000000B)                        \
  X(TPM_ORD_OwnerClear, 0x0000005B)                  \
  X(TPM_ORD_OwnerReadInternalPub, 0x00000081)        \
  X(TPM_ORD_OwnerReadPubek, 0x0000007D)              \
  X(TPM_ORD_OwnerSetDisable, 0x0000006E)             \
  X(TPM_ORD_PCR_Reset, 0x000000C8)                   \
  X(TPM_ORD_PcrRead, 0x00000015)                     \
  X(TPM_ORD_PhysicalDisable, 0x00000070)             \
  X(TPM_ORD_PhysicalEnable, 0x0000006F)              \
  X(TPM_ORD_PhysicalSetDeactivated, 0x00000072)      \
  X(TPM_ORD_Quote, 0x00000016)                       \
  X(TPM_ORD_Quote2, 0x0000003E)                      \
  X(TPM_ORD_ReadCounter, 0x000000DE)                 \
  X(TPM_ORD_ReadManuMaintPub, 0x00000030)            \
  X(TPM_ORD_ReadPubek, 0x0000007C)                   \
  X(TPM_ORD_ReleaseCounter, 0x000000DF)              \
  X(TPM_ORD_ReleaseCounterOwner, 0x000000E0)         \
  X(TPM_ORD_ReleaseTransportSigned, 0x000000E8)      \
  X(TPM_ORD_Reset, 0x0000005A)                       \
  X(TPM_ORD_ResetLockValue, 0x00000040)              \
  X(TPM_ORD_RevokeTrust, 0x00000080)                 \
  X(TPM_ORD_SHA1Complete, 0x000000A2)                \
  X(TPM_ORD_SHA1CompleteExtend, 0x000000A3)          \
  X(TPM_ORD_SHA1Start, 0x000000A0)                   \
  X(TPM_ORD_SHA1Update, 0x000000A1)                  \
  X(TPM_ORD_SaveAuthContext, 0x000000B6)             \
  X(TPM_ORD_SaveContext, 0x000000B8)                 \
  X(TPM_ORD_SaveKeyContext, 0x000000B4)              \
  X(TPM_ORD_SaveState, 0x00000098)                   \
  X(TPM_ORD_Seal, 0x00000017)                        \
  X(TPM_ORD_Sealx, 0x0000003D)                       \
  X(TPM_ORD_SelfTestFull, 0x00000050)                \
  X(TPM_ORD_SetCapability, 0x0000003F)               \
  X(TPM_ORD_SetOperatorAuth, 0x00000074)             \
  X(TPM_ORD_SetOrdinalAuditStatus, 0x0000008D)       \
  X(TPM_ORD_SetOwnerInstall, 0x00000071)             \
  X(TPM_ORD_SetOwnerPointer, 0x00000075)             \
  X(TPM_ORD_SetRedirection, 0x0000009A)              \
  X(TPM_ORD_SetTempDeactivated, 0x00000073)          \
  X(TPM_ORD_Sign, 0x0000003C)                        \
  X(TPM_ORD_Startup, 0x00000099)                     \
  X(TPM_ORD_StirRandom, 0x00000047)                  \
  X(TPM_ORD_TakeOwnership, 0x0000000D)               \
  X(TPM_ORD_Terminate_Handle, 0x00000096)            \
  X(TPM_ORD_TickStampBlob, 0x000000F2)               \
  X(TPM_ORD_UnBind, 0x0000001E)                      \
  X(TPM_ORD_Unseal, 0x00000018)

/* Ordinals of the TPM's connection to the platform, sent with locality 4 or by the platform. */
#define KESTTCS_TSC_ORDINALS(X)           \
  X(TSC_ORD_PhysicalPresence, 0x4000000A) \
  X(TSC_ORD_ResetEstablishmentBit, 0x4000000B)

#endif /* KESTTCS_TPM_ORDINAL_LIST_H */
