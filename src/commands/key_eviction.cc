#include "commands/key_eviction.h"

#include <array>

#include "commands/marshal.h"
#include "rpc/result_codes.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_backend.h"
#include "tpm/tpm_cmds.h"

namespace kesttcs {

namespace {

constexpr TPM_COMMAND_CODE TPM_ORD_EvictKey = 0x22;
constexpr UINT32 TPM_RT_KEY = 1;

TSS_RESULT BuildEviction(TPM_KEY_HANDLE tpmHandle, std::span<BYTE> command, UINT32* ordinal) {
  BlobWriter writer(command, kTpmHeaderSize);
  TSS_RESULT rc;
  if (TpmIsVersion12()) {
    *ordinal = TPM_ORD_FlushSpecific;
    rc = LoadBlobs(writer, tpmHandle, TPM_RT_KEY);
  } else {
    *ordinal = TPM_ORD_EvictKey;
    rc = LoadBlobs(writer, tpmHandle);
  }
  if (rc != TSS_SUCCESS) return rc;
  return LoadBlob_Header(TPM_TAG_RQU_COMMAND, writer.offset(), *ordinal, command);
}

}  // namespace

TSS_RESULT EvictTpmKey(TPM_KEY_HANDLE tpmHandle) {
  std::array<BYTE, kTpmBlobSize> command{};
  UINT32 ordinal = 0;
  if (TSS_RESULT rc = BuildEviction(tpmHandle, command, &ordinal)) return rc;
  const UINT32 commandSize = ArrayToUINT32(std::span(command).subspan<2, 4>());

  std::array<BYTE, kTpmBlobSize> response{};
  UINT32 received = 0;
  LockTPM(ordinal);
  TSS_RESULT result =
      transmit_timed(std::span(command).first(commandSize), response, &received, kPriorityNormal);
  UnlockTPM();
  if (result != TSS_SUCCESS) return result;
  UINT32 paramSize = 0;
  result = UnloadBlob_Header(std::span(response).first(received), &paramSize);
  return result == TpmResult(TPM_KEY_OWNER_CONTROL) ? TSS_SUCCESS : result;
}

}  // namespace kesttcs
