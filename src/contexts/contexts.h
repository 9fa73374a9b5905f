// Client contexts: the list of open contexts and their handles, handle validation for every
// operation, the TPM keys each context references, and the teardown of a context. The memory handed
// out to contexts lives in contexts/context_memory.h.
//
// The module's state is created by ctx_init and destroyed by ctx_final; no other function may run
// concurrently with either.
//
// Lock: the context-list mutex guards the list, the handle generator and the hooks. It comes before
// the key cache lock: ctx_AddKeyReference and Tcsi_CloseContext_Internal call the key hooks while
// holding it, so those hooks may take the key cache lock but must not call back into this module.
// It is never held together with the memory-table mutex, and the session and transport hooks run
// without it.
#pragma once

#include <functional>

#include <kesttcs/tcs_types.h>

#include "contexts/context_memory.h"

namespace kesttcs {

// The service's own context: always valid, has no record in the list, never issued to a client.
inline constexpr TCS_CONTEXT_HANDLE kInternalContextHandle = 0x30000000;

// How this module reaches the managers that hold resources on behalf of a context. The key cache,
// the session manager and the transport code register their parts at their init; a part nobody
// registered does nothing and succeeds.
struct ContextHooks {
  // Key cache: a context now references `keyHandle`. Its result is ctx_AddKeyReference's result.
  // Called with the context-list mutex held.
  std::function<TSS_RESULT(TCS_KEY_HANDLE keyHandle)> addKeyReference{};
  // Key cache: a closing context no longer references `keyHandle`. Called with the context-list
  // mutex held, once per key the context referenced, newest reference first.
  std::function<void(TCS_KEY_HANDLE keyHandle)> dropKeyReference{};
  // Key cache: release the keys that no context references any more. Called without the mutex.
  std::function<void()> releaseUnreferencedKeys{};
  // Session manager: release every authorisation session `hContext` owns. Called without the mutex.
  std::function<void(TCS_CONTEXT_HANDLE hContext)> releaseContextSessions{};
  // Transport: end the exclusive transport session if `hContext` owns it. Called without the mutex.
  std::function<void(TCS_CONTEXT_HANDLE hContext)> endExclusiveTransport{};
};

// Creates the empty context list and memory table; the handle counter starts at 0xA0000000,
// unseeded, and every hook does nothing. Replaces any earlier state (after ctx_final). Returns 0,
// or TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT ctx_init();

// Destroys every context record and frees every tracked memory block, without calling any hook.
void ctx_final();

// Installs the members of `hooks` that are set; the other hooks stay as they are. Takes the
// context-list mutex. Hooks stay installed until ctx_final, so a manager whose final runs earlier
// must leave its hooks safe to call.
void ctx_RegisterHooks(ContextHooks hooks);

// Opens a context: appends a record with a new handle (top nibble 0xA) that no open context has.
// Writes the handle to `*hContext` and returns 0; on allocation failure writes 0 and returns
// TCS_E_FAIL. Traces "Tcsi_OpenContext_Internal". Takes the context-list mutex.
[[nodiscard]] TSS_RESULT Tcsi_OpenContext_Internal(TCS_CONTEXT_HANDLE* hContext);

// Closes `hContext`: releases its sessions, drops its key references, ends its exclusive transport,
// lets the key cache release unreferenced keys, and frees its tracked memory. The internal context
// passes and is released the same way without leaving the list. Returns 0, or
// TCS_E_INVALID_CONTEXT for an unknown handle (nothing released). Callers hold the API lock.
[[nodiscard]] TSS_RESULT Tcsi_CloseContext_Internal(TCS_CONTEXT_HANDLE hContext);

// Frees output memory of a valid context: the block `pMemory`, or every block of the context when
// `pMemory` is null. A pointer the context does not own is ignored. Returns 0, or
// TCS_E_INVALID_CONTEXT for an unknown handle. Takes the context-list mutex, then (after releasing
// it) the memory-table mutex.
[[nodiscard]] TSS_RESULT Tcsi_FreeMemory_Internal(TCS_CONTEXT_HANDLE hContext, BYTE* pMemory);

// Returns 0 when `hContext` is the internal context or an open context, else
// TCS_E_INVALID_CONTEXT. The context may be closed by another thread right after this returns.
[[nodiscard]] TSS_RESULT ctx_ValidateContext(TCS_CONTEXT_HANDLE hContext);

// Records that `hContext` references the key cache's `keyHandle`. Returns 0 when the context
// already references it (the key cache is not told again); otherwise records it and returns the
// addKeyReference hook's result. Returns TCS_E_FAIL for a context not in the list (the internal
// context included) and TCS_E_OUTOFMEMORY when the record cannot grow. Takes the context-list
// mutex.
[[nodiscard]] TSS_RESULT ctx_AddKeyReference(TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE keyHandle);

// Number of open contexts (the internal context is not counted). Takes the context-list mutex.
UINT32 ctx_CountContexts();

}  // namespace kesttcs
