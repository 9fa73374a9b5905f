#include "tpm/endorsement_key_deferral.h"

#include <kesttcs/tcs_capabilities.h>

#include "tpm/tpm_bytes.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

// GetCapability's areas that say nothing about the endorsement key: the service's start-up reads
// these. The flags (TPM_CAP_FLAG) are left out, as they tell whether a key was made.
bool IsKeylessCapability(UINT32 area) {
  return area == TPM_CAP_ORD || area == TPM_CAP_PROPERTY || area == TPM_CAP_VERSION ||
         area == TPM_CAP_VERSION_VAL;
}

}  // namespace

bool RunsWithoutEndorsementKey(std::span<const BYTE> command) {
  if (command.size() < kTpmHeaderSize) return true;  // the TPM refuses it either way
  switch (PeekUINT32(command, 6)) {
    case TPM_ORD_Startup:
    case TPM_ORD_ContinueSelfTest:
    case TPM_ORD_SelfTestFull:
    case TPM_ORD_GetTestResult:
    case TPM_ORD_GetRandom:
    case TPM_ORD_PcrRead:
    case TPM_ORD_GetTicks:
      return true;
    case TPM_ORD_GetCapability:
      return command.size() >= kTpmHeaderSize + 4 &&
             IsKeylessCapability(PeekUINT32(command, kTpmHeaderSize));
    default:
      return false;
  }
}

}  // namespace kesttcs
