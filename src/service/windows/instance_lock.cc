// Instance locks with LockFileEx: held by the open handle, so they go when the process ends however
// it ends, and a lock file left behind by a crash never blocks a new start. The lock covers one
// byte far past the file's text, so that a second instance can still read the holder's process id.
#include <windows.h>

#include <string>

#include "service/instance_lock.h"

namespace kesttcs {
namespace {

constexpr DWORD kLockedByteOffset = 0x7FFFFFFF;

std::string HolderOf(HANDLE file) {
  char text[32] = {};
  DWORD read = 0;
  OVERLAPPED at{};
  if (!ReadFile(file, text, sizeof(text) - 1, &read, &at)) read = 0;
  std::string pid(text, read);
  while (!pid.empty() && (pid.back() == '\n' || pid.back() == '\r' || pid.back() == ' ')) {
    pid.pop_back();
  }
  return pid.empty() ? "unknown" : pid;
}

}  // namespace

UINT32 HoldInstanceLock(const std::string& path, std::string* why) {
  const HANDLE file =
      CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    *why = "cannot open " + path + ": error " + std::to_string(error);
    return error;
  }
  OVERLAPPED range{};
  range.Offset = kLockedByteOffset;
  if (!LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &range)) {
    const DWORD error = GetLastError();
    const bool busy = error == ERROR_LOCK_VIOLATION;
    *why = busy ? "kesttcsd (pid " + HolderOf(file) + ") is running and holds " + path
                : "cannot lock " + path + ": error " + std::to_string(error);
    CloseHandle(file);
    return busy ? ERROR_SERVICE_ALREADY_RUNNING : error;
  }
  const std::string pid = std::to_string(GetCurrentProcessId()) + "\n";
  DWORD written = 0;
  OVERLAPPED start{};
  if (!SetEndOfFile(file) ||
      !WriteFile(file, pid.data(), static_cast<DWORD>(pid.size()), &written, &start)) {
    // The lock holds all the same; only the name of the holder is missing.
  }
  // The handle stays open, and the lock held, for the process's life.
  return 0;
}

}  // namespace kesttcs
