// The service-state reader on Windows: the Windows service serves the TCS interface alone, so the
// reader answers as for a service that does not offer the service-state interface.
#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>

#include <cstdlib>

#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tcs_service_state.h>

#include "client/windows/client_call.h"

namespace {

TSS_RESULT NotOffered(const void* out) {
  if (out == nullptr) return kesttcs::TCS_E_BAD_PARAMETER;
  KestTcs_NoteRpcStatus(RPC_S_UNKNOWN_IF);
  return kesttcs::TCS_E_COMM_FAILURE;
}

}  // namespace

extern "C" {

TSS_RESULT KestTcs_GetSessionTable(KESTTCS_SESSION_TABLE* table) { return NotOffered(table); }

TSS_RESULT KestTcs_GetPowerState(KESTTCS_POWER_STATE* state) { return NotOffered(state); }

TSS_RESULT KestTcs_GetKeyCache(KESTTCS_KEY_CACHE* cache) {
  if (cache != nullptr) *cache = KESTTCS_KEY_CACHE{};
  return NotOffered(cache);
}

void KestTcs_FreeKeyCache(KESTTCS_KEY_CACHE* cache) {
  if (cache == nullptr) return;
  std::free(cache->entries);
  *cache = KESTTCS_KEY_CACHE{};
}

}  // extern "C"
