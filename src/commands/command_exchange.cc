#include "commands/command_exchange.h"

#include <cstring>

#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "keys/key_loading.h"
#include "storage/persistent_storage.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_lock.h"

namespace kesttcs {

TSS_RESULT TpmCommand::Check(UINT32 fixedBytes, UINT32 inSize, const void* inData) const noexcept {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext_)) return rc;
  if (inSize != 0 && inData == nullptr) return TCS_E_BAD_PARAMETER;
  if (!FitsCommandBuffer(inSize, fixedBytes)) return TCS_E_BAD_PARAMETER;
  return TSS_SUCCESS;
}

TSS_RESULT TpmCommand::UseKey(TCS_KEY_HANDLE hKey, TPM_KEY_HANDLE* slot,
                              UINT16 paramOffset) noexcept {
  if (keyCount_ == keys_.size()) return TCS_E_INTERNAL_ERROR;
  if (keyCount_ == 0) {
    // Read under the TPM lock, so never between a restart and the key cache's repair after it.
    TpmLockGuard tpm(ordinal_);
    keyStartups_ = TpmStartupCount();
  }
  keys_[keyCount_++] = {hKey, paramOffset};
  return ensureKeyIsLoaded(hContext_, hKey, slot) == TSS_SUCCESS ? TSS_SUCCESS : TCS_E_INVALID_KEY;
}

TSS_RESULT TpmCommand::RefreshKeySlots() noexcept {
  const std::array<KeyUse, 2> keys = keys_;
  const size_t count = keyCount_;
  keyCount_ = 0;
  for (size_t i = 0; i < count; ++i) {
    TPM_KEY_HANDLE slot = kNoTpmHandle;
    if (TSS_RESULT rc = UseKey(keys[i].key, &slot, keys[i].paramOffset)) return rc;
    BlobWriter writer(blob_, static_cast<UINT16>(kTpmHeaderSize + keys[i].paramOffset));
    if (TSS_RESULT rc = LoadBlob(writer, UINT32{slot})) return rc;
  }
  return TSS_SUCCESS;
}

TSS_RESULT TpmCommand::Submit() noexcept {
  // The slot must still be the key's when the command reaches the TPM. Checked with the TPM lock
  // held, since a resume restarts the TPM under it; loading the key again is done without it, as
  // the service's own SRK authorisation takes the session mutex, which comes before the TPM lock.
  for (;;) {
    {
      TpmLockGuard tpm(ordinal_);
      if (keyCount_ == 0 || TpmStartupCount() == keyStartups_) {
        if (TSS_RESULT rc = req_mgr_submit(blob_)) return rc;
        break;
      }
    }
    if (TSS_RESULT rc = RefreshKeySlots()) return rc;
  }
  UINT32 paramSize = 0;
  TSS_RESULT result = UnloadBlob_Header(blob_, &paramSize);
  outputs_ = ResponseParams(blob_, paramSize);
  return result;
}

TSS_RESULT TpmCommand::UseSessions(TPM_AUTH* first, TPM_AUTH* second) noexcept {
  sessionCount_ = 0;
  for (TPM_AUTH* auth : {first, second}) {
    if (auth == nullptr) continue;
    if (TSS_RESULT rc = auth_mgr_check_auth(hContext_, auth)) return rc;
    sessions_[sessionCount_++] = auth;
  }
  return TSS_SUCCESS;
}

TSS_RESULT TpmCommand::UseTransportSession(TPM_AUTH* transport) noexcept {
  if (transport == nullptr) return TCS_E_INTERNAL_ERROR;
  if (sessionCount_ == sessions_.size()) return TCS_E_BAD_PARAMETER;
  sessions_[sessionCount_++] = transport;
  return TSS_SUCCESS;
}

TPM_TAG TpmCommand::SessionTag() const noexcept {
  switch (sessionCount_) {
    case 0:
      return TPM_TAG_RQU_COMMAND;
    case 1:
      return TPM_TAG_RQU_AUTH1_COMMAND;
    default:
      return TPM_TAG_RQU_AUTH2_COMMAND;
  }
}

TSS_RESULT TpmCommand::FinishAuthorised(TSS_RESULT result) noexcept {
  // The continue flags as sent: reading the response trailers replaces them.
  std::array<bool, 2> continued{};
  for (size_t i = 0; i < sessionCount_; ++i) continued[i] = sessions_[i]->fContinueAuthSession != 0;
  if (result == TSS_SUCCESS) result = UnloadSessionTrailers();
  for (size_t i = 0; i < sessionCount_; ++i) {
    if (result != TSS_SUCCESS) {
      static_cast<void>(auth_mgr_release(sessions_[i]->AuthHandle));
    } else if (!continued[i]) {
      auth_mgr_forget(sessions_[i]->AuthHandle);
    }
  }
  return result;
}

TSS_RESULT TpmCommand::UnloadSessionTrailers() noexcept {
  const size_t trailerBytes = sessionCount_ * kAuthResponseTrailerSize;
  if (outputs_.remaining() < trailerBytes) return TCS_E_BAD_PARAMETER;
  const auto outputsEnd = static_cast<UINT16>(outputs_.blob().size() - trailerBytes);
  BlobReader trailers(outputs_.blob(), outputsEnd);
  std::array<TPM_AUTH, 2> read{};
  for (size_t i = 0; i < sessionCount_; ++i) {
    read[i] = *sessions_[i];
    if (TSS_RESULT rc = UnloadBlob(trailers, &read[i])) return rc;
  }
  for (size_t i = 0; i < sessionCount_; ++i) *sessions_[i] = read[i];
  outputs_ = ResponseParams(blob_, outputsEnd);
  return TSS_SUCCESS;
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
