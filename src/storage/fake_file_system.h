// A fault-injecting file system for tests, in the manner of leveldb's fault-injection Env. Every
// call goes through to a real file system (the files are real), while the fake counts writes,
// flushes (file and directory syncs), renames and bytes written, and injects the faults it is
// armed with:
//   - a failed write (nothing written), or a short one (the first half written), at write n;
//   - a failed flush at flush n; a failed rename at rename n;
//   - a crash at byte n: the write that reaches byte n stops there and every later call fails, as
//     if the process had died right then.
// After a crash LoseUnsyncedData() also undoes what a power loss would: file contents not flushed
// since they were written, and names created, renamed or removed since their directory was last
// synced. The fake tracks the files it touched; they are expected to share one directory. Flushes
// are modelled, not passed on: the model decides what a power loss keeps, and a real fsync would
// only cost time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage/file_system.h"

namespace kesttcs::testing {

class FaultInjectionFileSystem : public FileSystem {
 public:
  enum class Fault { kFailWrite, kShortWrite, kFailSync, kFailRename, kCrashAtByte };

  struct Counts {
    std::uint64_t writes = 0;
    std::uint64_t syncs = 0;
    std::uint64_t renames = 0;
    std::uint64_t bytes = 0;
  };

  // `real` must outlive the fake.
  explicit FaultInjectionFileSystem(FileSystem& real = HostFileSystem()) : real_(real) {}

  // Arms a fault: `at` counts writes (kFailWrite, kShortWrite), flushes (kFailSync), renames
  // (kFailRename) or bytes (kCrashAtByte), from 0 and since this fake was made.
  void Arm(Fault fault, std::uint64_t at) { armed_.push_back({fault, at}); }
  const Counts& counts() const { return counts_; }
  bool crashed() const { return crashed_; }

  // Puts every tracked file back to what a power loss would have left.
  void LoseUnsyncedData() {
    for (const auto& [path, durable] : durable_) {
      static_cast<void>(real_.Remove(path));
      if (durable.exists) WriteWhole(path, durable.data);
    }
  }

  std::unique_ptr<StorageFile> OpenForUpdate(const std::string& path) override {
    if (crashed_) return nullptr;
    Track(path);
    return Wrap(real_.OpenForUpdate(path), path);
  }
  std::unique_ptr<StorageFile> OpenForReading(const std::string& path) override {
    if (crashed_) return nullptr;
    return Wrap(real_.OpenForReading(path), path);
  }
  std::unique_ptr<StorageFile> Create(const std::string& path) override {
    if (crashed_) return nullptr;
    Track(path);
    return Wrap(real_.Create(path), path);
  }
  std::optional<std::uint64_t> FileSize(const std::string& path) override {
    if (crashed_) return std::nullopt;
    return real_.FileSize(path);
  }
  bool Remove(const std::string& path) override {
    if (crashed_) return false;
    Track(path);
    return real_.Remove(path);
  }
  bool Rename(const std::string& from, const std::string& to) override {
    return RenameWith(from, to, [&] { return real_.Rename(from, to); });
  }
  bool RenameNoReplace(const std::string& from, const std::string& to) override {
    return RenameWith(from, to, [&] { return real_.RenameNoReplace(from, to); });
  }
  bool SyncDirectory(const std::string& /*directory*/) override {
    if (!Flush()) return false;
    // The names are now as they are; a renamed file keeps the durable contents it had.
    for (const auto& [from, to] : renames_) durable_[to].data = durable_[from].data;
    renames_.clear();
    for (auto& [path, durable] : durable_) durable.exists = real_.FileSize(path).has_value();
    return true;
  }

 private:
  // What a power loss leaves of one name.
  struct Durable {
    bool exists = false;
    std::string data;
  };

  class File : public StorageFile {
   public:
    File(FaultInjectionFileSystem& fs, std::unique_ptr<StorageFile> real, std::string path)
        : fs_(fs), real_(std::move(real)), path_(std::move(path)) {}

