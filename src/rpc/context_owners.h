// Which client owns which context. Over the Unix socket (and the Windows named pipe) a context
// belongs to the client process that opened it (pid and uid from the socket's peer credentials,
// the process id from the RPC runtime); over TCP, where no process is
// known, to the association group of the connection that opened it, so that a client runtime's
// connections for one binding share their contexts. Only the owner may present the handle; when
// the last connection of a process (or of the group) closes, its contexts are closed as by
// Tcsi_CloseContext. An owner holds at most the context limit of contexts. The service's own
// context is never accepted from a client.
//
// Lock: the owner-map mutex, a leaf taken only inside these functions (a closing call waits on it).
// Closing an owner's contexts runs Tcsi_CloseContext_Internal under the API serialisation lock,
// without the map lock.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

#include <kesttcs/tcs_types.h>

#include "base/process_ids.h"
#include "rpc/dcerpc/association.h"

namespace kesttcs {

// The owner a connection's calls act for. Only the fields of its kind are set, the others are 0,
// so that two owners are the same exactly when they compare equal.
struct ContextOwner {
  bool is_process = false;  // Unix socket with credentials: a process; else a group
  ProcessId pid = 0;        // the process
  UserId uid = 0;
  uint32_t assoc_group = 0;    // the association group, when not a process
  uint64_t connection_id = 0;  // the connection, when neither (not bound to a group)

  friend auto operator<=>(const ContextOwner&, const ContextOwner&) = default;
};

ContextOwner OwnerOf(const dcerpc::PeerIdentity& peer);

// Notes that `peer`'s connection is live and acts for its owner. Called for every call.
void owners_NoteConnection(const dcerpc::PeerIdentity& peer);

// A call by `owner` that presents `hContext` begins: true when the owner opened the context and
// no close of it has begun; the context then stays open until owners_EndCall, so that a close
// cannot free the memory the call is still filling. The service's own context and handles of
// other owners are refused (false).
bool owners_BeginCall(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext);
void owners_EndCall(TCS_CONTEXT_HANDLE hContext);

// A close of `hContext` by `owner` begins: false as for owners_BeginCall; otherwise refuses new
// calls on the context and waits until the calls using it have ended. Never call it with the API
// serialisation lock held (a waited-for call may need that lock). owners_EndClose ends it: when
// `closed`, the context is forgotten; otherwise it is usable again.
bool owners_BeginClose(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext);
void owners_EndClose(TCS_CONTEXT_HANDLE hContext, bool closed);

// Sets how many contexts one owner may hold (open or being opened); the default has no limit.
void owners_SetContextLimit(size_t limit);

// A Tcsi_OpenContext by `owner` begins: false when the owner is at its limit; otherwise the
// context it may open is counted until owners_EndOpen, which records `hContext` as the owner's
// when it is not 0 (the open succeeded).
bool owners_BeginOpen(const ContextOwner& owner);
void owners_EndOpen(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext);

// Whether the owner `peer` acts for holds contexts (or is opening one).
bool owners_HoldsContexts(const dcerpc::PeerIdentity& peer);

// A connection closed: when it was its owner's last one, closes every context of that owner with
// Tcsi_CloseContext_Internal under the API serialisation lock and forgets the owner.
void owners_ConnectionClosed(const dcerpc::PeerIdentity& peer);

// Counters: contexts held by clients, contexts held by process `pid`, and contexts closed because
// their owner went away.
size_t owners_CountContexts();
size_t owners_CountContextsOfProcess(ProcessId pid);
size_t owners_CountAbandonedClosed();

// Forgets every owner and context without closing anything, and lifts the context limit (service
// shut-down, tests).
void owners_Reset();

}  // namespace kesttcs
