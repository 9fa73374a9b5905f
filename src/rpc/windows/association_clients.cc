#include "rpc/windows/association_clients.h"

#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
#include <rpcdcep.h>

#include <array>
#include <cstdint>
#include <map>
#include <vector>

#include "base/logging.h"
#include "base/mutex.h"
#include "rpc/windows/runtime_association.h"

namespace kesttcs {
namespace {

using AssociationKey = std::array<unsigned char, KESTTCS_ASSOCIATION_KEY_SIZE>;

// The associations tagged so far, by the id of their group. The runtime gives each connection one
// binding handle for its lifetime, so the binding remembers its group; a binding handle may be
// reused by a later connection, so the runtime confirms the group on every call.
// Locks: `mu` is a leaf, never held while calling into the runtime (a confirmation waits while
// another call of that association runs); `identify_mu` makes the identification of a
// connection not seen before one at a time, so that two first calls of one association cannot
// make two groups.
struct Associations {
  Mutex identify_mu;
  Mutex mu ACQUIRED_AFTER(identify_mu);
  std::map<uint32_t, AssociationKey> key_of_group GUARDED_BY(mu);
  std::map<void*, uint32_t> group_of_binding GUARDED_BY(mu);
  uint32_t last_group GUARDED_BY(mu) = 0;
};

Associations& A() {
  static Associations* associations = new Associations;
  return *associations;
}

dcerpc::PeerIdentity PeerOfGroup(uint32_t group) {
  dcerpc::PeerIdentity peer;
  // Owned by its association group, as a TCP client of the Linux service is; the group is its
  // one "connection", which ends with the association.
  peer.transport = dcerpc::Transport::kTcp;
  peer.assoc_group_id = group;
  peer.connection_id = group;
  return peer;
}

void* TagOf(uint32_t group) { return reinterpret_cast<void*>(static_cast<uintptr_t>(group)); }

// Whether the current call's association is the one tagged for `group`.
bool CallIsIn(uint32_t group) {
  AssociationKey key{};
  {
    Associations& a = A();
    MutexLock lock(a.mu);
    const auto it = a.key_of_group.find(group);
    if (it == a.key_of_group.end()) return false;
    key = it->second;
  }
  return KestTcs_CallAssociationHolds(key.data()) != 0;
}

// The group of the current call's association among the known ones; 0 when none is the call's.
uint32_t KnownGroupOfCall() {
  std::vector<std::pair<uint32_t, AssociationKey>> candidates;
  {
    Associations& a = A();
    MutexLock lock(a.mu);
    candidates.assign(a.key_of_group.begin(), a.key_of_group.end());
  }
  for (const auto& [group, key] : candidates) {
    if (KestTcs_CallAssociationHolds(key.data()) != 0) return group;
  }
  return 0;
}

uint32_t CachedGroup(void* binding) {
  Associations& a = A();
  MutexLock lock(a.mu);
  const auto it = a.group_of_binding.find(binding);
  return it == a.group_of_binding.end() ? 0 : it->second;
}

void Remember(void* binding, uint32_t group) {
  Associations& a = A();
  MutexLock lock(a.mu);
  a.group_of_binding[binding] = group;
}

// A new group for the current call's association (one not tagged before); 0 when the runtime
// refuses the tag.
uint32_t TagNewGroup() REQUIRES(A().identify_mu) {
  Associations& a = A();
  uint32_t group = 0;
  {
    MutexLock lock(a.mu);
    group = ++a.last_group;
    if (group == 0) group = ++a.last_group;  // 0 means none
  }
  AssociationKey key{};
  if (!KestTcs_TagCallAssociation(TagOf(group), key.data())) return 0;
  MutexLock lock(a.mu);
  a.key_of_group[group] = key;
  return group;
}

}  // namespace

std::optional<ContextOwner> CallingAssociation() {
  void* const binding = I_RpcGetCurrentCallHandle();
  if (binding == nullptr) return std::nullopt;
  const uint32_t cached = CachedGroup(binding);
  uint32_t group = cached != 0 && CallIsIn(cached) ? cached : 0;
  if (group == 0) {
    Associations& a = A();
    MutexLock identify(a.identify_mu);
    group = KnownGroupOfCall();
    if (group == 0) group = TagNewGroup();
    if (group == 0) {
      TcsTrace("The RPC runtime gives the call no association; the call is refused.", nullptr);
      return std::nullopt;
    }
    Remember(binding, group);
  }
  const dcerpc::PeerIdentity peer = PeerOfGroup(group);
  owners_NoteConnection(peer);
  return OwnerOf(peer);
}

void ForgetAssociations() {
  Associations& a = A();
  MutexLock lock(a.mu);
  a.key_of_group.clear();
  a.group_of_binding.clear();
}

}  // namespace kesttcs

// The runtime ran down an association's handle: its last connection has closed.
extern "C" void KestTcs_AssociationEnded(void* tag) {
  using namespace kesttcs;
  const auto group = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(tag));
  {
    Associations& a = A();
    MutexLock lock(a.mu);
    if (a.key_of_group.erase(group) == 0) return;  // forgotten at shut-down
    std::erase_if(a.group_of_binding, [group](const auto& entry) { return entry.second == group; });
  }
  owners_ConnectionClosed(PeerOfGroup(group));
}
