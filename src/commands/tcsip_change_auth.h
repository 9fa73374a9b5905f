// The commands that change the secret of a key or of sealed data under a loaded parent:
// TPM_ChangeAuth and the (deprecated) asymmetric pair TPM_ChangeAuthAsymStart and
// TPM_ChangeAuthAsymFinish. When the changed entity is a key the key cache holds, its encData is
// replaced there by the new one; when that key is also registered, its stored blob is rewritten in
// persistent storage (updateRegisteredEncData), so that it loads by UUID with the new secret only.
#pragma once

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// TPM_ChangeAuth (0x0C): parentHandle (loaded first) holds the entity encData; newAuth is the new
// secret encrypted by ADIP. Two sessions, both required (else TCS_E_BAD_PARAMETER): ownerAuth is
// the parent key's (OSAP), entityAuth the entity's. The new encData goes to (*outDataSize,
// *outData).
[[nodiscard]] TSS_RESULT Tcsip_ChangeAuth_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TPM_PROTOCOL_ID protocolID,
    const TPM_ENCAUTH& newAuth, TPM_ENTITY_TYPE entityType, UINT32 encDataSize, const BYTE* encData,
    TPM_AUTH* ownerAuth, TPM_AUTH* entityAuth, UINT32* outDataSize, BYTE** outData);

// TPM_ChangeAuthAsymStart (0x0E): the identity key idHandle (loaded first; its session pAuth, null
// for none) certifies a new ephemeral key of the parameters KeyDataIn (exactly one TPM_KEY_PARMS,
// else TCS_E_BAD_PARAMETER). The TPM answers certify info, signature, ephemeral handle, key; the
// outputs come in this operation's order: the ephemeral TPM_KEY, the TPM_CERTIFY_INFO, the
// signature, and the TPM's handle of the ephemeral key (which TPM_ChangeAuthAsymFinish takes as
// it is).
[[nodiscard]] TSS_RESULT Tcsip_ChangeAuthAsymStart_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE idHandle, const TPM_NONCE& antiReplay,
    UINT32 KeySizeIn, const BYTE* KeyDataIn, TPM_AUTH* pAuth, UINT32* KeySizeOut, BYTE** KeyDataOut,
    UINT32* CertifyInfoSize, BYTE** CertifyInfo, UINT32* sigSize, BYTE** sig,
    TCS_KEY_HANDLE* ephHandle);

// TPM_ChangeAuthAsymFinish (0x0F): under parentHandle (loaded first; its session ownerAuth, null
// for none), the TPM's ephemeral key ephHandle decrypts encNewAuth and changes the secret of
// encDataIn. Outputs: the new encData, the salt nonce and the change proof.
[[nodiscard]] TSS_RESULT Tcsip_ChangeAuthAsymFinish_Internal(
    TCS_CONTEXT_HANDLE hContext, TCS_KEY_HANDLE parentHandle, TCS_KEY_HANDLE ephHandle,
    TPM_ENTITY_TYPE entityType, const TPM_HMAC& newAuthLink, UINT32 newAuthSize,
    const BYTE* encNewAuth, UINT32 encDataSizeIn, const BYTE* encDataIn, TPM_AUTH* ownerAuth,
    UINT32* encDataSizeOut, BYTE** encDataOut, TPM_NONCE* saltNonce, TPM_DIGEST* changeProof);

}  // namespace kesttcs
