#include "storage/registered_keys.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "storage/key_blob.h"
#include "storage/persistent_storage.h"
#include "storage/ps_store.h"

namespace kesttcs {
namespace {

// Copies `bytes` into a fresh block of hContext's memory: *size and *block, or TCS_E_OUTOFMEMORY.
TSS_RESULT HandOut(TCS_CONTEXT_HANDLE hContext, std::span<const BYTE> bytes, UINT32* size,
                   BYTE** block) {
  void* memory = getSomeMemory(hContext, static_cast<UINT32>(bytes.size()));
  if (memory == nullptr) return TCS_E_OUTOFMEMORY;
  // A record may hold an empty blob, whose span has no data pointer to copy from.
  std::copy(bytes.begin(), bytes.end(), static_cast<BYTE*>(memory));
  *size = static_cast<UINT32>(bytes.size());
  *block = static_cast<BYTE*>(memory);
  return TSS_SUCCESS;
}

// A stored blob of at most kRegisteredBlobLimit bytes: TCS_E_KEY_NOT_REGISTERED when absent or
// larger, the read's code when the file fails.
TSS_RESULT ReadRegisteredBlob(const TSS_UUID& uuid, std::vector<BYTE>* blob) {
  std::array<BYTE, kRegisteredBlobLimit> buffer;
  UINT16 size = 0;
  const TSS_RESULT r = getKeyBlobByUUID(uuid, buffer, &size);
  if (r == TCS_E_FAIL) return TCS_E_KEY_NOT_REGISTERED;
  if (r != TSS_SUCCESS) return r;
  blob->assign(buffer.begin(), buffer.begin() + size);
  return TSS_SUCCESS;
}

TSS_KM_KEYINFO MakeKeyInfo(const TSS_UUID& uuid, const TSS_UUID& parentUuid,
                           const TSS_VERSION& version, BYTE authDataUsage, bool loaded) {
  TSS_KM_KEYINFO info{};
  info.versionInfo = version;
  info.keyUUID = uuid;
  info.parentKeyUUID = parentUuid;
  info.bAuthDataUsage = authDataUsage;
  info.fIsLoaded = loaded ? 1 : 0;
  return info;
}

// The nodes an enumeration lists: every valid one, or the chain from `uuid` upwards.
std::vector<PsNode> SelectNodes(PsIndex& index, const TSS_UUID* uuid) {
  std::vector<PsNode> nodes;
  if (uuid == nullptr) {
    for (const PsNode& node : index) {
      if (node.valid()) nodes.push_back(node);
    }
    return nodes;
  }
  TSS_UUID current = *uuid;
  while (nodes.size() < kMaxKeyChain) {
    const PsNode* node = FindValidNode(index, current);
    if (node == nullptr) break;
    nodes.push_back(*node);
    if (SameUuid(node->parentUuid, kNullUuid)) break;
    current = node->parentUuid;
  }
  return nodes;
}

// The TSS_KM_KEYINFO of one listed node.
TSS_RESULT DescribeNode(PsStore& s, const PsNode& node, TSS_KM_KEYINFO* info)
    REQUIRES(s.fileMutex, s.indexMutex) {
  if (const std::optional<CachedKeyFacts> cached = s.hooks.findCachedKey(node.uuid)) {
    *info = MakeKeyInfo(node.uuid, node.parentUuid, cached->version, cached->authDataUsage,
                        cached->tpmHandle != kNoTpmHandle);
    return TSS_SUCCESS;
  }
  if (node.blobSize > kEnumerationBlobLimit) return TCS_E_INTERNAL_ERROR;
  std::array<BYTE, kEnumerationBlobLimit> buffer;
  const std::span<BYTE> blob = std::span(buffer).first(node.blobSize);
  if (TSS_RESULT r = ReadData(s, node.blobOffset(), blob)) return r;
  const KeyBlobFacts facts = ReadKeyBlobFacts(blob);
  *info = MakeKeyInfo(node.uuid, node.parentUuid, facts.version, facts.authDataUsage, false);
  return TSS_SUCCESS;
}

TSS_RESULT DescribeRegisteredKeys(const TSS_UUID* uuid, std::vector<TSS_KM_KEYINFO>* infos) {
  PsStore& s = Store();
  MutexLock fileLock(s.fileMutex);
  MutexLock indexLock(s.indexMutex);
  for (const PsNode& node : SelectNodes(s.index, uuid)) {
    TSS_KM_KEYINFO info;
    if (TSS_RESULT r = DescribeNode(s, node, &info)) return r;
    infos->push_back(info);
  }
  return TSS_SUCCESS;
}

// Registration's checks and write, as one step under the file mutex.
TSS_RESULT RegisterKey(const TSS_UUID& wrappingUuid, const TSS_UUID& keyUuid,
                       std::span<const BYTE> blob) {
  PsStore& s = Store();
  MutexLock lock(s.fileMutex);
  if (s.path.empty()) return TCS_E_INTERNAL_ERROR;
  if (!isUUIDRegistered(wrappingUuid)) return TCS_E_KEY_NOT_REGISTERED;
  if (isUUIDRegistered(keyUuid)) return TCS_E_KEY_ALREADY_REGISTERED;
  return WriteKeyRecord(s, keyUuid, wrappingUuid, blob) == TSS_SUCCESS ? TSS_SUCCESS : TCS_E_FAIL;
}

}  // namespace

TSS_RESULT Tcsi_RegisterKey_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& WrappingKeyUUID,
                                     const TSS_UUID& KeyUUID, UINT32 cKeySize, const BYTE* rgbKey,
                                     UINT32 /*cVendorDataSize*/, const BYTE* /*gbVendorData*/) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  if (rgbKey == nullptr && cKeySize != 0) return TCS_E_BAD_PARAMETER;
  return RegisterKey(WrappingKeyUUID, KeyUUID, std::span(rgbKey, cKeySize));
}

