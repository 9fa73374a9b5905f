#include "storage/ps_files.h"

#include <memory>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "storage/ps_checksum.h"

namespace kesttcs {
namespace {

// Copies are made in chunks of this size.
constexpr std::size_t kCopyChunkSize = 64 * 1024;

bool CopyContents(StorageFile& from, StorageFile& to) {
  std::vector<BYTE> chunk(kCopyChunkSize);
  for (std::uint64_t offset = 0;;) {
    const std::optional<std::size_t> n = from.Read(offset, chunk);
    if (!n) return false;
    if (*n == 0) return true;
    if (!to.Write(offset, std::span(chunk).first(*n))) return false;
    offset += *n;
  }
}

}  // namespace

std::string TmpPathOf(const std::string& dataFile) {
  return DirectoryOf(dataFile) + "/KestData.tmp";
}

std::string BakPathOf(const std::string& dataFile) { return dataFile + ".bak"; }

bool ChecksumMatches(FileSystem& fs, const std::string& path) {
  const std::unique_ptr<StorageFile> file = fs.OpenForReading(path);
  if (!file) return false;
  const std::optional<UINT32> stored = ReadStoredChecksum(*file);
  if (!stored) return false;
  const std::optional<UINT32> computed = ComputeFileChecksum(*file);
  return computed && *computed == *stored;
}

TSS_RESULT CopyToTmp(FileSystem& fs, StorageFile& data, const std::string& dataFile) {
  const std::string tmp = TmpPathOf(dataFile);
  if (!fs.Remove(tmp)) return TCS_E_INTERNAL_ERROR;
  const std::unique_ptr<StorageFile> copy = fs.Create(tmp);
  if (!copy || !CopyContents(data, *copy) || !copy->Sync() ||
      !fs.SyncDirectory(DirectoryOf(dataFile))) {
    return TCS_E_INTERNAL_ERROR;
  }
  return TSS_SUCCESS;
}

bool RestoreFromTmp(FileSystem& fs, const std::string& dataFile) {
  const std::string tmp = TmpPathOf(dataFile);
  const std::optional<std::uint64_t> size = fs.FileSize(tmp);
  if (!size) return false;
  if (*size != 0 && !ChecksumMatches(fs, tmp)) return false;
  if (!fs.Rename(tmp, dataFile)) return false;
  // Should a power loss undo the rename, the file is back in the interrupted state with its copy
  // beside it, and the next start-up restores it again.
  static_cast<void>(fs.SyncDirectory(DirectoryOf(dataFile)));
  return true;
}

}  // namespace kesttcs
