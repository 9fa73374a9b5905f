// The TCS operations that pass one TPM command through without naming a key or carrying an
// authorisation session: random numbers, PCRs, capabilities, self tests, the endorsement key,
// ticks, counters, DIRs, physical presence and the owner-install and clear switches.
//
// Every function follows one pattern: check the context (its result on failure), check pointers
// and the size bound (TCS_E_BAD_PARAMETER, nothing sent), marshal the command with tag 0x00C1,
// send it with req_mgr_submit, and return the request manager's failure or the TPM's return code
// mapped as 0xE0280000 | code. Only when that is 0 are outputs written: fixed-size outputs into the
// caller's objects, variable-size ones as (size, buffer) pairs whose buffers are new blocks of the
// context's memory (freed by Tcsi_FreeMemory or with the context; TCS_E_OUTOFMEMORY when they
// cannot be allocated). A response too short for its outputs gives TCS_E_BAD_PARAMETER.
//
// Locks: the TPM lock (through req_mgr_submit), and briefly the context list and the memory table.
#pragma once

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// TPM_GetRandom (0x46): asks for *bytesRequested bytes; on success *bytesRequested is the number
// delivered and *randomBytes holds them.
[[nodiscard]] TSS_RESULT Tcsip_GetRandom_Internal(TCS_CONTEXT_HANDLE hContext,
                                                  UINT32* bytesRequested, BYTE** randomBytes);

// TPM_StirRandom (0x47): adds inDataSize bytes of entropy. An input with inDataSize + 14 > 4096 is
// refused with TCS_E_BAD_PARAMETER.
[[nodiscard]] TSS_RESULT Tcsip_StirRandom_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 inDataSize,
                                                   const BYTE* inData);

// TPM_PCRRead (0x15): the value of PCR pcrNum into *outDigest.
[[nodiscard]] TSS_RESULT Tcsip_PcrRead_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PCRINDEX pcrNum,
                                                TPM_PCRVALUE* outDigest);

// TPM_Extend (0x14): extends PCR pcrNum with inDigest; the new value into *outDigest.
[[nodiscard]] TSS_RESULT Tcsip_Extend_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PCRINDEX pcrNum,
                                               const TPM_DIGEST& inDigest, TPM_PCRVALUE* outDigest);

// TPM_PCR_Reset (0xC8): resets the PCRs of the TPM_PCR_SELECTION blob pcrTarget, passed through
// as the caller gave it. Bound: pcrTargetSize + 10 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_PcrReset_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 pcrTargetSize,
                                                 const BYTE* pcrTarget);

// TPM_GetCapability (0x65): capArea and the subCapSize bytes of subCap; the TPM's answer into
// (*respSize, *resp). Bound: subCapSize + 18 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_GetCapability_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      TPM_CAPABILITY_AREA capArea,
                                                      UINT32 subCapSize, const BYTE* subCap,
                                                      UINT32* respSize, BYTE** resp);

// TPM_SelfTestFull (0x50), TPM_ContinueSelfTest (0x53): no parameters, no outputs.
[[nodiscard]] TSS_RESULT Tcsip_SelfTestFull_Internal(TCS_CONTEXT_HANDLE hContext);
[[nodiscard]] TSS_RESULT Tcsip_ContinueSelfTest_Internal(TCS_CONTEXT_HANDLE hContext);

// TPM_GetTestResult (0x54): the TPM's vendor-specific test result into (*outDataSize, *outData).
[[nodiscard]] TSS_RESULT Tcsip_GetTestResult_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      UINT32* outDataSize, BYTE** outData);

// TPM_ReadPubek (0x7C): the public endorsement key as a TPM_PUBKEY blob into
// (*pubEndorsementKeySize, *pubEndorsementKey) and the TPM's checksum into *checksum.
[[nodiscard]] TSS_RESULT Tcsip_ReadPubek_Internal(TCS_CONTEXT_HANDLE hContext,
                                                  const TPM_NONCE& antiReplay,
                                                  UINT32* pubEndorsementKeySize,
                                                  BYTE** pubEndorsementKey, TPM_DIGEST* checksum);

// TPM_GetTicks (0xF1): the TPM_CURRENT_TICKS blob (32 bytes) into (*pulCurrentTime,
// *prgbCurrentTime).
[[nodiscard]] TSS_RESULT Tcsip_TPM_ReadCurrentTicks_Internal(TCS_CONTEXT_HANDLE hContext,
                                                             UINT32* pulCurrentTime,
                                                             BYTE** prgbCurrentTime);

// TPM_ReadCounter (0xDE): counter idCounter into *counterValue.
[[nodiscard]] TSS_RESULT Tcsip_ReadCounter_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 idCounter,
                                                    TPM_COUNTER_VALUE* counterValue);

// TPM_DirRead (0x1A): DIR dirIndex into *dirValue.
[[nodiscard]] TSS_RESULT Tcsip_DirRead_Internal(TCS_CONTEXT_HANDLE hContext, TPM_DIRINDEX dirIndex,
                                                TPM_DIGEST* dirValue);

// TSC_PhysicalPresence (0x4000000A) with the 16-bit physical-presence flags.
[[nodiscard]] TSS_RESULT Tcsip_PhysicalPresence_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         UINT16 fPhysicalPresence);

// TPM_PhysicalEnable (0x6F), TPM_PhysicalDisable (0x70), TPM_SetTempDeactivated (0x73, the form
// without authorisation), TPM_ForceClear (0x5D), TPM_DisableForceClear (0x5E): no parameters.
[[nodiscard]] TSS_RESULT Tcsip_PhysicalEnable_Internal(TCS_CONTEXT_HANDLE hContext);
[[nodiscard]] TSS_RESULT Tcsip_PhysicalDisable_Internal(TCS_CONTEXT_HANDLE hContext);
[[nodiscard]] TSS_RESULT Tcsip_SetTempDeactivated_Internal(TCS_CONTEXT_HANDLE hContext);
[[nodiscard]] TSS_RESULT Tcsip_ForceClear_Internal(TCS_CONTEXT_HANDLE hContext);
[[nodiscard]] TSS_RESULT Tcsip_DisableForceClear_Internal(TCS_CONTEXT_HANDLE hContext);

// TPM_PhysicalSetDeactivated (0x72) and TPM_SetOwnerInstall (0x71): one boolean byte, sent as
// given.
[[nodiscard]] TSS_RESULT Tcsip_PhysicalSetDeactivated_Internal(TCS_CONTEXT_HANDLE hContext,
                                                               TSS_BOOL state);
[[nodiscard]] TSS_RESULT Tcsip_SetOwnerInstall_Internal(TCS_CONTEXT_HANDLE hContext,
                                                        TSS_BOOL state);

// TPM_CreateEndorsementKeyPair (0x78): antiReplay and the TPM_KEY_PARMS blob endorsementKeyInfo;
// the new public key as a TPM_PUBKEY blob into (*endorsementKeySize, *endorsementKey) and the
// checksum into *checksum. Bound: endorsementKeyInfoSize + 30 <= 4096.
[[nodiscard]] TSS_RESULT Tcsip_CreateEndorsementKeyPair_Internal(
    TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay, UINT32 endorsementKeyInfoSize,
    const BYTE* endorsementKeyInfo, UINT32* endorsementKeySize, BYTE** endorsementKey,
    TPM_DIGEST* checksum);

}  // namespace kesttcs
