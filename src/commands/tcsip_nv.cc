#include "commands/tcsip_nv.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/authorised_command.h"
#include "commands/command_exchange.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Fixed bytes: the header and the fixed parameters.
constexpr UINT32 kDefineSpaceFixedBytes = kTpmHeaderSize + TPM_SHA1_160_HASH_LEN;  // encAuth
constexpr UINT32 kWriteValueFixedBytes = kTpmHeaderSize + 4 + 4 + 4;  // index, offset, size

// TPM_NV_WriteValue and TPM_NV_WriteValueAuth: the same parameters; the second needs its session.
TSS_RESULT WriteValue(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal, TSS_NV_INDEX index,
                      UINT32 offset, UINT32 size, const BYTE* data, TPM_AUTH* auth,
                      bool sessionRequired) {
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check(WithTrailers(kWriteValueFixedBytes, auth), size, data)) {
    return rc;
  }
  if (sessionRequired && auth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  return command.RunAuthorised(index, offset, size, std::span<const BYTE>(data, size));
}

// TPM_NV_ReadValue and TPM_NV_ReadValueAuth, likewise.
TSS_RESULT ReadValue(TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal, TSS_NV_INDEX index,
                     UINT32 offset, UINT32* size, TPM_AUTH* auth, BYTE** data,
                     bool sessionRequired) {
  if (size == nullptr || data == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (sessionRequired && auth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(index, offset, *size)) return rc;
  return command.UnloadSized(size, data);
}

}  // namespace

TSS_RESULT Tcsip_NV_DefineOrReleaseSpace_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 cPubInfoSize,
                                                  const BYTE* pPubInfo, const TPM_ENCAUTH& encAuth,
                                                  TPM_AUTH* pAuth) {
  TpmCommand command(hContext, TPM_ORD_NV_DefineSpace);
  if (TSS_RESULT rc =
          command.Check(WithTrailers(kDefineSpaceFixedBytes, pAuth), cPubInfoSize, pPubInfo)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UseSessions(pAuth)) return rc;
  return command.RunAuthorised(std::span<const BYTE>(pPubInfo, cPubInfoSize), encAuth);
}

TSS_RESULT Tcsip_NV_WriteValue_Internal(TCS_CONTEXT_HANDLE hContext, TSS_NV_INDEX hNVStore,
                                        UINT32 offset, UINT32 ulDataLength,
                                        const BYTE* rgbDataToWrite, TPM_AUTH* privAuth) {
  return WriteValue(hContext, TPM_ORD_NV_WriteValue, hNVStore, offset, ulDataLength, rgbDataToWrite,
                    privAuth, false);
}

TSS_RESULT Tcsip_NV_WriteValueAuth_Internal(TCS_CONTEXT_HANDLE hContext, TSS_NV_INDEX hNVStore,
                                            UINT32 offset, UINT32 ulDataLength,
                                            const BYTE* rgbDataToWrite, TPM_AUTH* NVAuth) {
  return WriteValue(hContext, TPM_ORD_NV_WriteValueAuth, hNVStore, offset, ulDataLength,
                    rgbDataToWrite, NVAuth, true);
}

TSS_RESULT Tcsip_NV_ReadValue_Internal(TCS_CONTEXT_HANDLE hContext, TSS_NV_INDEX hNVStore,
                                       UINT32 offset, UINT32* pulDataLength, TPM_AUTH* privAuth,
                                       BYTE** rgbDataRead) {
  return ReadValue(hContext, TPM_ORD_NV_ReadValue, hNVStore, offset, pulDataLength, privAuth,
                   rgbDataRead, false);
}

TSS_RESULT Tcsip_NV_ReadValueAuth_Internal(TCS_CONTEXT_HANDLE hContext, TSS_NV_INDEX hNVStore,
                                           UINT32 offset, UINT32* pulDataLength, TPM_AUTH* NVAuth,
                                           BYTE** rgbDataRead) {
  return ReadValue(hContext, TPM_ORD_NV_ReadValueAuth, hNVStore, offset, pulDataLength, NVAuth,
                   rgbDataRead, true);
}

}  // namespace kesttcs
