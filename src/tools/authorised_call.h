// One TCS operation authorised with the client's authorisation helper, as kesttcs-cli's NV and
// counter commands make them: the session opened (OIAP on a secret, or OSAP on the owner with a new
// secret sent by ADIP), the command's HMAC computed over its input digest parameters, the call
// made, and the answer's HMAC checked over its output digest parameters.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_types.h>

#include "tools/cli_output.h"

namespace kesttcs::cli {

// Makes the call: given the filled TPM_AUTH, returns the operation's result and, on success, fills
// the output digest parameters.
using AuthorisedOperation = std::function<TSS_RESULT(TPM_AUTH* auth, std::vector<BYTE>* outParams)>;
// Words for a result the TPM gave, or "" to show the code alone.
using Explanation = std::function<std::string(TSS_RESULT)>;

struct AuthorisedCall {
  TCS_CONTEXT_HANDLE hContext;
  UINT32 ordinal;              // the ordinal the HMAC covers
  std::vector<BYTE> inParams;  // the input digest parameters
  std::string operation;       // the TCS operation, for failures
  AuthorisedOperation call;
  Explanation explain;
};

// Over a fresh OIAP session keyed with `secret`.
std::optional<Failure> RunOverOiap(const TPM_SECRET& secret, const AuthorisedCall& c);

// Over a fresh OSAP session on the owner keyed with `ownerSecret`; `newSecret` is sent by ADIP as
// the encAuth that `makeCall` builds the call from (and the digest parameters with it).
std::optional<Failure> RunOverOwnerOsap(
    TCS_CONTEXT_HANDLE hContext, const TPM_SECRET& ownerSecret, const TPM_SECRET& newSecret,
    const std::function<AuthorisedCall(const TPM_ENCAUTH& encAuth)>& makeCall);

// Appends `value` big-endian.
void AppendUINT32(std::vector<BYTE>& out, UINT32 value);

}  // namespace kesttcs::cli
