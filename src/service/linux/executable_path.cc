// Where the running executable lies, from /proc.
#include <unistd.h>

#include "service/host_paths.h"

namespace kesttcs {

std::string ExecutablePath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path));
  if (n <= 0) return {};
  return std::string(path, static_cast<size_t>(n));
}

std::string ExecutableDirectory() {
  std::string directory = ExecutablePath();
  const size_t slash = directory.find_last_of('/');
  if (slash == std::string::npos) return ".";
  directory.erase(slash == 0 ? 1 : slash);
  return directory;
}

}  // namespace kesttcs
