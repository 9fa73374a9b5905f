// ClearTPMKeys: after a resume, brings the key cache's view of which keys are in the TPM into line
// with the TPM's own list of loaded keys. Registered with power-state handling at start-up.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Asks the TPM for its loaded key handles (TPM_GetCapability, TPM_CAP_KEY_HANDLE) and then, under
// the cache mutex: when the list is empty, marks every cached key except the SRK not loaded (slot
// kNoTpmHandle, not resident), so that it is reloaded on demand; on the TDDL path, marks the first
// entry holding each listed slot resident again (entries missing from a non-empty list stay as
// they were). Returns the capability command's result; a list that does not parse returns at once
// with the parse result and leaves the cache alone. Takes the TPM lock, then the cache mutex (the
// caller may hold the TPM lock already).
[[nodiscard]] TSS_RESULT ClearTPMKeys();

}  // namespace kesttcs
