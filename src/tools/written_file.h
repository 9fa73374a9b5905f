// Writing a file whole or not at all, with a source per platform.
#pragma once

#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// Writes `blob` to `path` through a temporary file beside it: renamed over an existing file with
// `force`, else put in place only when no file of that name exists. An error text, or "".
std::string WriteAtomically(const std::string& path, const std::vector<BYTE>& blob, bool force);

}  // namespace kesttcs::cli
