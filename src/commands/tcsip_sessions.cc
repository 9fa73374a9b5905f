#include "commands/tcsip_sessions.h"

#include <span>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "commands/command_exchange.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// Header, entityType, keyHandle, nonceOddDSAP, entityValueSize.
constexpr UINT32 kDsapFixedBytes = kTpmHeaderSize + 2 + 4 + TPM_SHA1_160_HASH_LEN + 4;

// Asks the table whether hContext may open one more session; a refusal goes to the swap-out hook,
// whose failure is returned. `traceAs` names the operation in the trace lines (null: no lines).
TSS_RESULT MakeRoomFor(TCS_CONTEXT_HANDLE hContext, const char* traceAs) {
  MutexLock lock(auth_mutex());
  if (auth_mgr_req_new(hContext)) return TSS_SUCCESS;
  if (traceAs != nullptr) {
    TcsTracef(" %s:auth_mgr_req_new:hContext=0x%.8X,result=0x%.8X", traceAs, hContext, 0u);
  }
  const TSS_RESULT result = auth_mgr_swap_out();
  if (result != TSS_SUCCESS && traceAs != nullptr) {
    TcsTracef(" %s:auth_mgr_swap_out:hContext=0x%.8X,result=0x%.8X", traceAs, hContext, result);
  }
  return result;
}

// Records the session the TPM opened; its result is the operation's.
TSS_RESULT AddSession(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE authHandle, const char* traceAs) {
  MutexLock lock(auth_mutex());
  const TSS_RESULT result = auth_mgr_add(hContext, authHandle, TPM_RT_AUTH);
  if (traceAs != nullptr) {
    TcsTracef(" %s:auth_mgr_add:hContext=0x%.8X,authHandle=0x%.8X,result=0x%.8X", traceAs, hContext,
              authHandle, result);
  }
  return result;
}

// The TPM slot of a key entity, sent after the 16-bit entity type: TCS_E_FAIL when it cannot be
// loaded.
TSS_RESULT KeySlot(TpmCommand& command, TCS_KEY_HANDLE keyHandle, TPM_KEY_HANDLE* slot) {
  if (command.UseKey(keyHandle, slot, sizeof(TPM_ENTITY_TYPE)) != TSS_SUCCESS || *slot == 0) {
    return TCS_E_FAIL;
  }
  return TSS_SUCCESS;
}

// What OSAP and DSAP check before their entity: the output pointers, the table's consent (its
// refusal, like the swap-out hook's result, does not stop them) and the context.
TSS_RESULT PrepareSharedSession(TCS_CONTEXT_HANDLE hContext, const void* authHandle,
                                const void* nonceEven, const void* nonceEvenShared) {
  if (authHandle == nullptr || nonceEven == nullptr || nonceEvenShared == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  static_cast<void>(MakeRoomFor(hContext, nullptr));
  return ctx_ValidateContext(hContext);
}

// Sends an OSAP or DSAP command with `fields`, reads the session and its two even nonces, and
// records the session.
template <class... Fields>
TSS_RESULT OpenSharedSession(TpmCommand& command, TCS_CONTEXT_HANDLE hContext, const char* traceAs,
                             TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven,
                             TPM_NONCE* nonceEvenShared, const Fields&... fields) {
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND, fields...)) return rc;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE even{};
  TPM_NONCE evenShared{};
  if (TSS_RESULT rc = command.Unload(&handle, &even, &evenShared)) return rc;
  *authHandle = handle;
  *nonceEven = even;
  *nonceEvenShared = evenShared;
  return AddSession(hContext, handle, traceAs);
}

}  // namespace

TSS_RESULT Tcsip_OIAP_Internal(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE* authHandle,
                               TPM_NONCE* nonce0) {
  if (authHandle == nullptr || nonce0 == nullptr) return TCS_E_BAD_PARAMETER;
  constexpr const char* kName = "Tcsip_OIAP_Internal";
  if (TSS_RESULT rc = MakeRoomFor(hContext, kName)) return rc;
  TpmCommand command(hContext, TPM_ORD_OIAP);
  if (TSS_RESULT rc = command.Check()) return rc;
  if (TSS_RESULT rc = command.Run(TPM_TAG_RQU_COMMAND)) return rc;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE even{};
  if (TSS_RESULT rc = command.Unload(&handle, &even)) return rc;
  *authHandle = handle;
  *nonce0 = even;
  return AddSession(hContext, handle, kName);
}

TSS_RESULT Tcsip_OSAP_Internal(TCS_CONTEXT_HANDLE hContext, TPM_ENTITY_TYPE entityType,
                               UINT32 entityValue, const TPM_NONCE& nonceOddOSAP,
                               TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven,
                               TPM_NONCE* nonceEvenOSAP) {
  if (TSS_RESULT rc = PrepareSharedSession(hContext, authHandle, nonceEven, nonceEvenOSAP)) {
    return rc;
  }
  TpmCommand command(hContext, TPM_ORD_OSAP);
  TPM_KEY_HANDLE sentValue = 0;
  if (entityType == TPM_ET_KEYHANDLE || entityType == TPM_ET_KEY) {
    if (TSS_RESULT rc = KeySlot(command, entityValue, &sentValue)) return rc;
  }
  return OpenSharedSession(command, hContext, "Tcsip_OSAP_Internal", authHandle, nonceEven,
                           nonceEvenOSAP, entityType, sentValue, nonceOddOSAP);
}

TSS_RESULT Tcsip_DSAP_Internal(TCS_CONTEXT_HANDLE hContext, TPM_ENTITY_TYPE entityType,
                               TCS_KEY_HANDLE keyHandle, const TPM_NONCE& nonceOddDSAP,
                               UINT32 entityValueSize, const BYTE* entityValue,
                               TCS_AUTHHANDLE* authHandle, TPM_NONCE* nonceEven,
                               TPM_NONCE* nonceEvenDSAP) {
  if (TSS_RESULT rc = PrepareSharedSession(hContext, authHandle, nonceEven, nonceEvenDSAP)) {
    return rc;
  }
  if (entityType != TPM_ET_DEL_OWNER_BLOB && entityType != TPM_ET_DEL_ROW &&
      entityType != TPM_ET_DEL_KEY_BLOB) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_DSAP);
  TPM_KEY_HANDLE sentKey = 0;
  if (entityType == TPM_ET_DEL_KEY_BLOB) {
    if (TSS_RESULT rc = KeySlot(command, keyHandle, &sentKey)) return rc;
  }
  if ((entityValueSize != 0 && entityValue == nullptr) ||
      !FitsCommandBuffer(entityValueSize, kDsapFixedBytes)) {
    return TCS_E_BAD_PARAMETER;
  }
  return OpenSharedSession(command, hContext, nullptr, authHandle, nonceEven, nonceEvenDSAP,
                           entityType, sentKey, nonceOddDSAP, entityValueSize,
                           std::span<const BYTE>(entityValue, entityValueSize));
}

TSS_RESULT Tcsip_TerminateHandle_Internal(TCS_CONTEXT_HANDLE hContext, TCS_AUTHHANDLE handle) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  if (TSS_RESULT rc = auth_mgr_check(hContext, handle)) return rc;
  return auth_mgr_release(handle);
}

}  // namespace kesttcs
