// Where the running executable lies, from the module's file name.
#include <windows.h>

#include "service/host_paths.h"

namespace kesttcs {

std::string ExecutablePath() {
  char path[MAX_PATH];
  const DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return {};
  return std::string(path, length);
}

std::string ExecutableDirectory() {
  std::string directory = ExecutablePath();
  const size_t separator = directory.find_last_of("\\/");
  if (separator == std::string::npos) return ".";
  // "C:\" keeps its separator.
  directory.erase(separator > 0 && directory[separator - 1] == ':' ? separator + 1 : separator);
  return directory;
}

}  // namespace kesttcs
