#include <windows.h>

#include <cstdlib>

#include "tools/service_home.h"

namespace kesttcs::cli {

std::string ServiceHome() {
  const char* home = std::getenv("KESTTCS_HOME");
  if (home != nullptr && *home != '\0') return home;
  char path[MAX_PATH];
  const DWORD size = GetModuleFileNameA(nullptr, path, sizeof(path));
  if (size == 0 || size == sizeof(path)) return ".";
  std::string directory(path, size);
  const size_t slash = directory.find_last_of("\\/");
  return slash == std::string::npos ? "." : directory.substr(0, slash);
}

std::string ServiceConfigValue(const char* section, const char* name) {
  char value[512];
  const DWORD size = GetPrivateProfileStringA(section, name, "", value, sizeof(value),
                                              (ServiceHome() + "\\tcs_cfg.ini").c_str());
  return std::string(value, size);
}

}  // namespace kesttcs::cli
