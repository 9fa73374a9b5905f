// The changes of the data file: writing a record, unregistering, updating a blob in place.
#include <array>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "storage/key_blob.h"
#include "storage/persistent_storage.h"
#include "storage/ps_store.h"

namespace kesttcs {
namespace {

// Where a new record goes and what the count becomes: offset 8 in a file without records, else
// the reusable slot, else the end of the file (the count grows by one). Writes the new count.
TSS_RESULT ChooseSlot(PsStore& s, std::optional<UINT32> reusableOffset, UINT32* offset)
    REQUIRES(s.fileMutex) {
  const UINT32 count = ReadRecordCount(s);
  if (count == 0) {
    *offset = kPsFirstRecordOffset;
    return WriteData(s, kPsCountOffset, EncodeLe32(1));
  }
  if (reusableOffset) {
    *offset = *reusableOffset;
    return TSS_SUCCESS;
  }
  StorageFile* file = DataFile(s);
  const std::optional<std::uint64_t> end = file != nullptr ? file->Size() : std::nullopt;
  if (!end || *end > UINT32{0xFFFFFFFF}) return TCS_E_INTERNAL_ERROR;
  *offset = static_cast<UINT32>(*end);
  return WriteData(s, kPsCountOffset, EncodeLe32(count + 1));
}

TSS_RESULT WriteRecord(PsStore& s, const PsRecordHeader& header, std::span<const BYTE> pubData,
                       std::span<const BYTE> blob, std::optional<UINT32> reusableOffset,
                       UINT32* offset) REQUIRES(s.fileMutex) {
  if (TSS_RESULT r = ChooseSlot(s, reusableOffset, offset)) return r;
  if (TSS_RESULT r = WriteData(s, *offset, EncodeRecordHeader(header))) return r;
  if (TSS_RESULT r = WriteData(s, *offset + kPsRecordHeaderSize, pubData)) return r;
  return WriteData(s, std::uint64_t{*offset} + kPsRecordHeaderSize + pubData.size(), blob);
}

}  // namespace

TSS_RESULT WriteKeyRecord(PsStore& s, const TSS_UUID& keyUuid, const TSS_UUID& parentUuid,
                          std::span<const BYTE> blob) {
  TPM_KEY key;
  if (blob.size() > kPsMaxBlobSize || !ParseKeyBlob(blob, &key)) return TCS_E_FAIL;
  const std::optional<std::vector<BYTE>> pubData = MarshalPublicData(key, kPsMaxPubDataSize);
  if (!pubData) return TCS_E_FAIL;
  const int parentType =
      SameUuid(parentUuid, kNullUuid) ? kPsTypeSystem : getParentPSTypeByUUID(parentUuid);
  if (parentType == kPsTypeAbsent) return TCS_E_FAIL;

  PsRecordHeader header;
  header.uuid = keyUuid;
  header.parentUuid = parentUuid;
  header.pubDataSize = static_cast<UINT16>(pubData->size());
  header.blobSize = static_cast<UINT16>(blob.size());
  header.flags =
      parentType == kPsTypeSystem ? kPsFlagValid | kPsFlagParentInSystemPs : kPsFlagValid;

  // Only changes (which hold the file mutex, as this does) add or alter nodes, so the node found
  // here is still the same when the change is over.
  PsNode* reusable = nullptr;
  std::optional<UINT32> reusableOffset;
  {
    MutexLock lock(s.indexMutex);
    reusable = FindReusableNode(s.index, header.pubDataSize, header.blobSize);
    if (reusable != nullptr) reusableOffset = reusable->offset;
  }
  UINT32 offset = 0;
  if (RunChange(s, [&]() REQUIRES(s.fileMutex) {
        return WriteRecord(s, header, *pubData, blob, reusableOffset, &offset);
      }) != TSS_SUCCESS) {
    return TCS_E_FAIL;
  }
  MutexLock lock(s.indexMutex);
  if (reusable != nullptr) {
    *reusable = MakeNode(header, offset);
  } else {
    s.index.push_front(MakeNode(header, offset));
  }
  return TSS_SUCCESS;
}

TSS_RESULT writeKeyToPS(const TSS_UUID& keyUuid, const TSS_UUID& parentUuid,
                        std::span<const BYTE> blob) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  if (s.path.empty()) return TCS_E_INTERNAL_ERROR;
  return WriteKeyRecord(s, keyUuid, parentUuid, blob);
}

TSS_RESULT removeRegisteredKey(const TSS_UUID& uuid) {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  MutexLock indexLock(s.indexMutex);
  PsNode* node = FindValidNode(s.index, uuid);
  if (node == nullptr) return TCS_E_KEY_NOT_REGISTERED;
  node->flags &= static_cast<UINT16>(~kPsFlagValid);
  if (RunChange(s, [&]() REQUIRES(s.fileMutex, s.indexMutex) { return WipeDeletedSlots(s); }) !=
      TSS_SUCCESS) {
    node->flags |= kPsFlagValid;
    return TCS_E_FAIL;
  }
  return TSS_SUCCESS;
}

TSS_RESULT updateKeyBlob(const TSS_UUID& uuid, std::span<const BYTE> blob) {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  std::optional<PsNode> target;
  {
    MutexLock indexLock(s.indexMutex);
    for (const PsNode& node : s.index) {
      if (!node.valid() || SameUuid(node.uuid, uuid)) {
        target = node;
        break;
      }
    }
  }
  if (!target) return TSS_SUCCESS;
  if (blob.size() < target->blobSize) return TCS_E_FAIL;
  return RunChange(s,
                   [&]() REQUIRES(s.fileMutex) {
                     return WriteData(s, target->blobOffset(), blob.first(target->blobSize));
                   }) == TSS_SUCCESS
             ? TSS_SUCCESS
             : TCS_E_FAIL;
}

}  // namespace kesttcs
