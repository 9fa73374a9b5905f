#include "service/directories.h"

#include <windows.h>

namespace kesttcs {

UINT32 MakeDirectory(const std::string& path, unsigned /*mode*/) {
  if (CreateDirectoryA(path.c_str(), nullptr)) return 0;
  const DWORD error = GetLastError();
  return error == ERROR_ALREADY_EXISTS ? 0 : error;
}

}  // namespace kesttcs
