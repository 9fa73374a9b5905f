// The TPM commands the key manager sends on its own behalf: capability questions about key slots,
// saving and loading key contexts, and the service's own OIAP session. Each builds its command in
// a local 4096-byte buffer and sends it with req_mgr_submit (which takes the TPM lock).
#pragma once

#include <array>
#include <span>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_structures.h"

namespace kesttcs {

inline constexpr UINT32 TPM_CAP_KEY_HANDLE = 0x00000007;
inline constexpr UINT32 TPM_CAP_CHECK_LOADED = 0x00000008;

// One key-manager command: marshal `fields` after the header, send, map the answer. Outputs()
// reads the response parameters after a zero result.
class KeyCommand {
 public:
  explicit KeyCommand(TPM_COMMAND_CODE ordinal) noexcept : ordinal_(ordinal) {}
  KeyCommand(const KeyCommand&) = delete;
  KeyCommand& operator=(const KeyCommand&) = delete;

  // The request manager's failure, TCS_E_BAD_PARAMETER when the fields do not fit, or the TPM's
  // return code mapped as 0xE0280000 | code.
  template <class... Fields>
  [[nodiscard]] TSS_RESULT Run(TPM_TAG tag, const Fields&... fields) noexcept {
    BlobWriter writer(blob_, kTpmHeaderSize);
    if (TSS_RESULT rc = LoadBlobs(writer, fields...)) return rc;
    if (TSS_RESULT rc = LoadBlob_Header(tag, writer.offset(), ordinal_, blob_)) return rc;
    if (TSS_RESULT rc = req_mgr_submit(blob_)) return rc;
    UINT32 paramSize = 0;
    const TSS_RESULT result = UnloadBlob_Header(blob_, &paramSize);
    outputs_ = ResponseParams(blob_, paramSize);
    return result;
  }

  // Reads the next response fields (TCS_E_BAD_PARAMETER when the response is too short).
  template <class... Out>
  [[nodiscard]] TSS_RESULT Unload(Out... out) noexcept {
    return UnloadBlobs(outputs_, out...);
  }
  BlobReader& Outputs() noexcept { return outputs_; }

 private:
  TPM_COMMAND_CODE ordinal_;
  std::array<BYTE, kTpmBlobSize> blob_{};
  BlobReader outputs_{std::span<const BYTE>()};
};

// TPM_GetCapability(TPM_CAP_KEY_HANDLE): the TPM's key handles in its order.
[[nodiscard]] TSS_RESULT GetLoadedKeyHandles(std::vector<TPM_KEY_HANDLE>* handles);

// TPM_GetCapability(TPM_CAP_CHECK_LOADED, parms): whether a key of these parameters fits now.
[[nodiscard]] TSS_RESULT CheckKeyFits(const TPM_KEY_PARMS& parms, bool* fits);

// TPM_OIAP: a new session's handle and even nonce. The caller owns ending it.
[[nodiscard]] TSS_RESULT OpenOiap(TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven);

}  // namespace kesttcs
