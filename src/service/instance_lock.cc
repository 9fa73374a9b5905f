// The locks this process holds, so that taking one again succeeds.
#include "service/instance_lock.h"

#include <set>

#include "base/mutex.h"

namespace kesttcs {
namespace {

struct HeldLocks {
  Mutex mu;
  std::set<std::string> paths GUARDED_BY(mu);
};

HeldLocks& Held() {
  static HeldLocks* held = new HeldLocks;
  return *held;
}

}  // namespace

UINT32 LockInstance(const std::string& path, std::string* why) {
  HeldLocks& held = Held();
  MutexLock lock(held.mu);
  if (held.paths.contains(path)) return 0;
  if (const UINT32 r = HoldInstanceLock(path, why); r != 0) return r;
  held.paths.insert(path);
  return 0;
}

}  // namespace kesttcs
