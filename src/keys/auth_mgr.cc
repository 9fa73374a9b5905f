#include "keys/auth_mgr.h"

#include <algorithm>
#include <atomic>

#include <kesttcs/tcs_results.h>

#include "contexts/contexts.h"
#include "tpm/driver.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {

namespace {

struct AuthTable {
  int16_t maxSessions = 0;
  int16_t usedSessions = 0;
  std::array<auth_session, kAuthTableEntries> entries{};
};

AuthTable g_table GUARDED_BY(auth_mutex());
// Read by auth_mgr_flush, which runs with and without the auth mutex held.
std::atomic<bool> g_own_vendor_tpm{false};

// A context never holds more than this many sessions through auth_mgr_req_new.
constexpr int kMostSessionsPerContext = 3;

void FreeEntry(auth_session& entry) REQUIRES(auth_mutex()) {
  entry = auth_session{};
  --g_table.usedSessions;
}

// Ends in the TPM and frees every entry that `matches`.
template <class Matches>
void ReleaseMatching(Matches matches) EXCLUDES(auth_mutex()) {
  MutexLock lock(auth_mutex());
  for (auth_session& entry : g_table.entries) {
    if (entry.inUse == 0 || !matches(entry)) continue;
    static_cast<void>(auth_mgr_flush(entry.authHandle, entry.resourceType));
    FreeEntry(entry);
  }
}

}  // namespace

Mutex& auth_mutex() {
  static Mutex mutex;
  return mutex;
}

TSS_RESULT auth_mgr_init(int16_t maxSessions, bool ownVendorTpm) {
  {
    MutexLock lock(auth_mutex());
    g_table = AuthTable{};
    g_table.maxSessions = maxSessions;
  }
  g_own_vendor_tpm = ownVendorTpm;
  ctx_RegisterHooks({.releaseContextSessions = [](TCS_CONTEXT_HANDLE hContext) {
    static_cast<void>(auth_mgr_close_context(hContext));
  }});
  return TSS_SUCCESS;
}

TSS_RESULT auth_mgr_final() { return TSS_SUCCESS; }

bool auth_mgr_req_new(TCS_CONTEXT_HANDLE hContext) {
  const auto held = std::count_if(g_table.entries.begin(), g_table.entries.end(),
                                  [hContext](const auth_session& entry) {
                                    return entry.inUse != 0 && entry.hContext == hContext;
                                  });
  const int free = g_table.maxSessions - g_table.usedSessions;
  if (held >= kMostSessionsPerContext) return false;
  // A context that holds sessions needs one free TPM session, one without needs two.
  return held > 0 ? free >= 1 : free >= 2;
}

TSS_RESULT auth_mgr_swap_out() { return TSS_SUCCESS; }

TSS_RESULT auth_mgr_add(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE authHandle,
                        UINT32 resourceType) {
  for (auth_session& entry : g_table.entries) {
    if (entry.inUse != 0) continue;
    entry = {
        .inUse = 1, .authHandle = authHandle, .resourceType = resourceType, .hContext = hContext};
    ++g_table.usedSessions;
    return TSS_SUCCESS;
  }
  return TCS_E_INTERNAL_ERROR;
}

TSS_RESULT auth_mgr_check(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE authHandle) {
  MutexLock lock(auth_mutex());
  for (const auth_session& entry : g_table.entries) {
    if (entry.inUse != 0 && entry.authHandle == authHandle && entry.hContext == hContext) {
      return TSS_SUCCESS;
    }
  }
  return TCS_E_INTERNAL_ERROR;
}

TSS_RESULT auth_mgr_check_auth(TCS_CONTEXT_HANDLE hContext, const TPM_AUTH* auth) {
  if (auth == nullptr) return TCS_E_INTERNAL_ERROR;
  MutexLock lock(auth_mutex());
  for (auth_session& entry : g_table.entries) {
    if (entry.inUse == 0 || entry.authHandle != auth->AuthHandle || entry.hContext != hContext) {
      continue;
    }
    // Under TBS the TPM ends a session sent without continue by itself, whatever the outcome.
    if (driver_is_tbs() && !auth->fContinueAuthSession) FreeEntry(entry);
    return TSS_SUCCESS;
  }
  return TCS_E_INTERNAL_ERROR;
}

TSS_RESULT auth_mgr_release(TCS_AUTHHANDLE authHandle) {
  ReleaseMatching(
      [authHandle](const auth_session& entry) { return entry.authHandle == authHandle; });
  return TSS_SUCCESS;
}

void auth_mgr_forget(TCS_AUTHHANDLE authHandle) {
  MutexLock lock(auth_mutex());
  for (auth_session& entry : g_table.entries) {
    if (entry.inUse != 0 && entry.authHandle == authHandle) FreeEntry(entry);
  }
}

TSS_RESULT auth_mgr_close_context(TCS_CONTEXT_HANDLE hContext) {
  ReleaseMatching([hContext](const auth_session& entry) { return entry.hContext == hContext; });
  return TSS_SUCCESS;
}

TSS_RESULT auth_mgr_flush(TCS_AUTHHANDLE authHandle, UINT32 resourceType) {
  const bool flushSpecific = TpmIsVersion12() || g_own_vendor_tpm;
  TpmLockGuard tpm(flushSpecific ? TPM_ORD_FlushSpecific : TPM_ORD_Terminate_Handle);
  return SendHandleRelease(flushSpecific, authHandle, resourceType);
}

AuthTableSnapshot auth_mgr_snapshot() {
  MutexLock lock(auth_mutex());
  return {.maxSessions = g_table.maxSessions,
          .usedSessions = g_table.usedSessions,
          .entries = g_table.entries};
}

}  // namespace kesttcs
