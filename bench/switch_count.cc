#include "switch_count.h"

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kesttcs::bench {
namespace {

// Voluntary context switches of each thread of the process.
std::map<pid_t, long> VoluntarySwitches() {
  std::map<pid_t, long> switches;
  DIR* dir = ::opendir("/proc/self/task");
  if (dir == nullptr) return switches;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const std::string path = std::string("/proc/self/task/") + entry->d_name + "/status";
    FILE* status = std::fopen(path.c_str(), "r");
    if (status == nullptr) continue;
    char line[256];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
      constexpr char kKey[] = "voluntary_ctxt_switches:";
      if (std::strncmp(line, kKey, sizeof(kKey) - 1) == 0) {
        switches[static_cast<pid_t>(std::atoi(entry->d_name))] = std::atol(line + sizeof(kKey) - 1);
      }
    }
    std::fclose(status);
  }
  ::closedir(dir);
  return switches;
}

}  // namespace

SwitchCount::SwitchCount() : start_(VoluntarySwitches()) {}

void SwitchCount::Report(benchmark::State& state) const {
  if (state.thread_index() != 0 || state.iterations() == 0) return;
  // The client threads run their loops together, so the first one's count stands for each.
  const long calls = static_cast<long>(state.iterations()) * state.threads();
  long total = 0;
  int woken = 0;
  for (const auto& [thread, now] : VoluntarySwitches()) {
    const auto before = start_.find(thread);
    const long delta = now - (before == start_.end() ? 0 : before->second);
    total += delta;
    // A thread that slept once or twice in the whole loop took no part in the calls.
    if (delta > static_cast<long>(state.iterations()) / 2) ++woken;
  }
  state.counters["wakeups/call"] = static_cast<double>(total) / calls;
  if (state.threads() == 1) state.counters["threads woken"] = woken;
}

}  // namespace kesttcs::bench
