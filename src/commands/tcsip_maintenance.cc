#include "commands/tcsip_maintenance.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/authorised_command.h"
#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Fixed bytes: the header, the fixed parameters and the session trailer when there is one.
constexpr UINT32 kLoadArchiveFixedBytes = kTpmHeaderSize + kAuthRequestTrailerSize;
constexpr UINT32 kLoadManuMaintPubFixedBytes = kTpmHeaderSize + TPM_SHA1_160_HASH_LEN;

}  // namespace

TSS_RESULT Tcsip_CreateMaintenanceArchive_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   TSS_BOOL generateRandom, TPM_AUTH* ownerAuth,
                                                   UINT32* randomSize, BYTE** random,
                                                   UINT32* archiveSize, BYTE** archive) {
  if (randomSize == nullptr || random == nullptr || archiveSize == nullptr || archive == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_CreateMaintenanceArchive);
  if (TSS_RESULT rc = RunWithRequiredSession(command, ownerAuth, BYTE{generateRandom})) return rc;
  // Both sizes are checked against the response before either block is handed out.
  BlobReader& outputs = command.Outputs();
  UINT32 size = 0;
  std::span<const BYTE> randomBytes;
  std::span<const BYTE> archiveBytes;
  if (TSS_RESULT rc = UnloadBlob_UINT32(outputs, &size)) return rc;
  if (TSS_RESULT rc = outputs.Take(size, randomBytes)) return rc;
  if (TSS_RESULT rc = UnloadBlob_UINT32(outputs, &size)) return rc;
  if (TSS_RESULT rc = outputs.Take(size, archiveBytes)) return rc;
  if (TSS_RESULT rc = command.HandOut(randomBytes, randomSize, random)) return rc;
  return command.HandOut(archiveBytes, archiveSize, archive);
}

TSS_RESULT Tcsip_LoadMaintenanceArchive_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 dataInSize,
                                                 const BYTE* dataIn, TPM_AUTH* ownerAuth,
                                                 UINT32* dataOutSize, BYTE** dataOut) {
  if (dataOutSize == nullptr || dataOut == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_LoadMaintenanceArchive);
  if (TSS_RESULT rc = command.Check(kLoadArchiveFixedBytes, dataInSize, dataIn)) return rc;
  if (TSS_RESULT rc =
          RunWithRequiredSession(command, ownerAuth, std::span<const BYTE>(dataIn, dataInSize))) {
    return rc;
  }
  return command.UnloadRest(dataOutSize, dataOut);
}

TSS_RESULT Tcsip_KillMaintenanceFeature_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth) {
  TpmCommand command(hContext, TPM_ORD_KillMaintenanceFeature);
  return RunWithRequiredSession(command, ownerAuth);
}

TSS_RESULT Tcsip_LoadManuMaintPub_Internal(TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay,
                                           UINT32 PubKeySize, const BYTE* PubKey,
                                           TPM_DIGEST* checksum) {
  if (checksum == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_LoadManuMaintPub);
  if (TSS_RESULT rc = command.Check(kLoadManuMaintPubFixedBytes, PubKeySize, PubKey)) return rc;
  if (TSS_RESULT rc =
          command.Run(TPM_TAG_RQU_COMMAND, antiReplay, std::span<const BYTE>(PubKey, PubKeySize))) {
    return rc;
  }
  return command.Unload(checksum);
}

TSS_RESULT Tcsip_ReadManuMaintPub_Internal(TCS_CONTEXT_HANDLE hContext, const TPM_NONCE& antiReplay,
                                           TPM_DIGEST* checksum) {
  if (checksum == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_ReadManuMaintPub);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, antiReplay)) return rc;
  return command.Unload(checksum);
}

}  // namespace kesttcs