TSS_RESULT Tcsip_UnregisterKey_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& KeyUUID) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  return removeRegisteredKey(KeyUUID);
}

TSS_RESULT Tcsi_EnumRegisteredKeys_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID* pKeyUUID,
                                            UINT32* pcKeyHierarchySize,
                                            TSS_KM_KEYINFO** ppKeyHierarchy) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  if (pcKeyHierarchySize == nullptr || ppKeyHierarchy == nullptr) return TCS_E_BAD_PARAMETER;
  *pcKeyHierarchySize = 0;
  *ppKeyHierarchy = nullptr;
  if (pKeyUUID != nullptr && !isUUIDRegistered(*pKeyUUID)) return TCS_E_KEY_NOT_REGISTERED;
  std::vector<TSS_KM_KEYINFO> infos;
  if (TSS_RESULT r = DescribeRegisteredKeys(pKeyUUID, &infos)) return r;
  if (infos.empty()) return TSS_SUCCESS;
  const UINT32 size = static_cast<UINT32>(infos.size() * sizeof(TSS_KM_KEYINFO));
  void* block = getSomeMemory(hContext, size);
  if (block == nullptr) return TCS_E_OUTOFMEMORY;
  std::memcpy(block, infos.data(), size);
  *pcKeyHierarchySize = static_cast<UINT32>(infos.size());
  *ppKeyHierarchy = static_cast<TSS_KM_KEYINFO*>(block);
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_GetRegisteredKey_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& KeyUUID,
                                          TSS_KM_KEYINFO** ppKeyInfo) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  if (ppKeyInfo == nullptr) return TCS_E_BAD_PARAMETER;
  std::vector<BYTE> blob;
  if (TSS_RESULT r = ReadRegisteredBlob(KeyUUID, &blob)) return r;
  TSS_UUID parentUuid{};
  if (getParentUUIDByUUID(KeyUUID, &parentUuid) != TSS_SUCCESS) return TCS_E_FAIL;
  const KeyBlobFacts facts = ReadKeyBlobFacts(blob);
  auto* info = static_cast<TSS_KM_KEYINFO*>(getSomeMemory(hContext, sizeof(TSS_KM_KEYINFO)));
  if (info == nullptr) return TCS_E_OUTOFMEMORY;
  *info = MakeKeyInfo(KeyUUID, parentUuid, facts.version, facts.authDataUsage, false);
  *ppKeyInfo = info;
  return TSS_SUCCESS;
}

TSS_RESULT Tcsi_GetRegisteredKeyBlob_Internal(TCS_CONTEXT_HANDLE hContext, const TSS_UUID& KeyUUID,
                                              UINT32* pcKeySize, BYTE** prgbKey) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  if (pcKeySize == nullptr || prgbKey == nullptr) return TCS_E_BAD_PARAMETER;
  std::vector<BYTE> blob;
  if (const std::optional<TPM_KEY> held = ps_CurrentHooks().findOwnerHeldKey(KeyUUID)) {
    std::optional<std::vector<BYTE>> marshalled = MarshalKeyBlob(*held, kRegisteredBlobLimit);
    if (!marshalled) return TCS_E_KEY_NOT_REGISTERED;
    blob = std::move(*marshalled);
  } else if (TSS_RESULT r = ReadRegisteredBlob(KeyUUID, &blob)) {
    return r;
  }
  return HandOut(hContext, blob, pcKeySize, prgbKey);
}

TSS_RESULT Tcsip_GetRegisteredKeyByPublicInfo_Internal(TCS_CONTEXT_HANDLE hContext,
                                                       TPM_ALGORITHM_ID algID,
                                                       UINT32 ulPublicInfoLength,
                                                       const BYTE* rgbPublicInfo, UINT32* keySize,
                                                       BYTE** keyBlob) {
  if (TSS_RESULT r = ctx_ValidateContext(hContext)) return r;
  if (keySize == nullptr || keyBlob == nullptr ||
      (rgbPublicInfo == nullptr && ulPublicInfoLength != 0)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (algID != kTpmAlgRsa) return TCS_E_FAIL;
  const std::optional<TSS_UUID> uuid = getUUIDByPub(std::span(rgbPublicInfo, ulPublicInfoLength));
  if (!uuid) return TCS_E_KEY_NOT_REGISTERED;
  std::vector<BYTE> blob;
  if (TSS_RESULT r = ReadRegisteredBlob(*uuid, &blob)) return r;
  return HandOut(hContext, blob, keySize, keyBlob);
}

}  // namespace kesttcs
