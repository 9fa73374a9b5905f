// Which client owns which context. Over the Unix socket a context belongs to the client process
// that opened it (pid and uid from the socket's peer credentials); over TCP, where no credentials
// exist, to the connection that opened it. Only the owner may present the handle; when the last
// connection of a process (or the TCP connection) closes, its contexts are closed as by
// Tcsi_CloseContext. The service's own context is never accepted from a client.
//
// Lock: the owner-map mutex, a leaf taken only inside these functions. Closing an owner's
// contexts runs Tcsi_CloseContext_Internal under the API serialisation lock, without the map lock.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include <kesttcs/tcs_types.h>

#include "rpc/dcerpc/association.h"

namespace kesttcs {

// The owner a connection's calls act for.
struct ContextOwner {
  bool is_process = false;  // Unix socket with credentials: a process; else one connection
  pid_t pid = 0;
  uid_t uid = 0;
  uint64_t connection_id = 0;  // the connection, when not a process

  friend bool operator==(const ContextOwner&, const ContextOwner&) = default;
};

ContextOwner OwnerOf(const dcerpc::PeerIdentity& peer);

// Notes that `peer`'s connection is live and acts for its owner. Called for every call.
void owners_NoteConnection(const dcerpc::PeerIdentity& peer);

// True when `owner` may present `hContext`: it opened it and has not closed it. The service's own
// context and handles of other owners are refused.
bool owners_MayUse(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext);

// Records that `owner` opened `hContext` / that `hContext` was closed.
void owners_Add(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext);
void owners_Remove(TCS_CONTEXT_HANDLE hContext);

// A connection closed: when it was its owner's last one, closes every context of that owner with
// Tcsi_CloseContext_Internal under the API serialisation lock and forgets the owner.
void owners_ConnectionClosed(const dcerpc::PeerIdentity& peer);

// Counters: contexts held by clients, contexts held by process `pid`, owners with contexts or
// live connections, and contexts closed because their owner went away.
size_t owners_CountContexts();
size_t owners_CountContextsOfProcess(pid_t pid);
size_t owners_CountOwners();
size_t owners_CountAbandonedClosed();

// Forgets every owner and context without closing anything (service shut-down, tests).
void owners_Reset();

}  // namespace kesttcs
