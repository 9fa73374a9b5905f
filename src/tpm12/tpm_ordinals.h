// Every TPM 1.2 command ordinal, by its TPM name, for the code that builds commands or looks at
// them. The vendor ordinals live with their users: the vendor commands (vendor_commands.h) and
// the vendor sequence the request manager admits (req_mgr.h).
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr TPM_COMMAND_CODE TPM_ORD_ActivateIdentity = 0x7A;
inline constexpr TPM_COMMAND_CODE TPM_ORD_AuthorizeMigrationKey = 0x2B;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_ApproveMA = 0x1D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_ConvertMigration = 0x24;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_CreateBlob = 0x1B;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_CreateKey = 0x13;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_CreateTicket = 0x12;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CMK_SetRestrictions = 0x1C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CertifyKey = 0x32;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CertifyKey2 = 0x33;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CertifySelfTest = 0x52;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ChangeAuth = 0xC;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ChangeAuthAsymFinish = 0xF;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ChangeAuthAsymStart = 0xE;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ChangeAuthOwner = 0x10;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ContinueSelfTest = 0x53;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ConvertMigrationBlob = 0x2A;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateCounter = 0xDC;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateEndorsementKeyPair = 0x78;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateMaintenanceArchive = 0x2C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateMigrationBlob = 0x28;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateRevocableEK = 0x7F;
inline constexpr TPM_COMMAND_CODE TPM_ORD_CreateWrapKey = 0x1F;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DAA_Join = 0x29;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DAA_Sign = 0x31;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DSAP = 0x11;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_CreateKeyDelegat = 0xD4;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_CreateOwnerDele = 0xD5;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_LoadOwnerDelega = 0xD8;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_Manage = 0xD2;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_ReadTable = 0xDB;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_UpdateVerification = 0xD1;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Delegate_VerifyDelegation = 0xD6;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DirRead = 0x1A;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DirWriteAuth = 0x19;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DisableForceClear = 0x5E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DisableOwnerClear = 0x5C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_DisablePubekRead = 0x7E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_EstablishTransport = 0xE6;
inline constexpr TPM_COMMAND_CODE TPM_ORD_EvictKey = 0x22;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ExecuteTransport = 0xE7;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Extend = 0x14;
inline constexpr TPM_COMMAND_CODE TPM_ORD_FieldUpgrade = 0xAA;
inline constexpr TPM_COMMAND_CODE TPM_ORD_FlushSpecific = 0xBA;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ForceClear = 0x5D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetAuditDigest = 0x85;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetAuditDigestSigned = 0x86;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetAuditEvent = 0x82;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetAuditEventSigned = 0x83;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetCapability = 0x65;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetCapabilityOwner = 0x66;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetCapabilitySigned = 0x64;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetOrdinalAuditStatus = 0x8C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetPubKey = 0x21;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetRandom = 0x46;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetTestResult = 0x54;
inline constexpr TPM_COMMAND_CODE TPM_ORD_GetTicks = 0xF1;
inline constexpr TPM_COMMAND_CODE TPM_ORD_IncrementCounter = 0xDD;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Init = 0x97;
inline constexpr TPM_COMMAND_CODE TPM_ORD_KeyControlOwner = 0x23;
inline constexpr TPM_COMMAND_CODE TPM_ORD_KillMaintenanceFeature = 0x2E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadAuthContext = 0xB7;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadContext = 0xB9;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadKey = 0x20;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadKey2 = 0x41;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadKeyContext = 0xB5;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadMaintenanceArchive = 0x2D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_LoadManuMaintPub = 0x2F;
inline constexpr TPM_COMMAND_CODE TPM_ORD_MakeIdentity = 0x79;
inline constexpr TPM_COMMAND_CODE TPM_ORD_MigrateKey = 0x25;
inline constexpr TPM_COMMAND_CODE TPM_ORD_NV_DefineSpace = 0xCC;
inline constexpr TPM_COMMAND_CODE TPM_ORD_NV_ReadValue = 0xCF;
inline constexpr TPM_COMMAND_CODE TPM_ORD_NV_ReadValueAuth = 0xD0;
inline constexpr TPM_COMMAND_CODE TPM_ORD_NV_WriteValue = 0xCD;
inline constexpr TPM_COMMAND_CODE TPM_ORD_NV_WriteValueAuth = 0xCE;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OIAP = 0xA;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OSAP = 0xB;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OwnerClear = 0x5B;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OwnerReadInternalPub = 0x81;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OwnerReadPubek = 0x7D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_OwnerSetDisable = 0x6E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_PCR_Reset = 0xC8;
inline constexpr TPM_COMMAND_CODE TPM_ORD_PcrRead = 0x15;
inline constexpr TPM_COMMAND_CODE TPM_ORD_PhysicalDisable = 0x70;
inline constexpr TPM_COMMAND_CODE TPM_ORD_PhysicalEnable = 0x6F;
inline constexpr TPM_COMMAND_CODE TPM_ORD_PhysicalSetDeactivated = 0x72;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Quote = 0x16;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Quote2 = 0x3E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReadCounter = 0xDE;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReadManuMaintPub = 0x30;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReadPubek = 0x7C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReleaseCounter = 0xDF;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReleaseCounterOwner = 0xE0;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ReleaseTransportSigned = 0xE8;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Reset = 0x5A;
inline constexpr TPM_COMMAND_CODE TPM_ORD_ResetLockValue = 0x40;
inline constexpr TPM_COMMAND_CODE TPM_ORD_RevokeTrust = 0x80;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SHA1Complete = 0xA2;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SHA1CompleteExtend = 0xA3;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SHA1Start = 0xA0;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SHA1Update = 0xA1;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SaveAuthContext = 0xB6;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SaveContext = 0xB8;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SaveKeyContext = 0xB4;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SaveState = 0x98;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Seal = 0x17;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Sealx = 0x3D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SelfTestFull = 0x50;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetCapability = 0x3F;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetOperatorAuth = 0x74;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetOrdinalAuditStatus = 0x8D;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetOwnerInstall = 0x71;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetOwnerPointer = 0x75;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetRedirection = 0x9A;
inline constexpr TPM_COMMAND_CODE TPM_ORD_SetTempDeactivated = 0x73;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Sign = 0x3C;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Startup = 0x99;
inline constexpr TPM_COMMAND_CODE TPM_ORD_StirRandom = 0x47;
inline constexpr TPM_COMMAND_CODE TPM_ORD_TakeOwnership = 0xD;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Terminate_Handle = 0x96;
inline constexpr TPM_COMMAND_CODE TPM_ORD_TickStampBlob = 0xF2;
inline constexpr TPM_COMMAND_CODE TPM_ORD_UnBind = 0x1E;
inline constexpr TPM_COMMAND_CODE TPM_ORD_Unseal = 0x18;

// Ordinals of the TPM's connection to the platform, sent with locality 4 or by the platform.
inline constexpr TPM_COMMAND_CODE TSC_ORD_PhysicalPresence = 0x4000000A;
inline constexpr TPM_COMMAND_CODE TSC_ORD_ResetEstablishmentBit = 0x4000000B;

}  // namespace kesttcs
