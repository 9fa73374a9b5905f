#include "commands/tcsip_transport.h"

#include <array>
#include <map>
#include <span>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "base/mutex.h"
#include "base/thread_annotations.h"
#include "commands/command_exchange.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "keys/mem_cache.h"
#include "storage/persistent_storage.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {
namespace {

// TPM_TRANSPORT_PUBLIC: tag, transAttributes, algId, encScheme.
constexpr size_t kTransportPublicSize = 2 + 4 + 4 + 2;
constexpr UINT32 kHandleBytes = 4;
// A wrapped command names at most this many handles (no TPM 1.2 command has more).
constexpr UINT32 kMostWrappedHandles = 4;

// Header, encHandle, secretSize, the key's trailer.
constexpr UINT32 kEstablishFixedBytes =
    kTpmHeaderSize + kHandleBytes + 4 + kTransportPublicSize + kAuthRequestTrailerSize;
// Header, wrappedCmdSize, the wrapped header, the transport trailer.
constexpr UINT32 kExecuteFixedBytes = kTpmHeaderSize + 4 + kTpmHeaderSize + kAuthRequestTrailerSize;
// Header, keyHandle, antiReplay, two trailers.
constexpr UINT32 kReleaseFixedBytes =
    kTpmHeaderSize + kHandleBytes + sizeof(TPM_NONCE) + 2 * kAuthRequestTrailerSize;

Mutex g_owners_mutex;
std::map<TCS_HANDLE, TCS_CONTEXT_HANDLE> g_owners GUARDED_BY(g_owners_mutex);

void RecordOwner(TCS_HANDLE transHandle, TCS_CONTEXT_HANDLE hContext) {
  MutexLock lock(g_owners_mutex);
  g_owners[transHandle] = hContext;
}

// The TPM has ended the session `transHandle`: forgets its owner and, when it is the recorded
// session, clears the transport state.
void EndedTransport(TCS_HANDLE transHandle) {
  {
    MutexLock lock(g_owners_mutex);
    g_owners.erase(transHandle);
  }
  if (GetTransportState().handle == transHandle) ClearTransportState();
}

// The session `auth` names must be one hContext established.
TSS_RESULT CheckOwner(TCS_CONTEXT_HANDLE hContext, const TPM_AUTH* auth) {
  if (auth == nullptr) return TCS_E_INTERNAL_ERROR;
  MutexLock lock(g_owners_mutex);
  const auto owner = g_owners.find(auth->AuthHandle);
  return owner != g_owners.end() && owner->second == hContext ? TSS_SUCCESS : TCS_E_INTERNAL_ERROR;
}

// Ends the transport sessions of a closing context; the exclusive one first, so that the request
// manager admits the commands that follow.
void EndContextTransports(TCS_CONTEXT_HANDLE hContext) {
  std::vector<TCS_HANDLE> owned;
  {
    MutexLock lock(g_owners_mutex);
    for (auto it = g_owners.begin(); it != g_owners.end();) {
      if (it->second != hContext) {
        ++it;
        continue;
      }
      owned.push_back(it->first);
      it = g_owners.erase(it);
    }
  }
  const TransportState state = GetTransportState();
  for (TCS_HANDLE handle : owned) {
    if (state.active && state.handle == handle) ClearTransportState();
  }
  for (TCS_HANDLE handle : owned) static_cast<void>(auth_mgr_flush(handle, TPM_RT_TRANS));
}

// Reads the attributes of exactly one TPM_TRANSPORT_PUBLIC.
TSS_RESULT TransportAttributes(std::span<const BYTE> transPublic, UINT32* attributes) {
  BlobReader reader(transPublic);
  UINT16 tag = 0;
  UINT32 algId = 0;
  UINT16 encScheme = 0;
  if (TSS_RESULT rc = UnloadBlobs(reader, &tag, attributes, &algId, &encScheme)) return rc;
  return reader.remaining() == 0 ? TSS_SUCCESS : TCS_E_BAD_PARAMETER;
}

// Whether hContext runs the active exclusive session: the TPM may then be sent nothing but that
// session's commands, not even the look-ups that make a key resident.
bool InOwnExclusiveSession(TCS_CONTEXT_HANDLE hContext) {
  const TransportState state = GetTransportState();
  if (!state.active) return false;
  MutexLock lock(g_owners_mutex);
  const auto owner = g_owners.find(state.handle);
  return owner != g_owners.end() && owner->second == hContext;
}

// The slot to send for the key hKey: made resident through `command` (sent `paramOffset` bytes
// after the header), or, inside the caller's own exclusive session, the slot the key cache knows.
TSS_RESULT KeySlot(TpmCommand& command, TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hKey,
                   TPM_KEY_HANDLE* slot, UINT16 paramOffset = 0) {
  if (!InOwnExclusiveSession(hContext)) return command.UseKey(hKey, slot, paramOffset);
  *slot = getSlotByHandle(hKey);
  return *slot == kNoTpmHandle ? TCS_E_INVALID_KEY : TSS_SUCCESS;
}

bool IsCachedKey(TCS_HANDLE handle) {
  return handle == kSrkKeyHandle || getKeyEntryByKeyHandle(handle).has_value();
}

TPM_TAG WrappedTag(size_t sessions) {
  if (sessions == 0) return TPM_TAG_RQU_COMMAND;
  return sessions == 1 ? TPM_TAG_RQU_AUTH1_COMMAND : TPM_TAG_RQU_AUTH2_COMMAND;
}

// The wrapped command's sessions: checked before anything is sent, and kept straight after it.
class WrappedSessions {
 public:
  TSS_RESULT Use(TCS_CONTEXT_HANDLE hContext, TPM_AUTH* first, TPM_AUTH* second) {
    for (TPM_AUTH* auth : {first, second}) {
      if (auth == nullptr) continue;
      if (TSS_RESULT rc = auth_mgr_check_auth(hContext, auth)) return rc;
      continued_[count_] = auth->fContinueAuthSession != 0;
      sessions_[count_++] = auth;
    }
    return TSS_SUCCESS;
  }
  size_t count() const { return count_; }
  std::span<TPM_AUTH* const> sessions() const { return std::span(sessions_).first(count_); }

