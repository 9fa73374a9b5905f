// Transport sessions: TPM_EstablishTransport, TPM_ExecuteTransport (a TPM command wrapped in the
// session) and TPM_ReleaseTransportSigned. The service remembers which context established each
// transport session; only that context may use or release it. An exclusive session (its
// TPM_TRANSPORT_PUBLIC attributes hold TPM_TRANSPORT_EXCLUSIVE) makes the request manager refuse
// every other command until it ends (TCS_E_EXCLUSIVE_TRANSPORT); closing the context that owns it
// ends it. Inside its own exclusive session a context's keys are sent in the slots the key cache
// knows: the service may not ask the TPM whether they are still resident.
//
// A transport session's authorisation is not in the session table: the caller computes its HMACs
// with the session's secret and nonces as for any authorisation session (the input digest of
// TPM_ExecuteTransport covers wrappedCmdSize and SHA1(wrapped ordinal || wrapped parameters)).
//
// Lock: a leaf mutex guards the owners of the transport sessions; it is never held across a TPM
// command.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The encryption-key handle that establishes a session without a key (the secret then travels in
// the clear and the session cannot encrypt).
inline constexpr TCS_KEY_HANDLE TPM_KH_TRANSPORT = 0x40000003;

// Registers the context-close step that ends the transport sessions of a closing context (the
// exclusive one first) and forgets every owner. Called at start-up, after the context list exists.
void transport_init();

// TPM_EstablishTransport (0xE6): hEncKey (a storage or legacy key, loaded first; TPM_KH_TRANSPORT
// for none) decrypts rgbSecret; rgbTransSessionInfo is exactly one TPM_TRANSPORT_PUBLIC (else
// TCS_E_BAD_PARAMETER), whose attributes are recorded for the exclusive rule before the command is
// sent. pEncKeyAuth is the key's session (null for TPM_KH_TRANSPORT or a key that needs none).
// ulTransControlFlags is not sent (the TPM reads exclusiveness from the attributes). Outputs: the
// locality, the session's handle, the TPM_CURRENT_TICKS bytes and the first even nonce. When the
// key cannot be loaded traces " Tcs_TransS:Tcsip_EstablishTransport_Internal:ensureKeyIsLoaded".
[[nodiscard]] TSS_RESULT Tcsip_EstablishTransport_Internal(
    TCS_CONTEXT_HANDLE hContext, UINT32 ulTransControlFlags, TCS_KEY_HANDLE hEncKey,
    UINT32 ulTransSessionInfoSize, const BYTE* rgbTransSessionInfo, UINT32 ulSecretSize,
    const BYTE* rgbSecret, TPM_AUTH* pEncKeyAuth, TPM_MODIFIER_INDICATOR* pbLocality,
    TCS_HANDLE* hTransSession, UINT32* ulCurrentTicksSize, BYTE** prgbCurrentTicks,
    TPM_NONCE* pTransNonce);

// TPM_ExecuteTransport (0xE7) in the session pTransAuth names (the caller's own, else
// TCS_E_INTERNAL_ERROR). The wrapped command is built here with its own tag (by its number of
// sessions), paramSize and ordinal: the handles of the handle list, then rgbWrappedCmdParamIn as
// given (encrypted by the caller when the session encrypts), then the trailers of pWrappedCmdAuth1
// and pWrappedCmdAuth2 (sessions of the caller's own in the session table). A handle that names a
// key of the key cache is loaded and replaced by its TPM slot (at most two keys); any other handle
// goes as it is; the list comes back as the TPM handles sent. Outputs: the current ticks, the
// locality, the wrapped command's own return code (not mapped), and the wrapped response after its
// header without its session trailers, which are read back into the wrapped sessions. The wrapped
// sessions follow the usual release rules with the wrapped command's outcome.
[[nodiscard]] TSS_RESULT Tcsip_ExecuteTransport_Internal(
    TCS_CONTEXT_HANDLE hContext, TPM_COMMAND_CODE unWrappedCommandOrdinal,
    UINT32 ulWrappedCmdParamInSize, const BYTE* rgbWrappedCmdParamIn, UINT32* pulHandleListSize,
    TCS_HANDLE** rghHandles, TPM_AUTH* pWrappedCmdAuth1, TPM_AUTH* pWrappedCmdAuth2,
    TPM_AUTH* pTransAuth, UINT64* punCurrentTicks, TPM_MODIFIER_INDICATOR* pbLocality,
    TPM_RESULT* pulWrappedCmdReturnCode, UINT32* ulWrappedCmdParamOutSize,
    BYTE** rgbWrappedCmdParamOut);

// TPM_ReleaseTransportSigned (0xE8): the signing key hSignatureKey (loaded first; its session
// pKeyAuth optional) signs the log of the session pTransAuth names (the caller's own, else
// TCS_E_INTERNAL_ERROR). On success the session is forgotten and, when it is the recorded one,
// the transport state cleared. Outputs: the locality, the TPM_CURRENT_TICKS bytes and the
// signature.
[[nodiscard]] TSS_RESULT Tcsip_ReleaseTransportSigned_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE hSignatureKey, const TPM_NONCE& AntiReplayNonce,
    TPM_AUTH* pKeyAuth, TPM_AUTH* pTransAuth, TPM_MODIFIER_INDICATOR* pbLocality,
    UINT32* pulCurrentTicksSize, BYTE** prgbCurrentTicks, UINT32* pulSignatureSize,
    BYTE** prgbSignature);

}  // namespace kesttcs
