#include "commands/tcsip_owner.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "commands/tpm_metrics.h"
#include "keys/mem_cache.h"
#include "keys/owner_ctrl_keys.h"
#include "storage/persistent_storage.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// The endorsement key's handle for TPM_OwnerReadInternalPub.
constexpr TPM_KEY_HANDLE TPM_KH_EK = 0x40000006;

// Fixed bytes of the commands with caller-sized input: the header, the fixed parameters and the
// session trailer when there is one.
constexpr UINT32 kTakeOwnershipFixedBytes =
    kTpmHeaderSize + 2 + 4 + 4 + kAuthRequestTrailerSize;                // protocolID, two sizes
constexpr UINT32 kSetCapabilityFixedBytes = kTpmHeaderSize + 4 + 4 + 4;  // capArea, two sizes

std::span<const BYTE> Bytes(const BYTE* data, UINT32 size) { return {data, size}; }

bool Present(const BYTE* data, UINT32 size) { return size == 0 || data != nullptr; }

// Checks the context and the required owner (or operator) session, then sends `fields` with its
// trailer.
template <class... Fields>
TSS_RESULT RunWithSession(TpmCommand& command, TPM_AUTH* auth, const Fields&... fields) {
  if (TSS_RESULT rc = command.Check()) return rc;
  if (auth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  return command.RunAuthorised(fields...);
}

// An owner command without outputs.
template <class... Fields>
TSS_RESULT RunOwnerCommand(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal,
                           TPM_AUTH* ownerAuth, const Fields&... fields) {
  TpmCommand command(hContext, ordinal);
  return RunWithSession(command, ownerAuth, fields...);
}

// Exactly one TPM_KEY: the new SRK's parameters as the client sent them, or the SRK the TPM made.
TSS_RESULT ReadOneKey(std::span<const BYTE> bytes, TPM_KEY* key) {
  BlobReader reader(bytes);
  if (TSS_RESULT rc = UnloadBlob(reader, key)) return rc;
  return reader.remaining() == 0 ? TSS_SUCCESS : TCS_E_BAD_PARAMETER;
}

}  // namespace

TSS_RESULT Tcsip_TakeOwnership_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PROTOCOL_ID protocolID,
                                        UINT32 encOwnerAuthSize, const BYTE* encOwnerAuth,
                                        UINT32 encSrkAuthSize, const BYTE* encSrkAuth,
                                        UINT32 srkInfoSize, const BYTE* srkInfo,
                                        TPM_AUTH* ownerAuth, UINT32* srkKeySize, BYTE** srkKey) {
  if (srkKeySize == nullptr || srkKey == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_TakeOwnership);
  if (TSS_RESULT rc = command.Check()) return rc;
  const UINT64 variableBytes = UINT64{encOwnerAuthSize} + encSrkAuthSize + srkInfoSize;
  if (ownerAuth == nullptr || !Present(encOwnerAuth, encOwnerAuthSize) ||
      !Present(encSrkAuth, encSrkAuthSize) || !Present(srkInfo, srkInfoSize) ||
      !FitsCommandBuffer(variableBytes, kTakeOwnershipFixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  TPM_KEY srkParams;
  if (TSS_RESULT rc = ReadOneKey(Bytes(srkInfo, srkInfoSize), &srkParams)) return rc;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc =
          command.RunAuthorised(protocolID, encOwnerAuthSize, Bytes(encOwnerAuth, encOwnerAuthSize),
                                encSrkAuthSize, Bytes(encSrkAuth, encSrkAuthSize), srkParams)) {
    return rc;
  }
  std::span<const BYTE> srk;
  if (TSS_RESULT rc = command.TakeStructure<TPM_KEY>(&srk)) return rc;
  // The key cache holds the new SRK in place of the old one, under the SRK's fixed handle.
  TPM_KEY newSrk;
  if (TSS_RESULT rc = ReadOneKey(srk, &newSrk)) return rc;
  if (TSS_RESULT rc = replaceEntry(kSrkKeyHandle, kSrkKeyHandle, newSrk)) return rc;
  return command.HandOut(srk, srkKeySize, srkKey);
}

TSS_RESULT Tcsip_OwnerClear_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth) {
  if (TSS_RESULT rc = RunOwnerCommand(hContext, TPM_ORD_OwnerClear, ownerAuth)) return rc;
  // The TPM flushed every owner-evict key with the owner.
  if (TSS_RESULT rc = ReleaseAllOwnerHeldKeys()) return rc;
  return ps_delete();
}

