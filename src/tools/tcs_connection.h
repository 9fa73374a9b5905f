// kesttcs-cli's one door to the service: a context opened through the client library, and the few
// operations the commands use, with the outputs copied into owned buffers (the library's output
// blocks are freed again at once).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

class TcsConnection {
 public:
  ~TcsConnection();  // closes the context
  TcsConnection(const TcsConnection&) = delete;
  TcsConnection& operator=(const TcsConnection&) = delete;

  // Connects to the service at `endpoint` and opens a context. On failure returns null and writes
  // why: *reason for a socket that does not answer (a system error text), else *result (the
  // service's result code or the RPC status of the call).
  static std::unique_ptr<TcsConnection> Open(const std::string& endpoint, std::string* reason,
                                             TSS_RESULT* result);

  // Tcsi_GetCapability / Tcsip_GetCapability with the given sub-capability bytes.
  [[nodiscard]] TSS_RESULT TcsCapability(UINT32 area, const std::vector<BYTE>& subCap,
                                         std::vector<BYTE>* answer);
  [[nodiscard]] TSS_RESULT TpmCapability(UINT32 area, const std::vector<BYTE>& subCap,
                                         std::vector<BYTE>* answer);
  // One TPM property (TPM_CAP_PROPERTY) as a number; TCS_E_BAD_PARAMETER when the answer is not
  // one.
  [[nodiscard]] TSS_RESULT TpmProperty(UINT32 property, UINT32* value);
  // Tcsip_GetRandom: *bytes gets what the TPM gave (possibly fewer than asked).
  [[nodiscard]] TSS_RESULT Random(UINT32 count, std::vector<BYTE>* bytes);
  // Tcsip_PcrRead and Tcsip_Extend.
  [[nodiscard]] TSS_RESULT PcrRead(UINT32 index, TPM_DIGEST* value);
  [[nodiscard]] TSS_RESULT Extend(UINT32 index, const TPM_DIGEST& digest, TPM_DIGEST* newValue);
  // Tcsi_EnumRegisteredKeys over every registered key.
  [[nodiscard]] TSS_RESULT RegisteredKeys(std::vector<TSS_KM_KEYINFO>* keys);
  // Tcsi_GetRegisteredKeyBlob.
  [[nodiscard]] TSS_RESULT RegisteredKeyBlob(const TSS_UUID& uuid, std::vector<BYTE>* blob);
  // Tcsi_RegisterKey without vendor data, and Tcsip_UnregisterKey.
  [[nodiscard]] TSS_RESULT RegisterKey(const TSS_UUID& parent, const TSS_UUID& uuid,
                                       const std::vector<BYTE>& blob);
  [[nodiscard]] TSS_RESULT UnregisterKey(const TSS_UUID& uuid);
  // Tcsip_ReadPubek: the endorsement key's TPM_PUBKEY.
  [[nodiscard]] TSS_RESULT ReadPubek(std::vector<BYTE>* pubkey);
  // Tcsip_TakeOwnership with the owner protocol; *srk gets the new SRK's TPM_KEY.
  [[nodiscard]] TSS_RESULT TakeOwnership(const std::vector<BYTE>& encOwnerAuth,
                                         const std::vector<BYTE>& encSrkAuth,
                                         const std::vector<BYTE>& srkParams, TPM_AUTH* ownerAuth,
                                         std::vector<BYTE>* srk);
  // Tcsip_OwnerClear.
  [[nodiscard]] TSS_RESULT OwnerClear(TPM_AUTH* ownerAuth);
  // Tcsip_SetOrdinalAuditStatus.
  [[nodiscard]] TSS_RESULT SetOrdinalAuditStatus(TPM_AUTH* ownerAuth, UINT32 ordinal, bool audited);
  // Tcsip_GetAuditDigest from ordinal 0, asked again after the last ordinal while the TPM says
  // there are more: the last digest and every audited ordinal.
  [[nodiscard]] TSS_RESULT AuditDigest(TPM_DIGEST* digest, std::vector<UINT32>* ordinals);

  // The open context, for the authorisation helper's sessions.
  TCS_CONTEXT_HANDLE context() const { return hContext_; }

 private:
  explicit TcsConnection(TCS_CONTEXT_HANDLE hContext) : hContext_(hContext) {}
  TCS_CONTEXT_HANDLE hContext_;
};

}  // namespace kesttcs::cli
