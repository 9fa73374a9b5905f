// Instance locks with flock(2): held by the open file, so they go when the process ends however it
// ends, and a lock file left behind by a crash never blocks a new start.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "service/instance_lock.h"

namespace kesttcs {
namespace {

// The process id the holder wrote, or "unknown" when it has not written it yet.
std::string HolderOf(int fd) {
  char text[32] = {};
  const ssize_t n = pread(fd, text, sizeof(text) - 1, 0);
  std::string pid(text, n > 0 ? static_cast<size_t>(n) : 0);
  while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
  return pid.empty() ? "unknown" : pid;
}

}  // namespace

UINT32 HoldInstanceLock(const std::string& path, std::string* why) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) {
    const int error = errno;
    *why = "cannot open " + path + ": " + std::strerror(error);
    return static_cast<UINT32>(error);
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    if (error == EWOULDBLOCK) {
      *why = "kesttcsd (pid " + HolderOf(fd) + ") is running and holds " + path;
    } else {
      *why = "cannot lock " + path + ": " + std::strerror(error);
    }
    close(fd);
    return error == EWOULDBLOCK ? EBUSY : static_cast<UINT32>(error);
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0) {
    // The lock holds all the same; only the name of the holder is missing.
  }
  // The descriptor stays open, and the lock held, for the process's life.
  return 0;
}

}  // namespace kesttcs
