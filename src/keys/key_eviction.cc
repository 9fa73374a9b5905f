#include "keys/key_eviction.h"

#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {

TSS_RESULT EvictTpmKey(TPM_KEY_HANDLE tpmHandle) {
  TpmLockGuard tpm(TpmIsVersion12() ? TPM_ORD_FlushSpecific : TPM_ORD_EvictKey);
  const TSS_RESULT result = SendEvictKey(tpmHandle);
  // A key the owner keeps loaded stays in the TPM; for the key cache it is gone all the same.
  return result == TpmResult(TPM_KEY_OWNER_CONTROL) ? TSS_SUCCESS : result;
}

}  // namespace kesttcs
