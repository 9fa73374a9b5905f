#include "storage/identity_credentials.h"

#include <memory>
#include <new>
#include <optional>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace kesttcs {
namespace {

Mutex g_directory_mutex;
std::string g_directory GUARDED_BY(g_directory_mutex);

std::string Directory() {
  MutexLock lock(g_directory_mutex);
  return g_directory;
}

// One credential file: nothing when it does not exist; otherwise whether it was held and read.
struct CredentialFile {
  bool present = false;
  bool held = false;  // its size in bytes could be set aside
  bool read = false;  // one item of that size was read
};

CredentialFile ReadWhole(FileSystem& fileSystem, const std::string& path, std::vector<BYTE>* out) {
  CredentialFile file;
  const std::unique_ptr<StorageFile> f = fileSystem.OpenForReading(path);
  if (!f) return file;
  file.present = true;
  const std::optional<std::uint64_t> size = f->Size();
  if (!size) return file;
  try {
    out->resize(static_cast<size_t>(*size));
  } catch (const std::bad_alloc&) {
    out->clear();
    return file;
  }
  file.held = true;
  // A read of one item of `size` bytes: an empty file reads no item.
  const std::optional<std::size_t> got = f->Read(0, *out);
  file.read = *size != 0 && got && *got == *size;
  if (!file.read) out->clear();
  return file;
}

void KeepFirstError(TSS_RESULT* result, TSS_RESULT error) {
  if (*result == TSS_SUCCESS) *result = error;
}

}  // namespace

void identity_credentials_SetDirectory(const std::string& directory) {
  MutexLock lock(g_directory_mutex);
  g_directory = directory;
}

TSS_RESULT ReadIdentityCredentials(IdentityCredentials* credentials, FileSystem& fileSystem) {
  if (credentials == nullptr) return TCS_E_BAD_PARAMETER;
  *credentials = IdentityCredentials();
  const std::string directory = Directory() + "/";
  TSS_RESULT result = TSS_SUCCESS;

  const CredentialFile endorsement =
      ReadWhole(fileSystem, directory + kEndorsementCredentialFile, &credentials->endorsement);
  if (!endorsement.present) {
    KeepFirstError(&result, TCS_E_FAIL);
  } else if (!endorsement.held) {
    KeepFirstError(&result, TCS_E_OUTOFMEMORY);
  } else if (!endorsement.read) {
    KeepFirstError(&result, TCS_E_FAIL);
  }

  for (auto [name, bytes] : {std::pair{kPlatformCredentialFile, &credentials->platform},
                             std::pair{kConformanceCredentialFile, &credentials->conformance}}) {
    const CredentialFile file = ReadWhole(fileSystem, directory + name, bytes);
    if (!file.present) continue;
    // The check after holding this credential asks whether the endorsement credential is held.
    if (!endorsement.held) {
      KeepFirstError(&result, TCS_E_OUTOFMEMORY);
    } else if (!file.read) {
      KeepFirstError(&result, TCS_E_FAIL);
    }
  }
  return result;
}

}  // namespace kesttcs
