// The key cache's side of the resume after a sleep.
#include <algorithm>
#include <array>
#include <span>

#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "keys/clear_tpm_keys.h"
#include "keys/mem_cache_table.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"

namespace kesttcs {
namespace {

// TPM_GetCapability(TPM_CAP_KEY_HANDLE) and its answer's handle list.
TSS_RESULT GetLoadedKeyHandles(TPM_KEY_HANDLE_LIST* list) {
  std::array<BYTE, kTpmBlobSize> blob{};
  BlobWriter writer(blob, kTpmHeaderSize);
  if (TSS_RESULT rc = LoadBlobs(writer, UINT32{TPM_CAP_KEY_HANDLE}, UINT32{0})) return rc;
  if (TSS_RESULT rc =
          LoadBlob_Header(TPM_TAG_RQU_COMMAND, writer.offset(), TPM_ORD_GetCapability, blob)) {
    return rc;
  }
  if (TSS_RESULT rc = req_mgr_submit(blob)) return rc;
  UINT32 paramSize = 0;
  if (TSS_RESULT rc = UnloadBlob_Header(blob, &paramSize)) return rc;
  BlobReader reader = ResponseParams(blob, paramSize);
  UINT32 respSize = 0;
  return UnloadBlobs(reader, &respSize, list);
}

}  // namespace

TSS_RESULT ClearTPMKeys() {
  TPM_KEY_HANDLE_LIST list;
  const TSS_RESULT result = GetLoadedKeyHandles(&list);
  if (result != TSS_SUCCESS) return result;
  const bool tbs = driver_is_tbs();
  MemCacheTable& table = CacheTable();
  MutexLock lock(table.mu);
  if (list.loaded == 0) {
    TcsTrace(tbs ? "ClearTPMKeys:There is no keys in TPM." : "S3S4 return :There no keys in TPM",
             nullptr);
    for (mem_cache_entry& entry : table.entries) {
      if (entry.tpmHandle == kSrkKeyHandle) continue;
      entry.tpmHandle = kNoTpmHandle;
      entry.inTpm = false;
    }
  }
  if (!tbs) {
    for (TPM_KEY_HANDLE handle :
         std::span(list.handle).first(std::min<size_t>(list.loaded, list.handle.size()))) {
      if (mem_cache_entry* entry = FindEntry(table, BySlot(handle))) entry->inTpm = true;
    }
  }
  return result;
}

}  // namespace kesttcs
