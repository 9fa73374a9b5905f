// Blob marshalling: what is not a template. Structures are read and written by the templates of
// marshal.h from their field lists.
#include "tpm12/marshal.h"

#include <algorithm>
#include <atomic>

namespace kesttcs {

namespace {

std::atomic<ResponseCodeMapping> g_response_code_mapping{ResponseCodeMapping::kTddl};

// Allocations this thread may still make before they fail; negative: no limit (tests only).
thread_local int t_allocations_left = -1;

}  // namespace

namespace marshal_internal {

bool AllocationAllowed() noexcept {
  if (t_allocations_left < 0) return true;
  if (t_allocations_left == 0) return false;
  --t_allocations_left;
  return true;
}

}  // namespace marshal_internal

namespace marshal_testing {
void FailAllocationsAfter(int successes) noexcept { t_allocations_left = successes; }
}  // namespace marshal_testing

TSS_RESULT UnloadBlob_BYTES(BlobReader& blob, std::size_t n, std::vector<BYTE>* out) noexcept {
  if (n > blob.remaining()) return TCS_E_BAD_PARAMETER;
  std::vector<BYTE> bytes;
  if (n != 0) {
    if (TSS_RESULT rc = marshal_internal::ReadItems(blob, n, bytes)) return rc;
  }
  if (out != nullptr) *out = std::move(bytes);
  return TSS_SUCCESS;
}

// ---- Header ----

void SetResponseCodeMapping(ResponseCodeMapping mapping) noexcept {
  g_response_code_mapping.store(mapping, std::memory_order_relaxed);
}

ResponseCodeMapping GetResponseCodeMapping() noexcept {
  return g_response_code_mapping.load(std::memory_order_relaxed);
}

TSS_RESULT LoadBlob_Header(TPM_TAG tag, UINT32 paramSize, TPM_COMMAND_CODE ordinal,
                           std::span<BYTE> blob) noexcept {
  BlobWriter header(blob);
  if (header.remaining() < kTpmHeaderSize) return TCS_E_BAD_PARAMETER;
  return LoadBlobs(header, tag, paramSize, ordinal);
}

TSS_RESULT UnloadBlob_Header(std::span<const BYTE> blob, UINT32* paramSize) noexcept {
  BlobReader header(blob);
  UINT32 size = 0;
  TPM_RESULT code = 0;
  if (TSS_RESULT rc = UnloadBlobs(header, static_cast<UINT16*>(nullptr), &size, &code)) return rc;
  if (paramSize != nullptr) *paramSize = size;
  // Under TPM Base Services the driver layer's own codes (upper half set) arrive here unchanged.
  if (GetResponseCodeMapping() == ResponseCodeMapping::kTbs && (code & 0xFFFF0000u) != 0) {
    return code;
  }
  return TpmResult(code);
}

BlobReader ResponseParams(std::span<const BYTE> blob, UINT32 paramSize) noexcept {
  return BlobReader(blob.first(std::min<std::size_t>(paramSize, blob.size())), kTpmHeaderSize);
}

// ---- Authorisation trailers ----

TSS_RESULT LoadBlob_Auth(BlobWriter& blob, const TPM_AUTH& auth) noexcept {
  if (blob.remaining() < kAuthRequestTrailerSize) return TCS_E_BAD_PARAMETER;
  return LoadBlobs(blob, auth.AuthHandle, auth.NonceOdd, auth.fContinueAuthSession, auth.HMAC);
}

TSS_RESULT UnloadBlob_Auth(BlobReader& blob, TPM_AUTH* auth) noexcept {
  if (blob.remaining() < kAuthResponseTrailerSize) return TCS_E_BAD_PARAMETER;
  TPM_AUTH scratch{};
  TPM_AUTH& out = auth != nullptr ? *auth : scratch;
  return UnloadBlobs(blob, &out.NonceEven, &out.fContinueAuthSession, &out.HMAC);
}

}  // namespace kesttcs
