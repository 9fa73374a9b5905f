// The CLI's context over the client library.
#include "tools/tcs_connection.h"

#include <cstdio>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_capabilities.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "tools/cli_format.h"
#include "tools/endpoint_probe.h"

namespace kesttcs::cli {
namespace {

// Moves a library output buffer into `out` and frees it.
void TakeBuffer(BYTE* buffer, UINT32 size, std::vector<BYTE>* out) {
  if (buffer != nullptr) out->assign(buffer, buffer + size);
  Tcs_FreeBuffer(buffer);
}

}  // namespace

TcsConnection::~TcsConnection() {
  static_cast<void>(Tcsi_CloseContext(hContext_));
  Tcs_Disconnect();
}

std::unique_ptr<TcsConnection> TcsConnection::Open(const std::string& endpoint, std::string* reason,
                                                   TSS_RESULT* result) {
  if (std::string problem = EndpointProblem(endpoint); !problem.empty()) {
    *reason = problem;
    return nullptr;
  }
  if (Tcs_Connect(endpoint.c_str()) != 0) {
    char text[64];
    std::snprintf(text, sizeof(text), "no DCE/RPC answer (RPC status 0x%.8X)", Tcs_LastRpcStatus());
    *reason = text;
    return nullptr;
  }
  TCS_CONTEXT_HANDLE hContext = 0;
  if (TSS_RESULT r = Tcsi_OpenContext(&hContext); r != 0) {
    *result = r;
    Tcs_Disconnect();
    return nullptr;
  }
  return std::unique_ptr<TcsConnection>(new TcsConnection(hContext));
}

namespace {

// Tcsi_GetCapability and Tcsip_GetCapability take the same arguments.
using CapabilityCall = TSS_RESULT (*)(TCS_CONTEXT_HANDLE, TPM_CAPABILITY_AREA, UINT32, BYTE*,
                                      UINT32*, BYTE**);

TSS_RESULT Capability(CapabilityCall call, TCS_CONTEXT_HANDLE hContext, UINT32 area,
                      const std::vector<BYTE>& subCap, std::vector<BYTE>* answer) {
  UINT32 size = 0;
  BYTE* buffer = nullptr;
  const TSS_RESULT r =
      call(hContext, area, static_cast<UINT32>(subCap.size()),
           const_cast<BYTE*>(subCap.empty() ? nullptr : subCap.data()), &size, &buffer);
  TakeBuffer(buffer, size, answer);
  return r;
}

}  // namespace

TSS_RESULT TcsConnection::TcsCapability(UINT32 area, const std::vector<BYTE>& subCap,
                                        std::vector<BYTE>* answer) {
  return Capability(Tcsi_GetCapability, hContext_, area, subCap, answer);
}

TSS_RESULT TcsConnection::TpmCapability(UINT32 area, const std::vector<BYTE>& subCap,
                                        std::vector<BYTE>* answer) {
  return Capability(Tcsip_GetCapability, hContext_, area, subCap, answer);
}

TSS_RESULT TcsConnection::TpmProperty(UINT32 property, UINT32* value) {
  const std::vector<BYTE> subCap = {static_cast<BYTE>(property >> 24),
                                    static_cast<BYTE>(property >> 16),
                                    static_cast<BYTE>(property >> 8), static_cast<BYTE>(property)};
  std::vector<BYTE> answer;
  if (TSS_RESULT r = TpmCapability(TPM_CAP_PROPERTY, subCap, &answer); r != 0) return r;
  std::optional<UINT32> number = BigEndianNumber(answer);
  if (!number) return TCS_E_BAD_PARAMETER;
  *value = *number;
  return TSS_SUCCESS;
}

TSS_RESULT TcsConnection::Random(UINT32 count, std::vector<BYTE>* bytes) {
  UINT32 size = count;
  BYTE* buffer = nullptr;
  const TSS_RESULT r = Tcsip_GetRandom(hContext_, &size, &buffer);
  TakeBuffer(buffer, size, bytes);
  return r;
}

TSS_RESULT TcsConnection::PcrRead(UINT32 index, TPM_DIGEST* value) {
  return Tcsip_PcrRead(hContext_, index, value);
}

TSS_RESULT TcsConnection::Extend(UINT32 index, const TPM_DIGEST& digest, TPM_DIGEST* newValue) {
  return Tcsip_Extend(hContext_, index, digest, newValue);
}

TSS_RESULT TcsConnection::RegisteredKeys(std::vector<TSS_KM_KEYINFO>* keys) {
  UINT32 count = 0;
  TSS_KM_KEYINFO* infos = nullptr;
  const TSS_RESULT r = Tcsi_EnumRegisteredKeys(hContext_, nullptr, &count, &infos);
  if (infos != nullptr) keys->assign(infos, infos + count);
  Tcs_FreeBuffer(infos);
  return r;
}

TSS_RESULT TcsConnection::RegisteredKeyBlob(const TSS_UUID& uuid, std::vector<BYTE>* blob) {
  UINT32 size = 0;
  BYTE* buffer = nullptr;
  const TSS_RESULT r = Tcsi_GetRegisteredKeyBlob(hContext_, uuid, &size, &buffer);
  TakeBuffer(buffer, size, blob);
  return r;
}

TSS_RESULT TcsConnection::RegisterKey(const TSS_UUID& parent, const TSS_UUID& uuid,
                                      const std::vector<BYTE>& blob) {
  return Tcsi_RegisterKey(hContext_, parent, uuid, static_cast<UINT32>(blob.size()),
                          const_cast<BYTE*>(blob.data()), 0, nullptr);
}

TSS_RESULT TcsConnection::UnregisterKey(const TSS_UUID& uuid) {
  return Tcsip_UnregisterKey(hContext_, uuid);
}

TSS_RESULT TcsConnection::ReadPubek(std::vector<BYTE>* pubkey) {
  TPM_NONCE antiReplay{};
  UINT32 size = 0;
  BYTE* buffer = nullptr;
  TPM_DIGEST checksum{};
  const TSS_RESULT r = Tcsip_ReadPubek(hContext_, antiReplay, &size, &buffer, &checksum);
  TakeBuffer(buffer, size, pubkey);
  return r;
}

TSS_RESULT TcsConnection::TakeOwnership(const std::vector<BYTE>& encOwnerAuth,
                                        const std::vector<BYTE>& encSrkAuth,
                                        const std::vector<BYTE>& srkParams, TPM_AUTH* ownerAuth,
                                        std::vector<BYTE>* srk) {
  UINT32 size = 0;
  BYTE* buffer = nullptr;
  const TSS_RESULT r = Tcsip_TakeOwnership(
      hContext_, KESTTCS_PID_OWNER, static_cast<UINT32>(encOwnerAuth.size()),
      const_cast<BYTE*>(encOwnerAuth.data()), static_cast<UINT32>(encSrkAuth.size()),
      const_cast<BYTE*>(encSrkAuth.data()), static_cast<UINT32>(srkParams.size()),
      const_cast<BYTE*>(srkParams.data()), ownerAuth, &size, &buffer);
  TakeBuffer(buffer, size, srk);
  return r;
}

TSS_RESULT TcsConnection::OwnerClear(TPM_AUTH* ownerAuth) {
  return Tcsip_OwnerClear(hContext_, ownerAuth);
}

TSS_RESULT TcsConnection::SetOrdinalAuditStatus(TPM_AUTH* ownerAuth, UINT32 ordinal, bool audited) {
  return Tcsip_SetOrdinalAuditStatus(hContext_, ownerAuth, ordinal, audited ? 1 : 0);
}

TSS_RESULT TcsConnection::AuditDigest(TPM_DIGEST* digest, std::vector<UINT32>* ordinals) {
  ordinals->clear();
  UINT32 startOrdinal = 0;
  for (;;) {
    UINT32 counterSize = 0, ordSize = 0;
    BYTE* counter = nullptr;
    UINT32* ordList = nullptr;
    TSS_BOOL more = 0;
    if (TSS_RESULT r = Tcsip_GetAuditDigest(hContext_, startOrdinal, digest, &counterSize, &counter,
                                            &more, &ordSize, &ordList);
        r != 0) {
      return r;
    }
    Tcs_FreeBuffer(counter);
    if (ordList != nullptr) ordinals->insert(ordinals->end(), ordList, ordList + ordSize);
    Tcs_FreeBuffer(ordList);
    // A TPM that says "more" without listing any would be asked for ever.
    if (!more || ordSize == 0) return 0;
    startOrdinal = ordinals->back() + 1;
  }
}

}  // namespace kesttcs::cli
