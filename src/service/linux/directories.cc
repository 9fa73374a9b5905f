#include "service/directories.h"

#include <sys/stat.h>

#include <cerrno>

namespace kesttcs {

UINT32 MakeDirectory(const std::string& path, unsigned mode) {
  if (mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 || errno == EEXIST) return 0;
  return static_cast<UINT32>(errno);
}

}  // namespace kesttcs
