// The authorisation session manager: which client context owns each OIAP, OSAP and DSAP session
// the service opened in the TPM. It checks that a client uses only its own sessions, releases a
// session when a command ends it, when its client terminates it and when its context closes, and
// limits how many sessions one context may hold.
//
// One table of 16 entries, zeroed by auth_mgr_init. `maxSessions` is the number of sessions the
// TPM holds at once (from the TPM metrics); `usedSessions` the entries in use.
//
// Lock: the auth mutex guards the table. It is never held across the OIAP, OSAP or DSAP exchange,
// but auth_mgr_release and auth_mgr_close_context hold it while they send the flush commands, so
// it comes before the TPM lock. Nothing takes the key cache lock while holding it.
#pragma once

#include <array>
#include <cstdint>

#include <kesttcs/tcs_types.h>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace kesttcs {

inline constexpr size_t kAuthTableEntries = 16;

// One entry of the table, fields in the designed order.
struct auth_session {
  BYTE inUse = 0;  // 1 = used
  TCS_AUTHHANDLE authHandle = 0;
  UINT32 resourceType = 0;  // always TPM_RT_AUTH (2)
  TCS_CONTEXT_HANDLE hContext = 0;
};

// A copy of the table taken under the auth mutex, for whoever reports the service's state.
struct AuthTableSnapshot {
  int16_t maxSessions = 0;
  int16_t usedSessions = 0;
  std::array<auth_session, kAuthTableEntries> entries{};
};

// The auth mutex. Callers of the functions that require it hold it through a MutexLock.
Mutex& auth_mutex();

// Zeroes the table and sets maxSessions. `ownVendorTpm` says whether the TPM is one of the maker's
// own, which ends sessions with TPM_FlushSpecific whatever version it reports. Registers the
// context-close hook that releases a closing context's sessions. Returns 0.
[[nodiscard]] TSS_RESULT auth_mgr_init(int16_t maxSessions, bool ownVendorTpm);
// Returns 0 and does nothing else (sessions still in the TPM die with its next start-up).
[[nodiscard]] TSS_RESULT auth_mgr_final();

// May `hContext` open one more session? A context holding three never may; one holding one or two
// may while the TPM has one free session; one holding none needs two free.
[[nodiscard]] bool auth_mgr_req_new(TCS_CONTEXT_HANDLE hContext) REQUIRES(auth_mutex());
// Where a session would be swapped out to make room; does nothing and returns 0.
[[nodiscard]] TSS_RESULT auth_mgr_swap_out();
// Puts the session into the lowest free entry; TCS_E_INTERNAL_ERROR when all 16 are used.
[[nodiscard]] TSS_RESULT auth_mgr_add(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE authHandle,
                                      UINT32 resourceType) REQUIRES(auth_mutex());

// 0 when an entry in use has both values, else TCS_E_INTERNAL_ERROR. Takes the auth mutex.
[[nodiscard]] TSS_RESULT auth_mgr_check(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE authHandle)
    EXCLUDES(auth_mutex());
// The check every authorised command makes before it is sent: TCS_E_INTERNAL_ERROR for a null
// `auth` or a session `hContext` does not own. Under TBS a session sent without continue is freed
// here at once (the TPM ends it itself). Takes the auth mutex.
[[nodiscard]] TSS_RESULT auth_mgr_check_auth(TCS_CONTEXT_HANDLE hContext, const TPM_AUTH* auth)
    EXCLUDES(auth_mutex());
// Ends every entry with `authHandle` in the TPM (auth_mgr_flush) and frees it. Returns 0. Takes
// the auth mutex, then the TPM lock.
TSS_RESULT auth_mgr_release(TCS_AUTHHANDLE authHandle) EXCLUDES(auth_mutex());
// Frees every entry with `authHandle` without a TPM command: for a session the TPM has ended itself
// (a command sent with continue 0 that succeeded). Takes the auth mutex.
void auth_mgr_forget(TCS_AUTHHANDLE authHandle) EXCLUDES(auth_mutex());
// The same for every entry of `hContext`: the session step of closing a context.
TSS_RESULT auth_mgr_close_context(TCS_CONTEXT_HANDLE hContext) EXCLUDES(auth_mutex());
// TPM_FlushSpecific(authHandle, resourceType), or TPM_Terminate_Handle(authHandle) on a TPM that
// is neither a TPM 1.2 nor the maker's own; tag 0x00C1. The TPM's answer, which callers ignore.
TSS_RESULT auth_mgr_flush(TCS_AUTHHANDLE authHandle, UINT32 resourceType);

// A copy of the table. Takes the auth mutex.
[[nodiscard]] AuthTableSnapshot auth_mgr_snapshot() EXCLUDES(auth_mutex());

}  // namespace kesttcs
