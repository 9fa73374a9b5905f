#include "service/event_log_start.h"

#include <kesttcs/tcs_results.h>

#include "commands/tcsip_keyless.h"
#include "contexts/contexts.h"
#include "storage/event_log_file.h"

namespace kesttcs {

TSS_RESULT StartEventLog(UINT32 pcrCount, bool persist, const std::string& dataDir) {
  if (TSS_RESULT r = event_log_init(pcrCount); r != TSS_SUCCESS) return r;
  if (!persist) return TSS_SUCCESS;
  const TSS_RESULT r = event_log_attach_file(dataDir, [](UINT32 pcr, TPM_PCRVALUE* value) {
    return Tcsip_PcrRead_Internal(kInternalContextHandle, pcr, value);
  });
  if (r != TSS_SUCCESS) static_cast<void>(event_log_final());
  return r;
}

}  // namespace kesttcs
