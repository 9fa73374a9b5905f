// Creating the service's directories the host's way.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Creates the directory `path` with the POSIX permission bits `mode` (the Windows host gives it
// the security of the directory it lies in). Returns 0 when `path` is a directory afterwards, also
// when it already was; otherwise the system's error code (errno; the Win32 error on Windows).
[[nodiscard]] UINT32 MakeDirectory(const std::string& path, unsigned mode);

}  // namespace kesttcs
