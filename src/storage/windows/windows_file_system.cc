// The Windows host's file system: Win32 file handles. Reads and writes name their offset in an
// OVERLAPPED record, so one handle serves any offset without a shared file pointer.

#include <windows.h>

#include "storage/file_system.h"

namespace kesttcs {
namespace {

// Owns one handle.
class WindowsFile : public StorageFile {
 public:
  explicit WindowsFile(HANDLE handle) : handle_(handle) {}
  ~WindowsFile() override { ::CloseHandle(handle_); }
  WindowsFile(const WindowsFile&) = delete;
  WindowsFile& operator=(const WindowsFile&) = delete;

  std::optional<std::size_t> Read(std::uint64_t offset, std::span<BYTE> out) override {
    std::size_t done = 0;
    while (done < out.size()) {
      OVERLAPPED at = At(offset + done);
      DWORD n = 0;
      if (!::ReadFile(handle_, out.data() + done, Chunk(out.size() - done), &n, &at)) {
        if (::GetLastError() == ERROR_HANDLE_EOF) break;
        return std::nullopt;
      }
      if (n == 0) break;
      done += n;
    }
    return done;
  }

  bool Write(std::uint64_t offset, std::span<const BYTE> data) override {
    std::size_t done = 0;
    while (done < data.size()) {
      OVERLAPPED at = At(offset + done);
      DWORD n = 0;
      if (!::WriteFile(handle_, data.data() + done, Chunk(data.size() - done), &n, &at) || n == 0) {
        return false;
      }
      done += n;
    }
    return true;
  }

  bool Sync() override { return ::FlushFileBuffers(handle_) != 0; }

  std::optional<std::uint64_t> Size() override {
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(handle_, &size)) return std::nullopt;
    return static_cast<std::uint64_t>(size.QuadPart);
  }

 private:
  static OVERLAPPED At(std::uint64_t offset) {
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(offset);
    at.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return at;
  }
  static DWORD Chunk(std::size_t left) {
    constexpr std::size_t kMaxChunk = 1u << 30;
    return static_cast<DWORD>(left < kMaxChunk ? left : kMaxChunk);
  }

  const HANDLE handle_;
};

std::unique_ptr<StorageFile> Open(const std::string& path, DWORD access, DWORD disposition) {
  // Readers and writers of other handles are allowed, and so is a rename or delete of the name
  // while a handle is open, as POSIX allows them.
  const HANDLE handle =
      ::CreateFileA(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return nullptr;
  return std::make_unique<WindowsFile>(handle);
}

class Windows : public FileSystem {
 public:
  std::unique_ptr<StorageFile> OpenForUpdate(const std::string& path) override {
    return Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
  }
  std::unique_ptr<StorageFile> OpenForReading(const std::string& path) override {
    return Open(path, GENERIC_READ, OPEN_EXISTING);
  }
  std::unique_ptr<StorageFile> Create(const std::string& path) override {
    return Open(path, GENERIC_WRITE, CREATE_ALWAYS);
  }
  std::optional<std::uint64_t> FileSize(const std::string& path) override {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return std::nullopt;
    return (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  }
  bool Remove(const std::string& path) override {
    if (::DeleteFileA(path.c_str())) return true;
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
  }
  bool Rename(const std::string& from, const std::string& to) override {
    return ::MoveFileExA(from.c_str(), to.c_str(),
                         MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
  }
  bool RenameNoReplace(const std::string& from, const std::string& to) override {
    return ::MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH) != 0;
  }
  // A directory cannot be flushed on Windows; MOVEFILE_WRITE_THROUGH made each rename durable
  // before it returned, and created and removed names are journalled by the file system.
  bool SyncDirectory(const std::string& /*directory*/) override { return true; }
};

}  // namespace

FileSystem& HostFileSystem() {
  static Windows windows;
  return windows;
}

}  // namespace kesttcs
