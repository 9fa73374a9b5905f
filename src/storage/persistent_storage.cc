// Opening and closing storage, the start-up steps before it opens, and the module's settings.
#include "storage/persistent_storage.h"

#include <algorithm>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "storage/ps_files.h"
#include "storage/ps_store.h"

namespace kesttcs {
namespace {

template <typename F>
void ReplaceIfSet(F& target, F& source) {
  if (source) target = std::move(source);
}

void ReportChecksumMismatch(const char* what, const std::string& dataFile) {
  const char* strings[] = {what, dataFile.c_str()};
  ReportServiceEvent(TCS_E_FAIL, 0, 2, strings);
}

}  // namespace

void ps_RegisterHooks(StorageHooks hooks) {
  PsStore& s = Store();
  MutexLock lock(s.indexMutex);
  ReplaceIfSet(s.hooks.addSrkToKeyCache, hooks.addSrkToKeyCache);
  ReplaceIfSet(s.hooks.findCachedKey, hooks.findCachedKey);
  ReplaceIfSet(s.hooks.findOwnerHeldKey, hooks.findOwnerHeldKey);
}

void ps_SetFileSystem(FileSystem* fileSystem) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  s.fs = fileSystem != nullptr ? fileSystem : &HostFileSystem();
}

StorageHooks ps_CurrentHooks() {
  PsStore& s = Store();
  MutexLock lock(s.indexMutex);
  return s.hooks;
}

TSS_RESULT ps_moveToBak(const std::string& dataFile) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  const std::optional<std::uint64_t> size = s.fs->FileSize(dataFile);
  // A failed rename (a ".bak" is there already) leaves the file where it is.
  if (size && *size > 0) static_cast<void>(s.fs->RenameNoReplace(dataFile, BakPathOf(dataFile)));
  return TSS_SUCCESS;
}

TSS_RESULT ps_checkAndRestore(const std::string& dataFile) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  const std::optional<std::uint64_t> size = s.fs->FileSize(dataFile);
  if (!size || *size == 0 || ChecksumMatches(*s.fs, dataFile)) return TSS_SUCCESS;
  if (RestoreFromTmp(*s.fs, dataFile)) {
    ReportChecksumMismatch("KestData.dat checksum mismatch; restored from KestData.tmp", dataFile);
  } else {
    ReportChecksumMismatch(
        "KestData.dat checksum mismatch; no usable KestData.tmp, loading the records that parse",
        dataFile);
  }
  return TSS_SUCCESS;
}

TSS_RESULT ps_init(const std::string& dataFile, bool tpmHasOwner) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  s.file.reset();
  s.restorePending = false;
  s.path = dataFile;
  TSS_RESULT r = DataFile(s) != nullptr ? LoadIndex(s, tpmHasOwner) : TCS_E_INTERNAL_ERROR;
  if (r != TSS_SUCCESS) {
    s.file.reset();
    s.path.clear();
    MutexLock indexLock(s.indexMutex);
    s.index.clear();
  }
  return r;
}

void ps_close() {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  MutexLock indexLock(s.indexMutex);
  const bool anyDeleted =
      std::ranges::any_of(s.index, [](const PsNode& node) { return !node.valid(); });
  if (!s.path.empty() && anyDeleted) {
    // Left as it is when this fails: the slots were wiped when their keys were unregistered.
    static_cast<void>(
        RunChange(s, [&]() REQUIRES(s.fileMutex, s.indexMutex) { return WipeDeletedSlots(s); }));
  }
  s.index.clear();
  s.hooks = DefaultStorageHooks();
  s.file.reset();
  s.path.clear();
  s.restorePending = false;
  s.fs = &HostFileSystem();
}

TSS_RESULT ps_delete() {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  if (s.path.empty()) return TCS_E_INTERNAL_ERROR;
  s.file.reset();
  s.restorePending = false;
  {
    MutexLock indexLock(s.indexMutex);
    s.index.clear();
  }
  return s.fs->Remove(s.path) ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

TSS_RESULT ps_updateChecksum() {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  return UpdateChecksum(s);
}

TSS_RESULT ps_backupToTmp() {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  return BackupToTmp(s);
}

bool ps_checkFile(const std::string& path) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  return ChecksumMatches(*s.fs, path);
}

}  // namespace kesttcs
