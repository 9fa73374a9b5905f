// The association groups of one server. A client runtime that opens several connections for one
// binding handle binds the first with group id 0 and the others with the id the first bind_ack
// carried, so that they share whatever the server keeps per group. Only ids this server issued
// and that still have a connection are joined, and only by connections of the user who made the
// group; any other id gets a fresh group, as a server must never echo an id it did not issue.
//
// Lock: one leaf mutex, taken only inside these functions.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "base/mutex.h"
#include "base/process_ids.h"

namespace kesttcs::dcerpc {

class AssociationGroups {
 public:
  AssociationGroups() = default;
  AssociationGroups(const AssociationGroups&) = delete;
  AssociationGroups& operator=(const AssociationGroups&) = delete;

  // A connection of `uid` binds asking for `requested` (0: a new group). Returns the group it is
  // now a member of: `requested` when that group is alive and belongs to `uid`, else a new one.
  // Each Join is paired with one Leave.
  uint32_t Join(uint32_t requested, UserId uid) EXCLUDES(mu_);
  // A member connection has closed; the group ends with its last member and its id is never
  // issued again.
  void Leave(uint32_t group) EXCLUDES(mu_);

  size_t live_groups() const EXCLUDES(mu_);

 private:
  struct Group {
    UserId uid = 0;
    size_t members = 0;
  };

  mutable Mutex mu_;
  std::unordered_map<uint32_t, Group> groups_ GUARDED_BY(mu_);
  uint32_t next_id_ GUARDED_BY(mu_) = 0x00010001;
};

}  // namespace kesttcs::dcerpc
