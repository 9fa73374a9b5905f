#include <windows.h>

#include <filesystem>
#include <fstream>

#include "tools/written_file.h"

namespace kesttcs::cli {

std::string WriteAtomically(const std::string& path, const std::vector<BYTE>& blob, bool force) {
  const std::filesystem::path target(path);
  const std::string temp =
      (target.parent_path() / ("." + target.filename().string() + ".new")).string();
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(blob.data()),
              static_cast<std::streamsize>(blob.size()));
    if (!out.flush()) {
      out.close();
      DeleteFileA(temp.c_str());
      return "cannot write " + temp;
    }
  }
  // Without MOVEFILE_REPLACE_EXISTING the move fails when the file exists.
  const DWORD flags = MOVEFILE_WRITE_THROUGH | (force ? MOVEFILE_REPLACE_EXISTING : 0);
  if (MoveFileExA(temp.c_str(), path.c_str(), flags)) return "";
  const DWORD error = GetLastError();
  DeleteFileA(temp.c_str());
  if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
    return path + " exists; use --force to replace it";
  }
  return "cannot write " + path + " (error " + std::to_string(error) + ")";
}

}  // namespace kesttcs::cli
