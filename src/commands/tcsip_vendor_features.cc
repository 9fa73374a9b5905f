#include "commands/tcsip_vendor_features.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/authorised_command.h"
#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// The header and the fixed parameters: key slot, redirection command and data size.
constexpr UINT32 kSetRedirectionFixedBytes = kTpmHeaderSize + 4 + 4 + 4;

}  // namespace

TSS_RESULT Tcsip_FieldUpgrade_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 dataInSize,
                                       const BYTE* dataIn, TPM_AUTH* ownerAuth, UINT32* dataOutSize,
                                       BYTE** dataOut) {
  if (dataOutSize == nullptr || dataOut == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, TPM_ORD_FieldUpgrade);
  if (TSS_RESULT rc = command.Check(WithTrailers(kTpmHeaderSize, ownerAuth), dataInSize, dataIn)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(std::span<const BYTE>(dataIn, dataInSize))) return rc;
  return command.UnloadRest(dataOutSize, dataOut);
}

TSS_RESULT Tcsip_SetRedirection_Internal(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle,
                                         TPM_REDIR_COMMAND redirCmd, UINT32 inputDataSize,
                                         const BYTE* inputData, TPM_AUTH* ownerAuth) {
  TpmCommand command(hContext, TPM_ORD_SetRedirection);
  if (TSS_RESULT rc = command.Check(WithTrailers(kSetRedirectionFixedBytes, ownerAuth),
                                    inputDataSize, inputData)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  TPM_KEY_HANDLE keySlot = 0;
  if (TSS_RESULT rc = command.UseKey(keyHandle, &keySlot)) return rc;
  return command.RunAuthorised(keySlot, redirCmd, inputDataSize,
                               std::span<const BYTE>(inputData, inputDataSize));
}

}  // namespace kesttcs
