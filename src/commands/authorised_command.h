// Two steps that authorised commands share beyond TpmCommand: the size bound of a command whose
// sessions are optional, and the run of a command whose one session is required.
#pragma once

#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_types.h>

#include "commands/command_exchange.h"
#include "tpm12/marshal.h"

namespace kesttcs {

// `fixedBytes` (header and fixed parameters) plus one request trailer for each session given.
constexpr UINT32 WithTrailers(UINT32 fixedBytes, const TPM_AUTH* first,
                              const TPM_AUTH* second = nullptr) noexcept {
  return fixedBytes + (first != nullptr ? kAuthRequestTrailerSize : 0) +
         (second != nullptr ? kAuthRequestTrailerSize : 0);
}

// Checks the context and the required session `auth` (TCS_E_BAD_PARAMETER when null), then sends
// `fields` with its trailer (RunAuthorised).
template <class... Fields>
[[nodiscard]] TSS_RESULT RunWithRequiredSession(TpmCommand& command, TPM_AUTH* auth,
                                                const Fields&... fields) noexcept {
  if (TSS_RESULT rc = command.Check()) return rc;
  if (auth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  return command.RunAuthorised(fields...);
}

}  // namespace kesttcs
