// Where a benchmark's client and the service it calls run. The service runs in the benchmark's
// own process, so its threads are all the process's threads but the calling client's; threads it
// starts later inherit their creator's CPUs.
#pragma once

#include <cstdint>

namespace kesttcs::bench {

enum class Placement : int64_t {
  kUnpinned = 0,  // the scheduler decides
  kOneCpu = 1,    // service and client share the first CPU
  kTwoCpus = 2,   // service on the first CPU, client on the second
};

const char* PlacementName(Placement placement);

// Pins the process's threads as `placement` says while it lives, and unpins them all after.
class ScopedPlacement {
 public:
  explicit ScopedPlacement(Placement placement);
  ~ScopedPlacement();
  ScopedPlacement(const ScopedPlacement&) = delete;
  ScopedPlacement& operator=(const ScopedPlacement&) = delete;

  // False when the placement needs more CPUs than the process may use.
  bool ok() const { return ok_; }

 private:
  bool ok_ = true;
};

}  // namespace kesttcs::bench
