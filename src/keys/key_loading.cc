#include "keys/key_loading.h"

#include <kesttcs/tcs_results.h>

namespace kesttcs {

TSS_RESULT ensureKeyIsLoaded(TCS_CONTEXT_HANDLE /*hContext*/, TCS_KEY_HANDLE /*keyHandle*/,
                             TPM_KEY_HANDLE* slot) {
  if (slot != nullptr) *slot = 0;
  return TCS_E_FAIL;
}

}  // namespace kesttcs
