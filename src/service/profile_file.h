// Profile ("ini") files, read whole by the host's own profile reader: inih on Linux, the Windows
// profile API (GetPrivateProfileStringA) on Windows. Both read a value the same way: blanks around
// it trimmed and one pair of enclosing quotes removed; the first occurrence of a key in a section
// wins.
#pragma once

#include <map>
#include <string>

namespace kesttcs {

struct ProfileFile {
  // Values by section, then by key, with the names as the file writes them.
  std::map<std::string, std::map<std::string, std::string>> sections;
  // The first line the reader could not parse (0: none). The Windows reader skips such lines
  // without saying so.
  int malformedLine = 0;
};

// Reads the file at `path`; false when it is missing or cannot be opened.
bool ReadProfileFile(const std::string& path, ProfileFile* profile);

}  // namespace kesttcs