  // Reads the wrapped response's trailers back (they end it) and returns the response's bytes
  // before them; on a short response, nothing.
  TSS_RESULT ReadTrailers(std::span<const BYTE> response, std::span<const BYTE>* before) {
    const size_t trailerBytes = count_ * kAuthResponseTrailerSize;
    if (response.size() < kTpmHeaderSize + trailerBytes) return TCS_E_BAD_PARAMETER;
    BlobReader trailers(response, static_cast<UINT16>(response.size() - trailerBytes));
    std::array<TPM_AUTH, 2> read{};
    for (size_t i = 0; i < count_; ++i) {
      read[i] = *sessions_[i];
      if (TSS_RESULT rc = UnloadBlob(trailers, &read[i])) return rc;
    }
    for (size_t i = 0; i < count_; ++i) *sessions_[i] = read[i];
    *before = response.first(response.size() - trailerBytes);
    return TSS_SUCCESS;
  }

  // The release rules for the wrapped command's outcome.
  void Finish(bool succeeded) {
    for (size_t i = 0; i < count_; ++i) {
      if (!succeeded) {
        static_cast<void>(auth_mgr_release(sessions_[i]->AuthHandle));
      } else if (!continued_[i]) {
        auth_mgr_forget(sessions_[i]->AuthHandle);
      }
    }
  }

 private:
  std::array<TPM_AUTH*, 2> sessions_{};
  std::array<bool, 2> continued_{};
  size_t count_ = 0;
};

// The wrapped command and its response, in buffers of the usual size.
struct Wrapped {
  std::array<BYTE, kTpmBlobSize> command{};
  UINT32 commandSize = 0;
};

// Builds the wrapped command: header, handles (keys as their slots, see KeySlot; `command` rewrites
// them should the TPM restart before sending), parameters, the wrapped trailers.
TSS_RESULT BuildWrapped(TpmCommand& command, TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE ordinal,
                        std::span<TCS_HANDLE> handles, std::span<const BYTE> params,
                        const WrappedSessions& sessions, Wrapped* wrapped) {
  BlobWriter writer(wrapped->command, kTpmHeaderSize);
  for (size_t i = 0; i < handles.size(); ++i) {
    if (IsCachedKey(handles[i])) {
      TPM_KEY_HANDLE slot = kNoTpmHandle;
      // Sent at wrappedCmdSize, the wrapped header, then the handles before it.
      const auto offset = static_cast<UINT16>(4 + kTpmHeaderSize + i * kHandleBytes);
      if (TSS_RESULT rc = KeySlot(command, hContext, handles[i], &slot, offset)) return rc;
      handles[i] = slot;
    }
    if (TSS_RESULT rc = LoadBlob(writer, UINT32{handles[i]})) return rc;
  }
  if (TSS_RESULT rc = LoadBlob(writer, params)) return rc;
  for (const TPM_AUTH* auth : sessions.sessions()) {
    if (TSS_RESULT rc = LoadBlob(writer, *auth)) return rc;
  }
  wrapped->commandSize = writer.offset();
  return LoadBlob_Header(WrappedTag(sessions.count()), writer.offset(), ordinal, wrapped->command);
}

// Splits the wrapped response into its return code and its outputs (after the header, before the
// trailers, which a successful authorised command carries).
TSS_RESULT ReadWrappedResponse(std::span<const BYTE> response, WrappedSessions& sessions,
                               TPM_RESULT* returnCode, std::span<const BYTE>* outputs) {
  BlobReader header(response);
  UINT16 tag = 0;
  UINT32 size = 0;
  if (TSS_RESULT rc = UnloadBlobs(header, &tag, &size, returnCode)) return rc;
  if (size < kTpmHeaderSize || size > response.size()) return TCS_E_BAD_PARAMETER;
  std::span<const BYTE> body = response.first(size);
  if (*returnCode == TPM_SUCCESS && sessions.count() != 0) {
    if (TSS_RESULT rc = sessions.ReadTrailers(body, &body)) return rc;
  }
  *outputs = body.subspan(kTpmHeaderSize);
  return TSS_SUCCESS;
}

}  // namespace

