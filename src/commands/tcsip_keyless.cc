#include "commands/tcsip_keyless.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Fixed bytes of the commands with caller-sized input: the header plus the fixed parameters.
constexpr UINT32 kStirRandomFixedBytes = kTpmHeaderSize + 4;         // dataSize
constexpr UINT32 kPcrResetFixedBytes = kTpmHeaderSize;               // the selection is the blob
constexpr UINT32 kGetCapabilityFixedBytes = kTpmHeaderSize + 4 + 4;  // capArea, subCapSize
constexpr UINT32 kCreateEkFixedBytes = kTpmHeaderSize + TPM_SHA1_160_HASH_LEN;  // antiReplay

std::span<const BYTE> Bytes(const BYTE* data, UINT32 size) { return {data, size}; }

// An operation whose parameters (if any) are `fields` and that returns nothing.
template <class... Fields>
TSS_RESULT RunWithoutOutputs(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal,
                             const Fields&... fields) {
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  return command.Run(TPM_TAG_RQU_COMMAND, fields...);
}

// An operation whose parameters are `fields` and that returns one 20-byte value: PCRRead,
// Extend, DirRead.
template <class... Fields>
TSS_RESULT RunForDigest(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal, TPM_DIGEST* out,
                        const Fields&... fields) {
  if (out == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, fields...)) return rc;
  return command.Unload(out);
}

// Endorsement-key outputs (ReadPubek, CreateEndorsementKeyPair): a TPM_PUBKEY blob then the
// checksum. Both are checked before anything is handed out, so a short response writes nothing.
TSS_RESULT UnloadPubkeyAndChecksum(TpmCommand& command, UINT32* keySize, BYTE** key,
                                   TPM_DIGEST* checksum) {
  std::span<const BYTE> pubkey;
  TPM_DIGEST digest{};
  if (TSS_RESULT rc = command.TakeStructure<TPM_PUBKEY>(&pubkey)) return rc;
  if (TSS_RESULT rc = command.Unload(&digest)) return rc;
  if (TSS_RESULT rc = command.HandOut(pubkey, keySize, key)) return rc;
  *checksum = digest;
  return TSS_SUCCESS;
}

}  // namespace

TSS_RESULT Tcsip_GetRandom_Internal(TCS_CONTEXT_HANDLE hContext, UINT32* bytesRequested,
                                    BYTE** randomBytes) {
  if (bytesRequested == nullptr || randomBytes == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_GetRandom);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, *bytesRequested)) return rc;
  return command.UnloadSized(bytesRequested, randomBytes);
}

TSS_RESULT Tcsip_StirRandom_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 inDataSize,
                                     const BYTE* inData) {
  TpmCommand command(hContext, TPM_ORD_StirRandom);
  if (TSS_RESULT rc = command.Check(kStirRandomFixedBytes, inDataSize, inData)) return rc;
  return command.Run(TPM_TAG_RQU_COMMAND, inDataSize, Bytes(inData, inDataSize));
}

TSS_RESULT Tcsip_PcrRead_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PCRINDEX pcrNum,
                                  TPM_PCRVALUE* outDigest) {
  return RunForDigest(hContext, TPM_ORD_PcrRead, outDigest, pcrNum);
}

TSS_RESULT Tcsip_Extend_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PCRINDEX pcrNum,
                                 const TPM_DIGEST& inDigest, TPM_PCRVALUE* outDigest) {
  return RunForDigest(hContext, TPM_ORD_Extend, outDigest, pcrNum, inDigest);
}

TSS_RESULT Tcsip_PcrReset_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 pcrTargetSize,
                                   const BYTE* pcrTarget) {
  TpmCommand command(hContext, TPM_ORD_PCR_Reset);
  if (TSS_RESULT rc = command.Check(kPcrResetFixedBytes, pcrTargetSize, pcrTarget)) return rc;
  return command.Run(TPM_TAG_RQU_COMMAND, Bytes(pcrTarget, pcrTargetSize));
}

TSS_RESULT Tcsip_GetCapability_Internal(TCS_CONTEXT_HANDLE hContext, TPM_CAPABILITY_AREA capArea,
                                        UINT32 subCapSize, const BYTE* subCap, UINT32* respSize,
                                        BYTE** resp) {
  if (respSize == nullptr || resp == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_GetCapability);
  if (TSS_RESULT rc = command.Check(kGetCapabilityFixedBytes, subCapSize, subCap)) return rc;
  if (TSS_RESULT rc =
          command.Run(TPM_TAG_RQU_COMMAND, capArea, subCapSize, Bytes(subCap, subCapSize))) {
    return rc;
  }
  return command.UnloadSized(respSize, resp);
}

