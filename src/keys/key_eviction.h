// Removing a key from the TPM for good, the one TPM command the key cache sends outside the
// request manager's admission rules (it must work during a vendor sequence or an exclusive
// transport session, when keys have to make room).
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Evicts the key in TPM slot `tpmHandle`: TPM_FlushSpecific(tpmHandle, TPM_RT_KEY) on a TPM 1.2
// (TpmIsVersion12), TPM_EvictKey(tpmHandle) otherwise, at normal priority. Returns the driver's
// result, or the TPM's return code mapped as 0xE0280000 | code, except that TPM_KEY_OWNER_CONTROL
// (a key only the owner may evict, 0xE0280044) counts as success. Takes the TPM lock (recursive:
// the caller may already hold it); the key cache lock, if held, must have been taken first.
[[nodiscard]] TSS_RESULT EvictTpmKey(TPM_KEY_HANDLE tpmHandle);

}  // namespace kesttcs
