// The DAA operations: one stage of a DAA join or of a DAA sign, each under the owner's session
// (required). The TPM keeps the DAA session between stages; stage 0 opens it (handle 0) and
// answers its handle in the output data. The service passes the stage's data through unparsed.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_DAA_Join (0x29): stage `stage` of the join session `handle` with its two inputs; the stage's
// output bytes go to (*outputSize, *outputData).
[[nodiscard]] TSS_RESULT Tcsip_TPM_DAA_Join_Internal(TCS_CONTEXT_HANDLE hContext, TPM_HANDLE handle,
                                                     BYTE stage, UINT32 inputSize0,
                                                     const BYTE* inputData0, UINT32 inputSize1,
                                                     const BYTE* inputData1, TPM_AUTH* ownerAuth,
                                                     UINT32* outputSize, BYTE** outputData);

// TPM_DAA_Sign (0x31): as the join, on a sign session.
[[nodiscard]] TSS_RESULT Tcsip_TPM_DAA_Sign_Internal(TCS_CONTEXT_HANDLE hContext, TPM_HANDLE handle,
                                                     BYTE stage, UINT32 inputSize0,
                                                     const BYTE* inputData0, UINT32 inputSize1,
                                                     const BYTE* inputData1, TPM_AUTH* ownerAuth,
                                                     UINT32* outputSize, BYTE** outputData);

}  // namespace kesttcs