TSS_RESULT Tcsip_ChangeAuthOwner_Internal(TCS_CONTEXT_HANDLE hContext, TPM_PROTOCOL_ID protocolID,
                                          const TPM_ENCAUTH& newAuth, TPM_ENTITY_TYPE entityType,
                                          TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_ChangeAuthOwner, ownerAuth, protocolID, newAuth,
                         entityType);
}

TSS_RESULT Tcsip_OwnerSetDisable_Internal(TCS_CONTEXT_HANDLE hContext, TSS_BOOL disableState,
                                          TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_OwnerSetDisable, ownerAuth, BYTE{disableState});
}

TSS_RESULT Tcsip_DisableOwnerClear_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_DisableOwnerClear, ownerAuth);
}

TSS_RESULT Tcsip_DisablePubekRead_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_DisablePubekRead, ownerAuth);
}

TSS_RESULT Tcsip_ResetLockValue_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_ResetLockValue, ownerAuth);
}

TSS_RESULT Tcsip_GetCapabilityOwner_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* pOwnerAuth,
                                             TPM_VERSION* pVersion, UINT32* pNonVolatileFlags,
                                             UINT32* pVolatileFlags) {
  if (pVersion == nullptr || pNonVolatileFlags == nullptr || pVolatileFlags == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_GetCapabilityOwner);
  if (TSS_RESULT rc = RunWithSession(command, pOwnerAuth)) return rc;
  TPM_VERSION version{};
  UINT32 nonVolatileFlags = 0;
  UINT32 volatileFlags = 0;
  if (TSS_RESULT rc = command.Unload(&version, &nonVolatileFlags, &volatileFlags)) return rc;
  *pVersion = version;
  *pNonVolatileFlags = nonVolatileFlags;
  *pVolatileFlags = volatileFlags;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_OwnerReadPubek_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth,
                                         UINT32* pubEndorsementKeySize, BYTE** pubEndorsementKey) {
  if (pubEndorsementKeySize == nullptr || pubEndorsementKey == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  const bool readInternalPub = TpmIsVersion12() || isOwnVendorTpm();
  TpmCommand command(hContext,
                     readInternalPub ? TPM_ORD_OwnerReadInternalPub : TPM_ORD_OwnerReadPubek);
  const TSS_RESULT result = readInternalPub ? RunWithSession(command, ownerAuth, TPM_KH_EK)
                                            : RunWithSession(command, ownerAuth);
  if (result != TSS_SUCCESS) return result;
  return command.UnloadStructure<TPM_PUBKEY>(pubEndorsementKeySize, pubEndorsementKey);
}

TSS_RESULT Tcsip_SetTempDeactivated2_Internal(TCS_CONTEXT_HANDLE hContext,
                                              TPM_AUTH* pOperatorAuth) {
  TpmCommand command(hContext, TPM_ORD_SetTempDeactivated);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.UseSessions(pOperatorAuth)) return rc;
  return command.RunAuthorised();
}

TSS_RESULT Tcsip_SetCapability_Internal(TCS_CONTEXT_HANDLE hContext, TPM_CAPABILITY_AREA capArea,
                                        UINT32 subCapSize, const BYTE* subCap, UINT32 valueSize,
                                        const BYTE* value, TPM_AUTH* pOwnerAuth) {
  TpmCommand command(hContext, TPM_ORD_SetCapability);
  if (TSS_RESULT rc = command.Check()) return rc;
  const UINT32 fixedBytes =
      kSetCapabilityFixedBytes + (pOwnerAuth != nullptr ? kAuthRequestTrailerSize : 0);
  if (!Present(subCap, subCapSize) || !Present(value, valueSize) ||
      !FitsCommandBuffer(UINT64{subCapSize} + valueSize, fixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = command.UseSessions(pOwnerAuth)) return rc;
  return command.RunAuthorised(capArea, subCapSize, Bytes(subCap, subCapSize), valueSize,
                               Bytes(value, valueSize));
}

TSS_RESULT Tcsip_DirWriteAuth_Internal(TCS_CONTEXT_HANDLE hContext, TPM_DIRINDEX dirIndex,
                                       const TPM_DIRVALUE& newContents, TPM_AUTH* ownerAuth) {
  return RunOwnerCommand(hContext, TPM_ORD_DirWriteAuth, ownerAuth, dirIndex, newContents);
}

TSS_RESULT Tcsip_SetOperatorAuth_Internal(TCS_CONTEXT_HANDLE hContext,
                                          const TPM_SECRET& operatorAuth) {
  TpmCommand command(hContext, TPM_ORD_SetOperatorAuth);
  if (TSS_RESULT rc = command.Check()) return rc;
  return command.Run(TPM_TAG_RQU_COMMAND, operatorAuth);
}

}  // namespace kesttcs