TSS_RESULT Tcsip_SelfTestFull_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_SelfTestFull);
}

TSS_RESULT Tcsip_ContinueSelfTest_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_ContinueSelfTest);
}

TSS_RESULT Tcsip_GetTestResult_Internal(TCS_CONTEXT_HANDLE hContext, UINT32* outDataSize,
                                        BYTE** outData) {
  if (outDataSize == nullptr || outData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_GetTestResult);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND)) return rc;
  return command.UnloadSized(outDataSize, outData);
}

TSS_RESULT Tcsip_ReadPubek_Internal(TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay,
                                    UINT32* pubEndorsementKeySize, BYTE** pubEndorsementKey,
                                    TPM_DIGEST* checksum) {
  if (pubEndorsementKeySize == nullptr || pubEndorsementKey == nullptr || checksum == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_ReadPubek);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, antiReplay)) return rc;
  return UnloadPubkeyAndChecksum(command, pubEndorsementKeySize, pubEndorsementKey, checksum);
}

TSS_RESULT Tcsip_TPM_ReadCurrentTicks_Internal(TCS_CONTEXT_HANDLE hContext, UINT32* pulCurrentTime,
                                               BYTE** prgbCurrentTime) {
  if (pulCurrentTime == nullptr || prgbCurrentTime == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_GetTicks);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND)) return rc;
  return command.UnloadStructure<TPM_CURRENT_TICKS>(pulCurrentTime, prgbCurrentTime);
}

TSS_RESULT Tcsip_ReadCounter_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 idCounter,
                                      TPM_COUNTER_VALUE* counterValue) {
  if (counterValue == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_ReadCounter);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, idCounter)) return rc;
  TPM_COUNTER_VALUE value;
  if (TSS_RESULT rc = command.Unload(&value)) return rc;
  *counterValue = value;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_DirRead_Internal(TCS_CONTEXT_HANDLE hContext, TPM_DIRINDEX dirIndex,
                                  TPM_DIGEST* dirValue) {
  return RunForDigest(hContext, TPM_ORD_DirRead, dirValue, dirIndex);
}

TSS_RESULT Tcsip_PhysicalPresence_Internal(TCS_CONTEXT_HANDLE hContext, UINT16 fPhysicalPresence) {
  return RunWithoutOutputs(hContext, TSC_ORD_PhysicalPresence, fPhysicalPresence);
}

TSS_RESULT Tcsip_PhysicalEnable_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_PhysicalEnable);
}

TSS_RESULT Tcsip_PhysicalDisable_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_PhysicalDisable);
}

TSS_RESULT Tcsip_SetTempDeactivated_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_SetTempDeactivated);
}

TSS_RESULT Tcsip_ForceClear_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_ForceClear);
}

TSS_RESULT Tcsip_DisableForceClear_Internal(TCS_CONTEXT_HANDLE hContext) {
  return RunWithoutOutputs(hContext, TPM_ORD_DisableForceClear);
}

TSS_RESULT Tcsip_PhysicalSetDeactivated_Internal(TCS_CONTEXT_HANDLE hContext, TSS_BOOL state) {
  return RunWithoutOutputs(hContext, TPM_ORD_PhysicalSetDeactivated, BYTE{state});
}

TSS_RESULT Tcsip_SetOwnerInstall_Internal(TCS_CONTEXT_HANDLE hContext, TSS_BOOL state) {
  return RunWithoutOutputs(hContext, TPM_ORD_SetOwnerInstall, BYTE{state});
}

TSS_RESULT Tcsip_CreateEndorsementKeyPair_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   const TPM_NONCE& antiReplay,
                                                   UINT32 endorsementKeyInfoSize,
                                                   const BYTE* endorsementKeyInfo,
                                                   UINT32* endorsementKeySize,
                                                   BYTE** endorsementKey, TPM_DIGEST* checksum) {
  if (endorsementKeySize == nullptr || endorsementKey == nullptr || checksum == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CreateEndorsementKeyPair);
  if (TSS_RESULT rc =
          command.Check(kCreateEkFixedBytes, endorsementKeyInfoSize, endorsementKeyInfo)) {
    return rc;
  }
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, antiReplay,
                                  Bytes(endorsementKeyInfo, endorsementKeyInfoSize))) {
    return rc;
  }
  return UnloadPubkeyAndChecksum(command, endorsementKeySize, endorsementKey, checksum);
}

}  // namespace kesttcs