    std::optional<std::size_t> Read(std::uint64_t offset, std::span<BYTE> out) override {
      if (fs_.crashed_) return std::nullopt;
      return real_->Read(offset, out);
    }
    bool Write(std::uint64_t offset, std::span<const BYTE> data) override {
      if (fs_.crashed_) return false;
      const std::size_t allowed = fs_.BytesAllowed(data.size());
      if (allowed > 0 && !real_->Write(offset, data.first(allowed))) return false;
      return allowed == data.size();
    }
    bool Sync() override {
      if (!fs_.Flush()) return false;
      fs_.durable_[path_].data = fs_.ReadPath(path_).value_or("");
      return true;
    }
    std::optional<std::uint64_t> Size() override {
      if (fs_.crashed_) return std::nullopt;
      return real_->Size();
    }

   private:
    FaultInjectionFileSystem& fs_;
    std::unique_ptr<StorageFile> real_;
    const std::string path_;
  };

  // The contents of `path`; nothing when it does not exist.
  std::optional<std::string> ReadPath(const std::string& path) {
    const std::unique_ptr<StorageFile> file = real_.OpenForReading(path);
    if (!file) return std::nullopt;
    std::string data(file->Size().value_or(0), '\0');
    const std::span<BYTE> bytes(reinterpret_cast<BYTE*>(data.data()), data.size());
    data.resize(file->Read(0, bytes).value_or(0));
    return data;
  }
  void WriteWhole(const std::string& path, const std::string& data) {
    const std::unique_ptr<StorageFile> file = real_.Create(path);
    if (file) {
      static_cast<void>(
          file->Write(0, std::span(reinterpret_cast<const BYTE*>(data.data()), data.size())));
    }
  }

  // Starts tracking `path` as it is now, which counts as durable.
  void Track(const std::string& path) {
    if (durable_.contains(path)) return;
    const std::optional<std::string> data = ReadPath(path);
    durable_[path] = Durable{data.has_value(), data.value_or("")};
  }

  std::unique_ptr<StorageFile> Wrap(std::unique_ptr<StorageFile> real, const std::string& path) {
    if (!real) return nullptr;
    return std::make_unique<File>(*this, std::move(real), path);
  }

  bool IsArmed(Fault fault, std::uint64_t index) const {
    for (const auto& [armed, at] : armed_) {
      if (armed == fault && at == index) return true;
    }
    return false;
  }

  template <typename F>
  bool RenameWith(const std::string& from, const std::string& to, F rename) {
    if (crashed_ || IsArmed(Fault::kFailRename, counts_.renames++)) return false;
    Track(from);
    Track(to);
    if (!rename()) return false;
    renames_.push_back({from, to});
    return true;
  }

  // How many of the next `size` bytes of write number counts_.writes may reach the file; counts
  // the write and its bytes, and crashes when the crash byte is among them.
  std::size_t BytesAllowed(std::size_t size) {
    const std::uint64_t index = counts_.writes++;
    std::size_t allowed = size;
    if (IsArmed(Fault::kFailWrite, index)) allowed = 0;
    if (IsArmed(Fault::kShortWrite, index)) allowed = size / 2;
    for (const auto& [fault, at] : armed_) {
      if (fault == Fault::kCrashAtByte && counts_.bytes + allowed > at) {
        allowed = static_cast<std::size_t>(at - counts_.bytes);
        crashed_ = true;
      }
    }
    counts_.bytes += allowed;
    return allowed;
  }

  // Counts a flush; false when it is to fail.
  bool Flush() {
    if (crashed_) return false;
    return !IsArmed(Fault::kFailSync, counts_.syncs++);
  }

  FileSystem& real_;
  std::vector<std::pair<Fault, std::uint64_t>> armed_;
  Counts counts_;
  bool crashed_ = false;
  std::map<std::string, Durable> durable_;
  std::vector<std::pair<std::string, std::string>> renames_;  // since the last directory sync
};

}  // namespace kesttcs::testing
