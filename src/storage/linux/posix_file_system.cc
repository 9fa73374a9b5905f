// The Linux host's file system: POSIX calls on descriptors.

#include "storage/file_system.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kesttcs {
namespace {

// Storage files hold key blobs: owner only.
constexpr mode_t kFileMode = 0600;

// Owns one descriptor.
class PosixFile : public StorageFile {
 public:
  explicit PosixFile(int fd) : fd_(fd) {}
  ~PosixFile() override { ::close(fd_); }
  PosixFile(const PosixFile&) = delete;
  PosixFile& operator=(const PosixFile&) = delete;

  std::optional<std::size_t> Read(std::uint64_t offset, std::span<BYTE> out) override {
    std::size_t done = 0;
    while (done < out.size()) {
      const ssize_t n =
          ::pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return std::nullopt;
      if (n == 0) break;
      done += static_cast<std::size_t>(n);
    }
    return done;
  }

  bool Write(std::uint64_t offset, std::span<const BYTE> data) override {
    std::size_t done = 0;
    while (done < data.size()) {
      const ssize_t n =
          ::pwrite(fd_, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  bool Sync() override { return ::fsync(fd_) == 0; }

  std::optional<std::uint64_t> Size() override {
    struct stat st {};
    if (::fstat(fd_, &st) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(st.st_size);
  }

 private:
  const int fd_;
};

std::unique_ptr<StorageFile> Open(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, kFileMode);
  if (fd < 0) return nullptr;
  return std::make_unique<PosixFile>(fd);
}

class Posix : public FileSystem {
 public:
  std::unique_ptr<StorageFile> OpenForUpdate(const std::string& path) override {
    return Open(path, O_RDWR | O_CREAT);
  }
  std::unique_ptr<StorageFile> OpenForReading(const std::string& path) override {
    return Open(path, O_RDONLY);
  }
  std::unique_ptr<StorageFile> Create(const std::string& path) override {
    return Open(path, O_WRONLY | O_CREAT | O_TRUNC);
  }
  std::optional<std::uint64_t> FileSize(const std::string& path) override {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(st.st_size);
  }
  bool Remove(const std::string& path) override {
    return ::unlink(path.c_str()) == 0 || errno == ENOENT;
  }
  bool Rename(const std::string& from, const std::string& to) override {
    return ::rename(from.c_str(), to.c_str()) == 0;
  }
  bool RenameNoReplace(const std::string& from, const std::string& to) override {
    return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
  }
  bool SyncDirectory(const std::string& directory) override {
    const std::unique_ptr<StorageFile> dir = Open(directory, O_RDONLY | O_DIRECTORY);
    return dir != nullptr && dir->Sync();
  }
};

}  // namespace

FileSystem& HostFileSystem() {
  static Posix posix;
  return posix;
}

}  // namespace kesttcs
