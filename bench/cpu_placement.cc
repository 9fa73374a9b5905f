#include "cpu_placement.h"

#include <dirent.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace kesttcs::bench {
namespace {

pid_t ThisThread() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

std::vector<pid_t> ProcessThreads() {
  std::vector<pid_t> threads;
  DIR* dir = ::opendir("/proc/self/task");
  if (dir == nullptr) return threads;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') threads.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
  }
  ::closedir(dir);
  return threads;
}

// The CPUs the process was started with, read once before anything is pinned.
const cpu_set_t& AllowedCpus() {
  static const cpu_set_t allowed = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    ::sched_getaffinity(0, sizeof(set), &set);
    return set;
  }();
  return allowed;
}

cpu_set_t NthCpu(int n) {
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &AllowedCpus()) && n-- == 0) {
      CPU_SET(cpu, &one);
      break;
    }
  }
  return one;
}

void Pin(pid_t thread, const cpu_set_t& cpus) { ::sched_setaffinity(thread, sizeof(cpus), &cpus); }

}  // namespace

const char* PlacementName(Placement placement) {
  switch (placement) {
    case Placement::kUnpinned:
      return "unpinned";
    case Placement::kOneCpu:
      return "one CPU";
    case Placement::kTwoCpus:
      return "different CPUs";
  }
  return "?";
}

ScopedPlacement::ScopedPlacement(Placement placement) {
  const cpu_set_t& all = AllowedCpus();
  if (placement == Placement::kUnpinned) return;
  if (placement == Placement::kTwoCpus && CPU_COUNT(&all) < 2) {
    ok_ = false;
    return;
  }
  const cpu_set_t service = NthCpu(0);
  const pid_t self = ThisThread();
  for (pid_t thread : ProcessThreads()) {
    if (thread != self) Pin(thread, service);
  }
  Pin(self, placement == Placement::kOneCpu ? service : NthCpu(1));
}

ScopedPlacement::~ScopedPlacement() {
  for (pid_t thread : ProcessThreads()) Pin(thread, AllowedCpus());
}

}  // namespace kesttcs::bench
