#include "commands/vendor_commands.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "tpm/req_mgr.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

// Header, selector and data length: a data length L fits when L + 15 <= 4096.
constexpr UINT32 kVendorFixedBytes = kTpmHeaderSize + 1 + 4;

// The parameters every vendor command carries.
struct VendorData {
  BYTE selector;
  UINT32 dataLen;
  const BYTE* data;
  std::span<const BYTE> bytes() const { return {data, dataLen}; }
};

// Checks the size bound, then sends the command; with `auth` (tag 0x00C2) checks that the session
// is the context's first, appends its trailer and keeps the session table straight (see
// TpmCommand::RunAuthorised), else tag 0x00C1. The context is the caller's to check.
TSS_RESULT SendVendor(TpmCommand& command, const VendorData& in, TPM_AUTH* auth) {
  const UINT32 fixedBytes = kVendorFixedBytes + (auth != nullptr ? kAuthRequestTrailerSize : 0);
  if ((in.dataLen != 0 && in.data == nullptr) || !FitsCommandBuffer(in.dataLen, fixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  if (TSS_RESULT rc = command.UseSessions(auth)) return rc;
  return command.RunAuthorised(in.selector, in.dataLen, in.bytes());
}

}  // namespace

TSS_RESULT Tcsip_VendorCommand1_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                                         const BYTE* data) {
  TpmCommand command(hContext, kVendorCommand1Ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  return SendVendor(command, {selector, dataLen, data}, nullptr);
}

TSS_RESULT Tcsip_VendorCommand2_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                                         const BYTE* data, TPM_AUTH* pAuth) {
  TpmCommand command(hContext, kVendorCommand2Ordinal);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (pAuth == nullptr) return TCS_E_BAD_PARAMETER;
  return SendVendor(command, {selector, dataLen, data}, pAuth);
}

TSS_RESULT Tcsip_VendorCommand3_Internal(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                                         const BYTE* data, UINT32* respLen, BYTE** resp) {
  if (respLen == nullptr || resp == nullptr) return TCS_E_BAD_PARAMETER;
  TpmCommand command(hContext, kVendorCommand3Ordinal);
  if (TSS_RESULT rc = SendVendor(command, {selector, dataLen, data}, nullptr)) {
    return rc;
  }
  return command.UnloadRest(respLen, resp);
}

TSS_RESULT vendor_seq_open(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                           const BYTE* data, TPM_AUTH* pAuth) {
  TpmCommand command(hContext, kVendorOrdinalOpen);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (pAuth == nullptr) return TCS_E_BAD_PARAMETER;
  SetVendorExclusiveMode(true);
  TSS_RESULT result = SendVendor(command, {selector, dataLen, data}, pAuth);
  if (result != TSS_SUCCESS) SetVendorExclusiveMode(false);
  return result;
}

TSS_RESULT vendor_seq_continue(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                               const BYTE* data) {
  TpmCommand command(hContext, kVendorOrdinalContinue);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!VendorExclusiveMode()) return TCS_E_FEATURE_NOT_ENABLED;
  return SendVendor(command, {selector, dataLen, data}, nullptr);
}

TSS_RESULT vendor_seq_end(TCS_CONTEXT_HANDLE hContext, BYTE selector, UINT32 dataLen,
                          const BYTE* data) {
  TpmCommand command(hContext, kVendorOrdinalEnd);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (!VendorExclusiveMode()) return TCS_E_FEATURE_NOT_ENABLED;
  TSS_RESULT result = SendVendor(command, {selector, dataLen, data}, nullptr);
  SetVendorExclusiveMode(false);
  return result;
}

}  // namespace kesttcs
