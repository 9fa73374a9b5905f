// The PCR event log's start-up step: the log for the TPM's PCRs and, when the configuration asks
// for it, the events file replayed into it against the TPM's current PCR values.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

#include "storage/event_log.h"

namespace kesttcs {

// event_log_init(pcrCount); with `persist`, then the events file of `dataDir` is replayed (or set
// aside) and attached. Returns 0, TCS_E_OUTOFMEMORY, or TCS_E_FAIL when the events file cannot be
// opened (the log is freed again then).
[[nodiscard]] TSS_RESULT StartEventLog(UINT32 pcrCount, bool persist, const std::string& dataDir);

}  // namespace kesttcs
