#include "commands/tcsip_audit.h"

#include <cstdio>
#include <span>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "contexts/context_memory.h"
#include "contexts/contexts.h"
#include "storage/audit_list.h"
#include "storage/audit_log.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

constexpr UINT32 kOrdinalBytes = 4;

// What TPM_GetAuditDigest answers; counterValue points into the command's response.
struct AuditDigestAnswer {
  std::span<const BYTE> counterValue;
  TPM_DIGEST digest{};
  BYTE more = 0;
  std::vector<UINT32> ordinals;
};

TSS_RESULT ReadAuditDigest(TpmCommand& command, UINT32 startOrdinal, AuditDigestAnswer* answer) {
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, startOrdinal)) return rc;
  if (TSS_RESULT rc = command.TakeStructure<TPM_COUNTER_VALUE>(&answer->counterValue)) return rc;
  UINT32 ordBytes = 0;
  if (TSS_RESULT rc = command.Unload(&answer->digest, &answer->more, &ordBytes)) return rc;
  // The TPM gives the list's size in bytes.
  if (ordBytes % kOrdinalBytes != 0 || ordBytes > command.Outputs().remaining()) {
    return TCS_E_BAD_PARAMETER;
  }
  answer->ordinals.resize(ordBytes / kOrdinalBytes);
  for (UINT32& ordinal : answer->ordinals) {
    if (TSS_RESULT rc = command.Unload(&ordinal)) return rc;
  }
  return TSS_SUCCESS;
}

// The digest as the 40 upper-case hex characters the digest record dumps.
std::vector<BYTE> HexText(const TPM_DIGEST& digest) {
  std::vector<BYTE> text;
  for (BYTE b : digest.digest) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%.2X", b);
    text.insert(text.end(), hex, hex + 2);
  }
  return text;
}

}  // namespace

TSS_RESULT Tcsip_SetOrdinalAuditStatus_Internal(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* ownerAuth,
                                                UINT32 ulOrdinal, TSS_BOOL bAuditState) {
  TpmCommand command(hContext, TPM_ORD_SetOrdinalAuditStatus);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (ownerAuth == nullptr) return TCS_E_BAD_PARAMETER;
  if (TSS_RESULT rc = command.UseSessions(ownerAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(ulOrdinal, BYTE{bAuditState})) return rc;
  if (!bAuditState) {
    audit_remove(ulOrdinal);
    return TSS_SUCCESS;
  }
  return audit_add(ulOrdinal);
}

TSS_RESULT Tcsip_GetAuditDigest_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 startOrdinal,
                                         TPM_DIGEST* auditDigest, UINT32* counterValueSize,
                                         BYTE** counterValue, TSS_BOOL* more, UINT32* ordSize,
                                         UINT32** ordList) {
  if (auditDigest == nullptr || counterValueSize == nullptr || counterValue == nullptr ||
      more == nullptr || ordSize == nullptr || ordList == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_GetAuditDigest);
  AuditDigestAnswer answer;
  if (TSS_RESULT rc = ReadAuditDigest(command, startOrdinal, &answer)) return rc;
  UINT32 listBytes = 0;
  BYTE* list = nullptr;
  const std::span<const BYTE> listView(reinterpret_cast<const BYTE*>(answer.ordinals.data()),
                                       answer.ordinals.size() * sizeof(UINT32));
  if (TSS_RESULT rc = command.HandOut(listView, &listBytes, &list)) return rc;
  if (TSS_RESULT rc = command.HandOut(answer.counterValue, counterValueSize, counterValue)) {
    if (list != nullptr) static_cast<void>(ctx_ReleaseMemory(hContext, list));
    return rc;
  }
  *auditDigest = answer.digest;
  *more = answer.more;
  *ordSize = static_cast<UINT32>(answer.ordinals.size());
  *ordList = reinterpret_cast<UINT32*>(list);
  return TSS_SUCCESS;
}

TSS_RESULT Tcsip_GetAuditDigestSigned_Internal(TCS_CONTEXT_HANDLE hContext,
                                               TCS_KEY_HANDLE keyHandle, TSS_BOOL closeAudit,
                                               const TPM_NONCE& antiReplay, TPM_AUTH* privAuth,
                                               UINT32* counterValueSize, BYTE** counterValue,
                                               TPM_DIGEST* auditDigest, TPM_DIGEST* ordinalDigest,
                                               UINT32* sigSize, BYTE** sig) {
  if (counterValueSize == nullptr || counterValue == nullptr || auditDigest == nullptr ||
      ordinalDigest == nullptr || sigSize == nullptr || sig == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_GetAuditDigestSigned);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.UseSessions(privAuth)) return rc;
  TPM_KEY_HANDLE keySlot = 0;
  if (TSS_RESULT rc = command.UseKey(keyHandle, &keySlot)) return rc;
  if (keySlot == 0) return TCS_E_FAIL;
  if (TSS_RESULT rc = command.RunAuthorised(keySlot, BYTE{closeAudit}, antiReplay)) return rc;
  std::span<const BYTE> counter;
  TPM_DIGEST digest;
  TPM_DIGEST ordinalsDigest;
  if (TSS_RESULT rc = command.TakeStructure<TPM_COUNTER_VALUE>(&counter)) return rc;
  if (TSS_RESULT rc = command.Unload(&digest, &ordinalsDigest)) return rc;
  UINT32 signatureSize = 0;
  BYTE* signature = nullptr;
  if (TSS_RESULT rc = command.UnloadSized(&signatureSize, &signature)) return rc;
  if (TSS_RESULT rc = command.HandOut(counter, counterValueSize, counterValue)) {
    if (signature != nullptr) static_cast<void>(ctx_ReleaseMemory(hContext, signature));
    return rc;
  }
  *auditDigest = digest;
  *ordinalDigest = ordinalsDigest;
  *sigSize = signatureSize;
  *sig = signature;
  auditLog_write(kAuditDigestSigned, sizeof digest.digest, digest.digest, false);
  auditLog_rotate();
  return TSS_SUCCESS;
}

TSS_RESULT audit_reportDigest() {
  AuditDigestAnswer answer;
  UINT32 startOrdinal = 0;
  do {
    TpmCommand command(kInternalContextHandle, TPM_ORD_GetAuditDigest);
    if (TSS_RESULT rc = ReadAuditDigest(command, startOrdinal, &answer)) return rc;
    for (UINT32 ordinal : answer.ordinals) {
      if (TSS_RESULT rc = audit_add(ordinal)) return rc;
    }
    // A TPM that claims more without listing any would keep us asking for ever.
    if (answer.ordinals.empty()) break;
    startOrdinal = answer.ordinals.back() + 1;
  } while (answer.more != 0);
  auditLog_rotate();
  if (!audit_ordinals().empty()) {
    const std::vector<BYTE> text = HexText(answer.digest);
    auditLog_write(kAuditDigest, static_cast<UINT32>(text.size()), text.data(), false);
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
