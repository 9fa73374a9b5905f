#include "rpc/dcerpc/association_groups.h"

namespace kesttcs::dcerpc {

uint32_t AssociationGroups::Join(uint32_t requested, UserId uid) {
  MutexLock lock(mu_);
  if (requested != 0) {
    const auto it = groups_.find(requested);
    if (it != groups_.end() && it->second.uid == uid) {
      ++it->second.members;
      return requested;
    }
  }
  // Ids run up from one start and skip 0 ("no group"); a wrap after four billion groups could only
  // meet a group that has lived that long, which the search steps over.
  uint32_t id = next_id_++;
  while (id == 0 || groups_.contains(id)) id = next_id_++;
  groups_.emplace(id, Group{uid, 1});
  return id;
}

void AssociationGroups::Leave(uint32_t group) {
  MutexLock lock(mu_);
  const auto it = groups_.find(group);
  if (it != groups_.end() && --it->second.members == 0) groups_.erase(it);
}

size_t AssociationGroups::live_groups() const {
  MutexLock lock(mu_);
  return groups_.size();
}

}  // namespace kesttcs::dcerpc
