// The home directory and the paths below it.
#include "service/host_paths.h"

#include <cstdlib>

#include "service/config.h"

namespace kesttcs {

std::string ResolveHomeDirectory() {
  std::string home;
  if (const char* env = std::getenv("KESTTCS_HOME"); env != nullptr && *env != '\0') {
    home = env;
  } else {
    home = ExecutableDirectory();
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
