// The home directory and the paths below it.
#include "service/host_paths.h"

#include <unistd.h>

#include <cstdlib>

#include "service/config.h"

namespace kesttcs {

std::string ExecutablePath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path));
  if (n <= 0) return {};
  return std::string(path, static_cast<size_t>(n));
}

std::string ResolveHomeDirectory() {
  std::string home;
  if (const char* env = std::getenv("KESTTCS_HOME"); env != nullptr && *env != '\0') {
    home = env;
  } else {
    home = ExecutablePath();
    home.erase(home.find_last_of('/') + 1);
    if (home.empty()) home = ".";
  }
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  return home;
}

HostPaths BuildHostPaths(const std::string& home) {
  // "/" as home must not give "//data".
  const std::string base = home == "/" ? std::string() : home;
  HostPaths paths;
  paths.home = home;
  paths.config = base + "/" + kConfigFileName;
  paths.data = base + "/data";
  paths.storageFile = base + "/data/KestData.dat";
  paths.audit = base + "/audit";
  paths.log = base + "/log";
  return paths;
}

}  // namespace kesttcs
