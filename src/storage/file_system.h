// The file seam of persistent storage: every byte the storage files see is read or written through
// these two interfaces, so that tests can put a fault-injecting file system (fake_file_system.h)
// between the storage code and the disk. HostFileSystem() is the real one: POSIX calls on Linux
// (linux/posix_file_system.cc), Win32 calls on Windows (windows/windows_file_system.cc).
//
// Neither interface takes a lock; the storage module serialises its use under its file mutex.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// One open file, addressed by offset. Closed when destroyed.
class StorageFile {
 public:
  virtual ~StorageFile() = default;

  // Reads up to out.size() bytes from `offset`. Returns the number read, which is smaller only at
  // the end of the file; nothing when the read fails.
  virtual std::optional<std::size_t> Read(std::uint64_t offset, std::span<BYTE> out) = 0;
  // Writes all of `data` at `offset`, extending the file as needed. False when not every byte was
  // written (some may have been).
  virtual bool Write(std::uint64_t offset, std::span<const BYTE> data) = 0;
  // Makes what was written durable (fsync). False when the system could not promise it.
  virtual bool Sync() = 0;
  // The file's size; nothing when it cannot be read.
  virtual std::optional<std::uint64_t> Size() = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Opens `path` for reading and writing, creating it empty (owner read/write only) when missing.
  // Null on failure.
  virtual std::unique_ptr<StorageFile> OpenForUpdate(const std::string& path) = 0;
  // Opens an existing `path` for reading. Null on failure.
  virtual std::unique_ptr<StorageFile> OpenForReading(const std::string& path) = 0;
  // Creates `path` empty for writing, replacing a file of that name. Null on failure.
  virtual std::unique_ptr<StorageFile> Create(const std::string& path) = 0;
  // The size of `path`; nothing when it does not exist or cannot be read.
  virtual std::optional<std::uint64_t> FileSize(const std::string& path) = 0;
  // Deletes `path`. True when it is gone afterwards (also when it never existed).
  virtual bool Remove(const std::string& path) = 0;
  // Renames `from` to `to`, replacing a file named `to`.
  virtual bool Rename(const std::string& from, const std::string& to) = 0;
  // Renames `from` to `to`; fails, changing nothing, when `to` exists.
  virtual bool RenameNoReplace(const std::string& from, const std::string& to) = 0;
  // Makes the names created, renamed and removed in `directory` durable (fsync of the directory).
  virtual bool SyncDirectory(const std::string& directory) = 0;
};

// The real file system. Lives for the whole process.
FileSystem& HostFileSystem();

// The directory part of `path` ("." when it has none).
std::string DirectoryOf(const std::string& path);

}  // namespace kesttcs
