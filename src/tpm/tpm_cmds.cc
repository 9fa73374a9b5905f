#include "tpm/tpm_cmds.h"

#include <array>
#include <atomic>
#include <chrono>

#include "base/logging.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_backend.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

std::atomic<bool> g_tpm_is_12{true};
std::atomic<UINT64> g_last_startup{0};
std::atomic<UINT64> g_startups{0};

// Finishes the command in `writer` (header last), sends it and maps the answer.
TSS_RESULT Exchange(BlobWriter& writer, UINT32 ordinal, UINT32 priority) REQUIRES(tpm_lock()) {
  std::span<BYTE> buffer = writer.blob();
  if (TSS_RESULT rc = LoadBlob_Header(TPM_TAG_RQU_COMMAND, writer.offset(), ordinal, buffer)) {
    return rc;
  }
  std::array<BYTE, kTpmBlobSize> response;
  UINT32 length = 0;
  TSS_RESULT result = transmit_timed(writer.written(), response, &length, priority);
  if (result != TSS_SUCCESS) return result;
  UINT32 paramSize = 0;
  return UnloadBlob_Header(std::span<const BYTE>(response.data(), length), &paramSize);
}

// TPM_FlushSpecific(handle, resourceType) when `flushSpecific`; the older command
// `olderOrdinal`(handle) otherwise.
TSS_RESULT FlushOr(bool flushSpecific, TPM_COMMAND_CODE olderOrdinal, UINT32 handle,
                   UINT32 resourceType) REQUIRES(tpm_lock()) {
  std::array<BYTE, kTpmBlobSize> command;
  BlobWriter writer(command, kTpmHeaderSize);
  if (flushSpecific) {
    if (TSS_RESULT rc = LoadBlobs(writer, handle, resourceType)) return rc;
    return Exchange(writer, TPM_ORD_FlushSpecific, kPriorityNormal);
  }
  if (TSS_RESULT rc = LoadBlob_UINT32(writer, handle)) return rc;
  return Exchange(writer, olderOrdinal, kPriorityNormal);
}

}  // namespace

void SetTpmIsVersion12(bool isVersion12) { g_tpm_is_12 = isVersion12; }
bool TpmIsVersion12() { return g_tpm_is_12; }
UINT64 LastTpmStartupTime() { return g_last_startup; }

UINT64 TpmStartupCount() { return g_startups; }

TSS_RESULT SendContinueSelfTest() {
  std::array<BYTE, kTpmBlobSize> command;
  BlobWriter writer(command, kTpmHeaderSize);
  return Exchange(writer, TPM_ORD_ContinueSelfTest, kPriorityHigh);
}

TSS_RESULT SendStartup(UINT16 startupType) {
  std::array<BYTE, kTpmBlobSize> command;
  BlobWriter writer(command, kTpmHeaderSize);
  if (TSS_RESULT rc = LoadBlob_UINT16(writer, startupType)) return rc;
  return Exchange(writer, TPM_ORD_Startup, kPriorityHigh);
}

TSS_RESULT ReleaseTpmHandle(UINT32 handle, UINT32 resourceType) {
  return SendHandleRelease(TpmIsVersion12(), handle, resourceType);
}

TSS_RESULT SendHandleRelease(bool flushSpecific, UINT32 handle, UINT32 resourceType) {
  return FlushOr(flushSpecific, TPM_ORD_Terminate_Handle, handle, resourceType);
}

TSS_RESULT SendEvictKey(UINT32 keyHandle) {
  return FlushOr(TpmIsVersion12(), TPM_ORD_EvictKey, keyHandle, TPM_RT_KEY);
}

TSS_RESULT RunTpmStartupSequence() {
  ++g_startups;
  g_last_startup = static_cast<UINT64>(std::chrono::duration_cast<std::chrono::seconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count());
  TSS_RESULT result = SendContinueSelfTest();
  TcsTrace("ContinueSelfTest ", &result);
  if ((result & 0xFFFF) != TPM_INVALID_POSTINIT) return result;
  result = SendStartup(TPM_ST_CLEAR);
  TcsTrace("StartupTPM", &result);
  if (result != TSS_SUCCESS) return result;
  result = SendContinueSelfTest();
  TcsTrace("ContinueSelfTest ", &result);
  return result;
}

}  // namespace kesttcs