void transport_init() {
  {
    MutexLock lock(g_owners_mutex);
    g_owners.clear();
  }
  ctx_RegisterHooks({.endExclusiveTransport = EndContextTransports});
}

TSS_RESULT Tcsip_EstablishTransport_Internal(TCS_CONTEXT_HANDLE hContext,
                                             UINT32 /*ulTransControlFlags*/, TCS_KEY_HANDLE hEncKey,
                                             UINT32 ulTransSessionInfoSize,
                                             const BYTE* rgbTransSessionInfo, UINT32 ulSecretSize,
                                             const BYTE* rgbSecret, TPM_AUTH* pEncKeyAuth,
                                             TPM_MODIFIER_INDICATOR* pbLocality,
                                             TCS_HANDLE* hTransSession, UINT32* ulCurrentTicksSize,
                                             BYTE** prgbCurrentTicks, TPM_NONCE* pTransNonce) {
  if (pbLocality == nullptr || hTransSession == nullptr || ulCurrentTicksSize == nullptr ||
      prgbCurrentTicks == nullptr || pTransNonce == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_EstablishTransport);
  if (TSS_RESULT rc = command.Check(kEstablishFixedBytes, ulSecretSize, rgbSecret)) return rc;
  if (ulTransSessionInfoSize != 0 && rgbTransSessionInfo == nullptr) return TCS_E_BAD_PARAMETER;
  const std::span<const BYTE> transPublic(rgbTransSessionInfo, ulTransSessionInfoSize);
  UINT32 attributes = 0;
  if (TSS_RESULT rc = TransportAttributes(transPublic, &attributes)) return rc;
  TPM_KEY_HANDLE slot = TPM_KH_TRANSPORT;
  if (hEncKey != TPM_KH_TRANSPORT) {
    if (TSS_RESULT rc = command.UseKey(hEncKey, &slot)) {
      TcsTrace(" Tcs_TransS:Tcsip_EstablishTransport_Internal:ensureKeyIsLoaded", &rc);
      return rc;
    }
  }
  if (TSS_RESULT rc = command.UseSessions(pEncKeyAuth)) return rc;
  SetTransportAttributes(attributes);
  if (TSS_RESULT rc = command.RunAuthorised(slot, transPublic, ulSecretSize,
                                            std::span(rgbSecret, ulSecretSize))) {
    return rc;
  }
  UINT32 transHandle = 0;
  if (TSS_RESULT rc = command.Unload(&transHandle, pbLocality)) return rc;
  SetTransportHandle(transHandle);
  RecordOwner(transHandle, hContext);
  *hTransSession = transHandle;
  std::span<const BYTE> ticks;
  if (TSS_RESULT rc = command.TakeStructure<TPM_CURRENT_TICKS>(&ticks)) return rc;
  if (TSS_RESULT rc = command.Unload(pTransNonce)) return rc;
  return command.HandOut(ticks, ulCurrentTicksSize, prgbCurrentTicks);
}

