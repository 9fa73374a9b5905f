#include "storage/owner_held_keys.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "base/mutex.h"
#include "storage/key_blob.h"
#include "storage/persistent_storage.h"
#include "storage/ps_checksum.h"
#include "storage/ps_format.h"

namespace kesttcs {
namespace {

constexpr std::size_t kHeaderSize = 8;
// UUID, TPM handle, blob length.
constexpr std::size_t kRecordHeaderSize = 24;

struct OwnerHeldList {
  Mutex mu;
  bool open GUARDED_BY(mu) = false;
  std::string path GUARDED_BY(mu);
  FileSystem* fs GUARDED_BY(mu) = nullptr;
  std::vector<OwnerHeldKey> keys GUARDED_BY(mu);
};

OwnerHeldList& List() {
  // Never destroyed: RPC workers may still ask while the process exits.
  static OwnerHeldList* list = new OwnerHeldList;
  return *list;
}

void Append(std::vector<BYTE>& out, std::span<const BYTE> bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

std::string CtrlTmpPathOf(const std::string& file) { return DirectoryOf(file) + "/KestCtrl.tmp"; }

// Replaces the file with `keys`: a flushed .tmp renamed over it, the directory flushed.
TSS_RESULT WriteFile(FileSystem& fs, const std::string& path, std::span<const OwnerHeldKey> keys) {
  const std::vector<BYTE> bytes = EncodeOwnerHeldFile(keys);
  const std::string tmp = CtrlTmpPathOf(path);
  {
    std::unique_ptr<StorageFile> file = fs.Create(tmp);
    if (!file || !file->Write(0, bytes) || !file->Sync()) return TCS_E_INTERNAL_ERROR;
  }
  if (!fs.Rename(tmp, path) || !fs.SyncDirectory(DirectoryOf(path))) return TCS_E_INTERNAL_ERROR;
  return TSS_SUCCESS;
}

// Writes `keys` as the list's new contents; the list changes only when the file did.
TSS_RESULT Commit(OwnerHeldList& list, std::vector<OwnerHeldKey> keys) REQUIRES(list.mu) {
  if (!list.open) return TCS_E_INTERNAL_ERROR;
  if (TSS_RESULT r = WriteFile(*list.fs, list.path, keys)) return r;
  list.keys = std::move(keys);
  return TSS_SUCCESS;
}

std::optional<TPM_KEY> FindHeldKey(const TSS_UUID& uuid) {
  const std::optional<OwnerHeldKey> held = owner_keys_find(uuid);
  TPM_KEY key;
  if (!held || !ParseKeyBlob(held->blob, &key)) return std::nullopt;
  return key;
}

}  // namespace

std::vector<BYTE> EncodeOwnerHeldFile(std::span<const OwnerHeldKey> keys) {
  std::vector<BYTE> out(4, 0);
  Append(out, EncodeLe32(static_cast<UINT32>(keys.size())));
  for (const OwnerHeldKey& key : keys) {
    Append(out, EncodeUuid(key.uuid));
    Append(out, EncodeLe32(key.tpmHandle));
    Append(out, EncodeLe32(static_cast<UINT32>(key.blob.size())));
    Append(out, key.blob);
  }
  PsChecksum checksum;
  checksum.Update(std::span(out).subspan(4));
  const std::array<BYTE, 4> stored = EncodeLe32(checksum.value());
  std::copy(stored.begin(), stored.end(), out.begin());
  return out;
}

OwnerHeldFileContents DecodeOwnerHeldFile(std::span<const BYTE> bytes) {
  OwnerHeldFileContents contents;
  if (bytes.empty()) return contents;
  if (bytes.size() < kHeaderSize) {
    contents.checksumMatched = false;
    return contents;
  }
  PsChecksum checksum;
  checksum.Update(bytes.subspan(4));
  contents.checksumMatched = checksum.value() == DecodeLe32(bytes.first<4>());
  const UINT32 count = DecodeLe32(bytes.subspan<4, 4>());
  std::size_t at = kHeaderSize;
  for (UINT32 i = 0; i < count && bytes.size() - at >= kRecordHeaderSize; ++i) {
    const std::span<const BYTE> header = bytes.subspan(at, kRecordHeaderSize);
    OwnerHeldKey key;
    key.uuid = DecodeUuid(header.first<16>());
    key.tpmHandle = DecodeLe32(header.subspan<16, 4>());
    const UINT32 blobSize = DecodeLe32(header.subspan<20, 4>());
    at += kRecordHeaderSize;
    if (blobSize > kOwnerHeldMaxBlobSize || blobSize > bytes.size() - at) break;
    const std::span<const BYTE> blob = bytes.subspan(at, blobSize);
    TPM_KEY parsed;
    if (!ParseKeyBlob(blob, &parsed)) break;
    key.blob.assign(blob.begin(), blob.end());
    contents.keys.push_back(std::move(key));
    at += blobSize;
  }
  return contents;
}

TSS_RESULT owner_keys_open(const std::string& file, FileSystem& fs) {
  OwnerHeldList& list = List();
  {
    MutexLock lock(list.mu);
    std::vector<BYTE> bytes;
    {
      // Closed before the file is replaced: Windows renames nothing over an open file.
      std::unique_ptr<StorageFile> data = fs.OpenForUpdate(file);
      const std::optional<std::uint64_t> size = data ? data->Size() : std::nullopt;
      if (!size) return TCS_E_INTERNAL_ERROR;
      bytes.resize(static_cast<std::size_t>(*size));
      const std::optional<std::size_t> read = data->Read(0, bytes);
      if (!read || *read != bytes.size()) return TCS_E_INTERNAL_ERROR;
    }
    OwnerHeldFileContents contents = DecodeOwnerHeldFile(bytes);
    list.open = true;
    list.path = file;
    list.fs = &fs;
    list.keys.clear();
    if (!contents.checksumMatched) {
      TcsTrace("InitOwnerCtrlKey:KestCtrl.dat checksum mismatch, keeping the records that parse",
               nullptr);
    }
    // A new file gets its header, a damaged one a fresh checksum over what was kept.
    if (bytes.empty() || !contents.checksumMatched) {
      if (TSS_RESULT r = Commit(list, std::move(contents.keys))) return r;
    } else {
      list.keys = std::move(contents.keys);
    }
  }
  ps_RegisterHooks(StorageHooks{.findOwnerHeldKey = FindHeldKey});
  return TSS_SUCCESS;
}

void ReleaseOwnCtrl() {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  list.keys.clear();
  list.open = false;
  list.fs = nullptr;
}

std::vector<OwnerHeldKey> owner_keys_list() {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  return list.keys;
}

std::optional<OwnerHeldKey> owner_keys_find(const TSS_UUID& uuid) {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  for (const OwnerHeldKey& key : list.keys) {
    if (SameUuid(key.uuid, uuid)) return key;
  }
  return std::nullopt;
}

bool owner_keys_holds(TPM_KEY_HANDLE tpmHandle) {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  return std::any_of(list.keys.begin(), list.keys.end(),
                     [&](const OwnerHeldKey& key) { return key.tpmHandle == tpmHandle; });
}

TSS_RESULT owner_keys_add(OwnerHeldKey key) {
  if (key.blob.size() > kOwnerHeldMaxBlobSize) return TCS_E_BAD_PARAMETER;
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  std::vector<OwnerHeldKey> keys = list.keys;
  std::erase_if(keys, [&](const OwnerHeldKey& k) { return k.tpmHandle == key.tpmHandle; });
  keys.push_back(std::move(key));
  return Commit(list, std::move(keys));
}

TSS_RESULT owner_keys_keep(const std::vector<bool>& keep) {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  if (keep.size() != list.keys.size()) return TCS_E_BAD_PARAMETER;
  if (std::all_of(keep.begin(), keep.end(), [](bool k) { return k; })) return TSS_SUCCESS;
  std::vector<OwnerHeldKey> keys;
  for (std::size_t i = 0; i < keep.size(); ++i) {
    if (keep[i]) keys.push_back(list.keys[i]);
  }
  return Commit(list, std::move(keys));
}

TSS_RESULT owner_keys_remove(TPM_KEY_HANDLE tpmHandle) {
  OwnerHeldList& list = List();
  MutexLock lock(list.mu);
  std::vector<OwnerHeldKey> keys = list.keys;
  if (std::erase_if(keys, [&](const OwnerHeldKey& k) { return k.tpmHandle == tpmHandle; }) == 0) {
    return TSS_SUCCESS;
  }
  return Commit(list, std::move(keys));
}

}  // namespace kesttcs
