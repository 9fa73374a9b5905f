#include "commands/tcsip_daa.h"

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "commands/input_checks.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Header, handle, stage, the two input sizes, the session trailer.
constexpr UINT32 kDaaStageFixedBytes = kTpmHeaderSize + 4 + 1 + 2 * 4 + kAuthRequestTrailerSize;

// Join and sign stages share their layout and differ only in the ordinal.
TSS_RESULT RunDaaStage(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal, TPM_HANDLE handle,
                       BYTE stage, UINT32 inputSize0, const BYTE* inputData0, UINT32 inputSize1,
                       const BYTE* inputData1, TPM_AUTH* ownerAuth, UINT32* outputSize,
                       BYTE** outputData) {
  if (outputSize == nullptr || outputData == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (ownerAuth == nullptr ||
      !PartsFit(kDaaStageFixedBytes, {{inputSize0, inputData0}, {inputSize1, inputData1}})) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc =
          command.RunAuthorised(handle, stage, inputSize0, Bytes(inputSize0, inputData0),
                                inputSize1, Bytes(inputSize1, inputData1))) {
    return rc;
  }
  return command.UnloadSized(outputSize, outputData);
}

}  // namespace

TSS_RESULT Tcsip_TPM_DAA_Join_Internal(TCS_CONTEXT_HANDLE hContext, TPM_HANDLE handle, BYTE stage,
                                       UINT32 inputSize0, const BYTE* inputData0, UINT32 inputSize1,
                                       const BYTE* inputData1, TPM_AUTH* ownerAuth,
                                       UINT32* outputSize, BYTE** outputData) {
  return RunDaaStage(hContext, TPM_ORD_DAA_Join, handle, stage, inputSize0, inputData0, inputSize1,
                     inputData1, ownerAuth, outputSize, outputData);
}

TSS_RESULT Tcsip_TPM_DAA_Sign_Internal(TCS_CONTEXT_HANDLE hContext, TPM_HANDLE handle, BYTE stage,
                                       UINT32 inputSize0, const BYTE* inputData0, UINT32 inputSize1,
                                       const BYTE* inputData1, TPM_AUTH* ownerAuth,
                                       UINT32* outputSize, BYTE** outputData) {
  return RunDaaStage(hContext, TPM_ORD_DAA_Sign, handle, stage, inputSize0, inputData0, inputSize1,
                     inputData1, ownerAuth, outputSize, outputData);
}

}  // namespace kesttcs
