#include "keys/key_commands.h"

#include <kesttcs/tcs_results.h>

#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

TSS_RESULT GetLoadedKeyHandles(std::vector<TPM_KEY_HANDLE>* handles) {
  KeyCommand command(TPM_ORD_GetCapability);
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, TPM_CAP_KEY_HANDLE, UINT32{0})) return rc;
  UINT32 respSize = 0;
  UINT16 count = 0;
  if (TSS_RESULT rc = command.Unload(&respSize, &count)) return rc;
  if (respSize < 2 || (respSize - 2) / 4 < count) return TCS_E_BAD_PARAMETER;
  std::vector<TPM_KEY_HANDLE> list(count);
  for (TPM_KEY_HANDLE& handle : list) {
    if (TSS_RESULT rc = UnloadBlobs(command.Outputs(), &handle)) return rc;
  }
  *handles = std::move(list);
  return TSS_SUCCESS;
}

TSS_RESULT CheckKeyFits(const TPM_KEY_PARMS& parms, bool* fits) {
  std::array<BYTE, kTpmBlobSize> packed{};
  BlobWriter writer(packed);
  if (TSS_RESULT rc = LoadBlob(writer, parms)) return rc;
  KeyCommand command(TPM_ORD_GetCapability);
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, TPM_CAP_CHECK_LOADED,
                                  UINT32{writer.offset()}, writer.written())) {
    return rc;
  }
  UINT32 respSize = 0;
  BYTE answer = 0;
  if (TSS_RESULT rc = command.Unload(&respSize, &answer)) return rc;
  *fits = answer != 0;
  return TSS_SUCCESS;
}

TSS_RESULT OpenOiap(TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven) {
  KeyCommand command(TPM_ORD_OIAP);
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND)) return rc;
  return command.Unload(authHandle, nonceEven);
}

}  // namespace kesttcs
