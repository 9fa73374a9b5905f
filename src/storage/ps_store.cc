#include "storage/ps_store.h"

#include <algorithm>
#include <array>

#include <kesttcs/tcs_results.h>

#include "storage/ps_checksum.h"
#include "storage/ps_files.h"

namespace kesttcs {
namespace {

// Puts the data file back from its .tmp copy; clears restorePending when that worked.
bool PutBackFromTmp(PsStore& s) REQUIRES(s.fileMutex) {
  s.file.reset();  // the copy is renamed over the file this descriptor reads
  if (!RestoreFromTmp(*s.fs, s.path)) return false;
  s.restorePending = false;
  return true;
}

// Writes `count` zero bytes at `offset`.
TSS_RESULT WriteZeros(PsStore& s, std::uint64_t offset, std::uint64_t count) REQUIRES(s.fileMutex) {
  static constexpr std::array<BYTE, 4096> kZeros{};
  while (count > 0) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, kZeros.size()));
    if (TSS_RESULT r = WriteData(s, offset, std::span(kZeros).first(n))) return r;
    offset += n;
    count -= n;
  }
  return TSS_SUCCESS;
}

}  // namespace

StorageHooks DefaultStorageHooks() {
  return StorageHooks{
      .addSrkToKeyCache = [](const TPM_KEY&) {},
      .findCachedKey = [](const TSS_UUID&) { return std::optional<CachedKeyFacts>(); },
      .findOwnerHeldKey = [](const TSS_UUID&) { return std::optional<TPM_KEY>(); },
  };
}

PsNode MakeNode(const PsRecordHeader& header, UINT32 offset) {
  return PsNode{.offset = offset,
                .pubDataSize = header.pubDataSize,
                .blobSize = header.blobSize,
                .flags = header.flags,
                .uuid = header.uuid,
                .parentUuid = header.parentUuid};
}

PsNode* FindValidNode(PsIndex& index, const TSS_UUID& uuid) {
  const auto it = std::find_if(index.begin(), index.end(), [&](const PsNode& node) {
    return node.valid() && SameUuid(node.uuid, uuid);
  });
  return it == index.end() ? nullptr : &*it;
}

PsNode* FindReusableNode(PsIndex& index, UINT16 pubDataSize, UINT16 blobSize) {
  const auto it = std::find_if(index.begin(), index.end(), [&](const PsNode& node) {
    return !node.valid() && node.pubDataSize == pubDataSize && node.blobSize == blobSize;
  });
  return it == index.end() ? nullptr : &*it;
}

PsStore& Store() {
  // Never destroyed: RPC workers may still look up keys while the process exits.
  static PsStore* store = new PsStore;
  return *store;
}

StorageFile* DataFile(PsStore& s) {
  if (!s.file && !s.path.empty()) s.file = s.fs->OpenForUpdate(s.path);
  return s.file.get();
}

TSS_RESULT ReadData(PsStore& s, std::uint64_t offset, std::span<BYTE> out) {
  StorageFile* file = DataFile(s);
  if (file == nullptr) return TCS_E_INTERNAL_ERROR;
  const std::optional<std::size_t> n = file->Read(offset, out);
  return n && *n == out.size() ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

TSS_RESULT WriteData(PsStore& s, std::uint64_t offset, std::span<const BYTE> data) {
  StorageFile* file = DataFile(s);
  return file != nullptr && file->Write(offset, data) ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

UINT32 ReadRecordCount(PsStore& s) {
  std::array<BYTE, 4> count;
  return ReadData(s, kPsCountOffset, count) == TSS_SUCCESS ? DecodeLe32(count) : 0;
}

TSS_RESULT BackupToTmp(PsStore& s) {
  if (s.restorePending && !PutBackFromTmp(s)) return TCS_E_INTERNAL_ERROR;
  StorageFile* file = DataFile(s);
  if (file == nullptr) return TCS_E_INTERNAL_ERROR;
  return CopyToTmp(*s.fs, *file, s.path);
}

TSS_RESULT UpdateChecksum(PsStore& s) {
  StorageFile* file = DataFile(s);
  if (file == nullptr || !file->Sync()) return TCS_E_INTERNAL_ERROR;
  const std::optional<UINT32> checksum = ComputeFileChecksum(*file);
  if (!checksum) return TCS_E_INTERNAL_ERROR;
  if (TSS_RESULT r = WriteData(s, 0, EncodeLe32(*checksum)); r != TSS_SUCCESS) return r;
  return file->Sync() ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

TSS_RESULT RunChange(PsStore& s, const std::function<TSS_RESULT()>& write) {
  if (TSS_RESULT r = BackupToTmp(s); r != TSS_SUCCESS) return r;
  // From here until the checksum is flushed the file may differ from its copy.
  s.restorePending = true;
  TSS_RESULT r = write();
  if (r == TSS_SUCCESS) r = UpdateChecksum(s);
  if (r == TSS_SUCCESS) {
    s.restorePending = false;
  } else {
    static_cast<void>(PutBackFromTmp(s));
  }
  return r;
}

TSS_RESULT WipeDeletedSlots(PsStore& s) {
  constexpr std::uint64_t kUuidsSize = 2 * sizeof(TSS_UUID);
  constexpr std::uint64_t kFlagsOffset = kUuidsSize + 2 * sizeof(UINT16);
  StorageFile* file = DataFile(s);
  const std::optional<std::uint64_t> size = file != nullptr ? file->Size() : std::nullopt;
  if (!size) return TCS_E_INTERNAL_ERROR;
  for (const PsNode& node : s.index) {
    if (node.valid()) continue;
    // The two sizes stay, so that the slot can take a record of exactly the same sizes. The slot
    // of a record loading stopped at may claim more than the file holds: only what it holds is
    // wiped.
    const std::uint64_t dataEnd = std::min<std::uint64_t>(
        *size, std::uint64_t{node.pubDataOffset()} + node.pubDataSize + node.blobSize);
    if (TSS_RESULT r = WriteZeros(s, node.offset, kUuidsSize)) return r;
    if (TSS_RESULT r = WriteZeros(s, node.offset + kFlagsOffset, sizeof(UINT16))) return r;
    if (dataEnd > node.pubDataOffset()) {
      if (TSS_RESULT r = WriteZeros(s, node.pubDataOffset(), dataEnd - node.pubDataOffset())) {
        return r;
      }
    }
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