TSS_RESULT Tcsip_ExecuteTransport_Internal(
    TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE unWrappedCommandOrdinal,
    UINT32 ulWrappedCmdParamInSize, const BYTE* rgbWrappedCmdParamIn, UINT32* pulHandleListSize,
    TCS_HANDLE** rghHandles, TPM_AUTH* pWrappedCmdAuth1, TPM_AUTH* pWrappedCmdAuth2,
    TPM_AUTH* pTransAuth, UINT64* punCurrentTicks, TPM_MODIFIER_INDICATOR* pbLocality,
    TPM_RESULT* pulWrappedCmdReturnCode, UINT32* ulWrappedCmdParamOutSize,
    BYTE** rgbWrappedCmdParamOut) {
  if (pulHandleListSize == nullptr || rghHandles == nullptr || punCurrentTicks == nullptr ||
      pbLocality == nullptr || pulWrappedCmdReturnCode == nullptr ||
      ulWrappedCmdParamOutSize == nullptr || rgbWrappedCmdParamOut == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  const UINT32 handleCount = *pulHandleListSize;
  if (handleCount > kMostWrappedHandles || (handleCount != 0 && *rghHandles == nullptr)) {
    return TCS_E_BAD_PARAMETER;
  }
  const size_t wrappedSessions = (pWrappedCmdAuth1 != nullptr) + (pWrappedCmdAuth2 != nullptr);
  const auto fixedBytes = static_cast<UINT32>(kExecuteFixedBytes + handleCount * kHandleBytes +
                                              wrappedSessions * kAuthRequestTrailerSize);
  TpmCommand command(hContext, TPM_ORD_ExecuteTransport);
  if (TSS_RESULT rc = command.Check(fixedBytes, ulWrappedCmdParamInSize, rgbWrappedCmdParamIn)) {
    return rc;
  }
  if (TSS_RESULT rc = CheckOwner(hContext, pTransAuth)) return rc;
  WrappedSessions sessions;
  if (TSS_RESULT rc = sessions.Use(hContext, pWrappedCmdAuth1, pWrappedCmdAuth2)) return rc;
  Wrapped wrapped;
  const std::span<TCS_HANDLE> handles(*rghHandles, handleCount);
  if (TSS_RESULT rc = BuildWrapped(command, hContext, unWrappedCommandOrdinal, handles,
                                   std::span(rgbWrappedCmdParamIn, ulWrappedCmdParamInSize),
                                   sessions, &wrapped)) {
    return rc;
  }
  if (TSS_RESULT rc = command.UseTransportSession(pTransAuth)) return rc;
  const bool continueTransport = pTransAuth->fContinueAuthSession != 0;
  TSS_RESULT result = command.RunAuthorised(
      wrapped.commandSize, std::span<const BYTE>(wrapped.command).first(wrapped.commandSize));
  UINT32 responseSize = 0;
  if (result == TSS_SUCCESS) result = command.Unload(punCurrentTicks, pbLocality, &responseSize);
  std::span<const BYTE> response;
  if (result == TSS_SUCCESS) result = command.Outputs().Take(responseSize, response);
  std::span<const BYTE> outputs;
  if (result == TSS_SUCCESS) {
    result = ReadWrappedResponse(response, sessions, pulWrappedCmdReturnCode, &outputs);
  }
  sessions.Finish(result == TSS_SUCCESS && *pulWrappedCmdReturnCode == TPM_SUCCESS);
  if (result != TSS_SUCCESS) return result;
  if (!continueTransport) EndedTransport(pTransAuth->AuthHandle);
  return command.HandOut(outputs, ulWrappedCmdParamOutSize, rgbWrappedCmdParamOut);
}

TSS_RESULT Tcsip_ReleaseTransportSigned_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hSignatureKey, const TPM_NONCE& AntiReplayNonce,
    TPM_AUTH* pKeyAuth, TPM_AUTH* pTransAuth, TPM_MODIFIER_INDICATOR* pbLocality,
    UINT32* pulCurrentTicksSize, BYTE** prgbCurrentTicks, UINT32* pulSignatureSize,
    BYTE** prgbSignature) {
  if (pbLocality == nullptr || pulCurrentTicksSize == nullptr || prgbCurrentTicks == nullptr ||
      pulSignatureSize == nullptr || prgbSignature == nullptr) {
    return TCS_E_BAD_PARAMETER;
  }
  TpmCommand command(hContext, TPM_ORD_ReleaseTransportSigned);
  if (TSS_RESULT rc = command.Check(kReleaseFixedBytes)) return rc;
  if (TSS_RESULT rc = CheckOwner(hContext, pTransAuth)) return rc;
  TPM_KEY_HANDLE slot = kNoTpmHandle;
  if (TSS_RESULT rc = KeySlot(command, hContext, hSignatureKey, &slot)) return rc;
  if (TSS_RESULT rc = command.UseSessions(pKeyAuth)) return rc;
  if (TSS_RESULT rc = command.UseTransportSession(pTransAuth)) return rc;
  if (TSS_RESULT rc = command.RunAuthorised(slot, AntiReplayNonce)) return rc;
  EndedTransport(pTransAuth->AuthHandle);
  std::span<const BYTE> ticks;
  if (TSS_RESULT rc = command.Unload(pbLocality)) return rc;
  if (TSS_RESULT rc = command.TakeStructure<TPM_CURRENT_TICKS>(&ticks)) return rc;
  if (TSS_RESULT rc = command.UnloadSized(pulSignatureSize, prgbSignature)) return rc;
  return command.HandOut(ticks, pulCurrentTicksSize, prgbCurrentTicks);
}

}  // namespace kesttcs
