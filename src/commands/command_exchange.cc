#include "commands/command_exchange.h"

#include <cstring>

#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "tpm/req_mgr.h"

namespace kesttcs {

TSS_RESULT TpmCommand::Check(UINT32 fixedBytes, UINT32 inSize, const void* inData) const noexcept {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext_)) return rc;
  if (inSize != 0 && inData == nullptr) return TCS_E_BAD_PARAMETER;
  if (!FitsCommandBuffer(inSize, fixedBytes)) return TCS_E_BAD_PARAMETER;
  return TSS_SUCCESS;
}

TSS_RESULT TpmCommand::Submit() noexcept {
  if (TSS_RESULT rc = req_mgr_submit(blob_)) return rc;
  UINT32 paramSize = 0;
  TSS_RESULT result = UnloadBlob_Header(blob_, &paramSize);
  outputs_ = ResponseParams(blob_, paramSize);
  return result;
}

TSS_RESULT TpmCommand::UnloadSized(UINT32* size, BYTE** data) noexcept {
  const UINT16 start = outputs_.offset();
  UINT32 length = 0;
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = UnloadBlob_UINT32(outputs_, &length)) return rc;
  if (TSS_RESULT rc = outputs_.Take(length, bytes)) {
    outputs_.set_offset(start);
    return rc;
  }
  return HandOut(bytes, size, data);
}

TSS_RESULT TpmCommand::UnloadRest(UINT32* size, BYTE** data) noexcept {
  std::span<const BYTE> bytes;
  if (TSS_RESULT rc = outputs_.Take(outputs_.remaining(), bytes)) return rc;
  return HandOut(bytes, size, data);
}

TSS_RESULT TpmCommand::HandOut(std::span<const BYTE> bytes, UINT32* size, BYTE** data) noexcept {
  return CopyToContextMemory(hContext_, bytes, size, data);
}

TSS_RESULT CopyToContextMemory(TCS_CONTEXT_HANDLE hContext, std::span<const BYTE> bytes,
                               UINT32* size, BYTE** data) noexcept {
  BYTE* block = nullptr;
  if (!bytes.empty()) {
    block = static_cast<BYTE*>(getSomeMemory(hContext, static_cast<UINT32>(bytes.size())));
    if (block == nullptr) return TCS_E_OUTOFMEMORY;
    std::memcpy(block, bytes.data(), bytes.size());
  }
  *size = static_cast<UINT32>(bytes.size());
  *data = block;
  return TSS_SUCCESS;
}

}  // namespace kesttcs
