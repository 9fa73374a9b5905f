#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/written_file.h"

namespace kesttcs::cli {

std::string WriteAtomically(const std::string& path, const std::vector<BYTE>& blob, bool force) {
  const std::filesystem::path target(path);
  std::string temp =
      (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
  const int fd = mkstemp(temp.data());
  if (fd < 0) return "cannot write beside " + path + ": " + std::strerror(errno);
  bool ok = fchmod(fd, 0600) == 0;
  for (size_t done = 0; ok && done < blob.size();) {
    const ssize_t n = write(fd, blob.data() + done, blob.size() - done);
    ok = n > 0 || (n < 0 && errno == EINTR);
    if (n > 0) done += static_cast<size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  const int writeErrno = errno;
  close(fd);
  if (!ok) {
    unlink(temp.c_str());
    return "cannot write " + temp + ": " + std::strerror(writeErrno);
  }
  const bool placed =
      force ? rename(temp.c_str(), path.c_str()) == 0 : link(temp.c_str(), path.c_str()) == 0;
  const int placeErrno = errno;
  unlink(temp.c_str());
  if (placed) return "";
  if (placeErrno == EEXIST) return path + " exists; use --force to replace it";
  return "cannot write " + path + ": " + std::strerror(placeErrno);
}

}  // namespace kesttcs::cli
