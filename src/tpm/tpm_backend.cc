// The TPM 1.2 check made at open. Choosing a backend from its configuration string is the
// host's (linux/backend_choice.cc, windows/backend_choice.cc).

#include "tpm/tpm_backend.h"

#include <array>
#include <cstdio>

#include "tpm/tpm_bytes.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

// TPM_GetCapability(TPM_CAP_VERSION_VAL): read-only, answered by every TPM 1.2 (a TPM that has not
// been started answers TPM_INVALID_POSTINIT, which is still a TPM 1.2 answer).
constexpr std::array<BYTE, 18> kVersionProbe = {0x00, 0xC1, 0, 0, 0,    18, 0, 0, 0,
                                                0x65, 0,    0, 0, 0x1A, 0,  0, 0, 0};
constexpr UINT16 kTpm2TagNoSessions = 0x8001;
constexpr UINT16 kTpm2TagSessions = 0x8002;
// A TPM 2.0 response code carries the format-one bit (0x80) or the version-one bit (0x100); TPM 1.2
// codes never do outside their vendor (0x400) and non-fatal (0x800) ranges.
constexpr UINT32 kTpm2FormatBits = 0x180;
constexpr UINT32 kTpm12RangeBits = 0xC00;

}  // namespace

TSS_RESULT CheckAnswersAsTpm12(TpmBackend& backend, std::string* error) {
  std::array<BYTE, kTpmBlobSize> response;
  UINT32 length = 0;
  TSS_RESULT result = backend.Transmit(kVersionProbe, response, &length, kPriorityHigh);
  if (result != TSS_SUCCESS) {
    *error = std::string("no answer to a TPM 1.2 command (") + ResultName(result) + ")";
    return result;
  }
  if (length < kTpmHeaderSize) {
    *error = "the answer to a TPM 1.2 command is " + std::to_string(length) +
             " bytes long, too short for a TPM response";
    return kDriverFail;
  }
  std::span<const BYTE> answer(response.data(), length);
  UINT16 tag = PeekUINT16(answer, 0);
  UINT32 code = PeekUINT32(answer, 6);
  bool tpm2 =
      tag == kTpm2TagNoSessions || tag == kTpm2TagSessions ||
      (tag == TPM_TAG_RSP_COMMAND &&
       (code == TPM_BADTAG || ((code & kTpm2FormatBits) != 0 && (code & kTpm12RangeBits) == 0)));
  if (tpm2) {
    std::array<char, 64> detail;
    std::snprintf(detail.data(), detail.size(), " (tag 0x%04X, code 0x%08X)", tag, code);
    *error =
        std::string("the TPM answers as a TPM 2.0; this service needs a TPM 1.2") + detail.data();
    return kDriverFail;
  }
  if (tag != TPM_TAG_RSP_COMMAND) {
    std::array<char, 64> detail;
    std::snprintf(detail.data(), detail.size(), "0x%04X", tag);
    *error =
        std::string("the answer to a TPM 1.2 command carries the unknown tag ") + detail.data();
    return kDriverFail;
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
