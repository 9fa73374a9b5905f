#include "rpc/context_owners.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>

#include "base/mutex.h"
#include "contexts/contexts.h"
#include "rpc/api_frame.h"

namespace kesttcs {
namespace {

struct OwnerRecord {
  std::set<uint64_t> connections;
  std::set<TCS_CONTEXT_HANDLE> contexts;
  size_t opening = 0;  // opens under way
};

// One client-held context: who owns it, how many calls are using it, and whether a close waits.
struct ContextUse {
  ContextOwner owner;
  int calls = 0;
  bool closing = false;
};

struct State {
  Mutex mu;
  std::map<ContextOwner, OwnerRecord> owners GUARDED_BY(mu);
  std::unordered_map<TCS_CONTEXT_HANDLE, ContextUse> context_owner GUARDED_BY(mu);
  size_t abandoned_closed GUARDED_BY(mu) = 0;
  size_t context_limit GUARDED_BY(mu) = SIZE_MAX;
  // Signalled when the last call of a closing context ends.
  std::condition_variable calls_done;
};

// The record of `hContext` when `owner` may present it, else null.
ContextUse* UsableBy(State& s, const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext)
    REQUIRES(s.mu) {
  if (hContext == kInternalContextHandle) return nullptr;
  const auto it = s.context_owner.find(hContext);
  if (it == s.context_owner.end() || it->second.closing) return nullptr;
  if (it->second.owner != owner) return nullptr;
  return &it->second;
}

State& S() {
  static State* state = new State;
  return *state;
}

}  // namespace

ContextOwner OwnerOf(const dcerpc::PeerIdentity& peer) {
  ContextOwner o;
  o.is_process = peer.transport != dcerpc::Transport::kTcp && peer.has_credentials;
  if (o.is_process) {
    o.pid = peer.pid;
    o.uid = peer.uid;
  } else if (peer.assoc_group_id != 0) {
    o.assoc_group = peer.assoc_group_id;
  } else {
    o.connection_id = peer.connection_id;
  }
  return o;
}

void owners_NoteConnection(const dcerpc::PeerIdentity& peer) {
  State& s = S();
  MutexLock lock(s.mu);
  s.owners[OwnerOf(peer)].connections.insert(peer.connection_id);
}

bool owners_BeginCall(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext) {
  State& s = S();
  MutexLock lock(s.mu);
  ContextUse* use = UsableBy(s, owner, hContext);
  if (use == nullptr) return false;
  ++use->calls;
  return true;
}

void owners_EndCall(TCS_CONTEXT_HANDLE hContext) {
  State& s = S();
  MutexLock lock(s.mu);
  const auto it = s.context_owner.find(hContext);
  if (it == s.context_owner.end()) return;
  if (--it->second.calls == 0 && it->second.closing) s.calls_done.notify_all();
}

bool owners_BeginClose(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext) {
  State& s = S();
  MutexLock lock(s.mu);
  ContextUse* use = UsableBy(s, owner, hContext);
  if (use == nullptr) return false;
  use->closing = true;
  std::unique_lock<std::mutex> wait(s.mu.native(), std::adopt_lock);
  // The record stays while closing is set: only owners_EndClose and owner clean-up remove it, and
  // neither runs for this context before the close ends.
  s.calls_done.wait(wait, [use] { return use->calls == 0; });
  wait.release();
  return true;
}

void owners_EndClose(TCS_CONTEXT_HANDLE hContext, bool closed) {
  State& s = S();
  MutexLock lock(s.mu);
  const auto it = s.context_owner.find(hContext);
  if (it == s.context_owner.end()) return;
  if (!closed) {
    it->second.closing = false;
    return;
  }
  const auto owner = s.owners.find(it->second.owner);
  if (owner != s.owners.end()) owner->second.contexts.erase(hContext);
  s.context_owner.erase(it);
}

void owners_SetContextLimit(size_t limit) {
  State& s = S();
  MutexLock lock(s.mu);
  s.context_limit = limit;
}

bool owners_BeginOpen(const ContextOwner& owner) {
  State& s = S();
  MutexLock lock(s.mu);
  OwnerRecord& record = s.owners[owner];
  if (record.contexts.size() + record.opening >= s.context_limit) return false;
  ++record.opening;
  return true;
}

void owners_EndOpen(const ContextOwner& owner, TCS_CONTEXT_HANDLE hContext) {
  State& s = S();
  MutexLock lock(s.mu);
  OwnerRecord& record = s.owners[owner];
  if (record.opening > 0) --record.opening;
  if (hContext == 0) return;
  record.contexts.insert(hContext);
  s.context_owner[hContext] = ContextUse{owner};
}

bool owners_HoldsContexts(const dcerpc::PeerIdentity& peer) {
  State& s = S();
  MutexLock lock(s.mu);
  const auto it = s.owners.find(OwnerOf(peer));
  return it != s.owners.end() && (!it->second.contexts.empty() || it->second.opening > 0);
}

void owners_ConnectionClosed(const dcerpc::PeerIdentity& peer) {
  State& s = S();
  std::set<TCS_CONTEXT_HANDLE> abandoned;
  {
    MutexLock lock(s.mu);
    const auto it = s.owners.find(OwnerOf(peer));
    if (it == s.owners.end()) return;
    it->second.connections.erase(peer.connection_id);
    if (!it->second.connections.empty()) return;
    abandoned.swap(it->second.contexts);
    for (TCS_CONTEXT_HANDLE h : abandoned) s.context_owner.erase(h);
    s.owners.erase(it);
    s.abandoned_closed += abandoned.size();
  }
  for (TCS_CONTEXT_HANDLE h : abandoned) {
    MutexLock api(ApiSerialisationLock());
    // A context the client closed meanwhile is simply unknown now; nothing else can fail here.
    (void)Tcsi_CloseContext_Internal(h);
  }
}

size_t owners_CountContexts() {
  State& s = S();
  MutexLock lock(s.mu);
  return s.context_owner.size();
}

size_t owners_CountContextsOfProcess(ProcessId pid) {
  State& s = S();
  MutexLock lock(s.mu);
  size_t n = 0;
  for (const auto& [key, record] : s.owners) {
    if (key.is_process && key.pid == pid) n += record.contexts.size();
  }
  return n;
}

size_t owners_CountAbandonedClosed() {
  State& s = S();
  MutexLock lock(s.mu);
  return s.abandoned_closed;
}

void owners_Reset() {
  State& s = S();
  MutexLock lock(s.mu);
  s.owners.clear();
  s.context_owner.clear();
  s.abandoned_closed = 0;
  s.context_limit = SIZE_MAX;
}

}  // namespace kesttcs
