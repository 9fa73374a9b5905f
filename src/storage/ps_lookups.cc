// The lookups key loading and the registration operations make in the index and the file.
#include <algorithm>
#include <array>
#include <optional>

#include <kesttcs/tcs_results.h>

#include "storage/persistent_storage.h"
#include "storage/ps_store.h"

namespace kesttcs {

bool isUUIDRegistered(const TSS_UUID& uuid) {
  if (SameUuid(uuid, kSrkUuid)) return true;
  PsStore& s = Store();
  MutexLock lock(s.indexMutex);
  return FindValidNode(s.index, uuid) != nullptr;
}

TSS_RESULT getParentUUIDByUUID(const TSS_UUID& uuid, TSS_UUID* parentUuid) {
  PsStore& s = Store();
  MutexLock lock(s.indexMutex);
  const PsNode* node = FindValidNode(s.index, uuid);
  if (node == nullptr) return TCS_E_FAIL;
  *parentUuid = node->parentUuid;
  return TSS_SUCCESS;
}

int getParentPSTypeByUUID(const TSS_UUID& parentUuid) {
  if (SameUuid(parentUuid, kSrkUuid)) return kPsTypeSystem;
  PsStore& s = Store();
  MutexLock lock(s.indexMutex);
  const PsNode* node = FindValidNode(s.index, parentUuid);
  if (node == nullptr) return kPsTypeAbsent;
  return (node->flags & kPsFlagParentInSystemPs) != 0 ? kPsTypeSystem : kPsTypeUser;
}

TSS_RESULT getKeyBlobByUUID(const TSS_UUID& uuid, std::span<BYTE> buffer, UINT16* size) {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  std::optional<PsNode> node;
  {
    MutexLock indexLock(s.indexMutex);
    if (const PsNode* found = FindValidNode(s.index, uuid)) node = *found;
  }
  if (!node || node->blobSize > buffer.size()) return TCS_E_FAIL;
  if (TSS_RESULT r = ReadData(s, node->blobOffset(), buffer.first(node->blobSize))) return r;
  *size = node->blobSize;
  return TSS_SUCCESS;
}

std::optional<TSS_UUID> getUUIDByPub(std::span<const BYTE> modulus) {
  constexpr std::size_t kKeyLengthSize = 4;
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  MutexLock indexLock(s.indexMutex);
  std::array<BYTE, kPsMaxPubDataSize> pubData;
  for (const PsNode& node : s.index) {
    if (!node.valid() || node.pubDataSize != kKeyLengthSize + modulus.size()) continue;
    const std::span<BYTE> stored = std::span(pubData).first(node.pubDataSize);
    if (ReadData(s, node.pubDataOffset(), stored) != TSS_SUCCESS) return std::nullopt;
    if (std::ranges::equal(stored.subspan(kKeyLengthSize), modulus)) return node.uuid;
  }
  return std::nullopt;
}

bool isPubRegistered(std::span<const BYTE> modulus) { return getUUIDByPub(modulus).has_value(); }

}  // namespace kesttcs
