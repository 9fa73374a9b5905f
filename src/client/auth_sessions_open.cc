// The authorisation helper's sessions opened and ended through the service: each is the service
// call, then the local set-up of <kesttcs/tcs_auth.h>.
#include <span>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_client.h>
#include <kesttcs/tcs_results.h>

#include "client/auth_crypto.h"

using kesttcs::TCS_E_BAD_PARAMETER;
using kesttcs::TSS_SUCCESS;
using kesttcs::client::BytesOf;
using kesttcs::client::RandomBytes;
using kesttcs::client::Wipe;

extern "C" {

TSS_RESULT KestAuth_OpenOIAP(TCS_CONTEXT_HANDLE hContext, const TPM_SECRET* usageSecret,
                             KESTTCS_AUTH_SESSION* s) {
  if (usageSecret == nullptr || s == nullptr) return TCS_E_BAD_PARAMETER;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE nonceEven;
  if (TSS_RESULT rc = Tcsip_OIAP(hContext, &handle, &nonceEven); rc != TSS_SUCCESS) return rc;
  return KestAuth_BeginOIAP(s, handle, &nonceEven, usageSecret);
}

TSS_RESULT KestAuth_OpenOSAP(TCS_CONTEXT_HANDLE hContext, TPM_ENTITY_TYPE entityType,
                             UINT32 entityValue, const TPM_SECRET* usageSecret,
                             KESTTCS_AUTH_SESSION* s) {
  if (usageSecret == nullptr || s == nullptr) return TCS_E_BAD_PARAMETER;
  TPM_NONCE nonceOddOSAP;
  if (!RandomBytes(BytesOf(nonceOddOSAP))) return KESTTCS_AUTH_E_CRYPTO;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE nonceEven;
  TPM_NONCE nonceEvenOSAP;
  if (TSS_RESULT rc = Tcsip_OSAP(hContext, entityType, entityValue, nonceOddOSAP, &handle,
                                 &nonceEven, &nonceEvenOSAP);
      rc != TSS_SUCCESS) {
    return rc;
  }
  return KestAuth_BeginOSAP(s, handle, &nonceEven, &nonceEvenOSAP, &nonceOddOSAP, usageSecret);
}

TSS_RESULT KestAuth_OpenDSAP(TCS_CONTEXT_HANDLE hContext, TPM_ENTITY_TYPE entityType,
                             TCS_KEY_HANDLE keyHandle, UINT32 entityValueSize,
                             const BYTE* entityValue, const TPM_SECRET* delegationSecret,
                             KESTTCS_AUTH_SESSION* s) {
  if (delegationSecret == nullptr || s == nullptr ||
      (entityValue == nullptr && entityValueSize != 0)) {
    return TCS_E_BAD_PARAMETER;
  }
  TPM_NONCE nonceOddDSAP;
  if (!RandomBytes(BytesOf(nonceOddDSAP))) return KESTTCS_AUTH_E_CRYPTO;
  TCS_AUTHHANDLE handle = 0;
  TPM_NONCE nonceEven;
  TPM_NONCE nonceEvenDSAP;
  // The proxy only reads the entity value; its signature lacks the const.
  if (TSS_RESULT rc =
          Tcsip_DSAP(hContext, entityType, keyHandle, nonceOddDSAP, entityValueSize,
                     const_cast<BYTE*>(entityValue), &handle, &nonceEven, &nonceEvenDSAP);
      rc != TSS_SUCCESS) {
    return rc;
  }
  return KestAuth_BeginDSAP(s, handle, &nonceEven, &nonceEvenDSAP, &nonceOddDSAP, delegationSecret);
}

TSS_RESULT KestAuth_Close(TCS_CONTEXT_HANDLE hContext, KESTTCS_AUTH_SESSION* s) {
  if (s == nullptr) return TCS_E_BAD_PARAMETER;
  const bool tpmMayHoldIt = s->kind != 0 && (s->open || s->pending);
  const TSS_RESULT rc = tpmMayHoldIt ? Tcsip_TerminateHandle(hContext, s->handle) : TSS_SUCCESS;
  const UINT32 kind = s->kind;
  const TCS_AUTHHANDLE handle = s->handle;
  Wipe(std::span<BYTE>(reinterpret_cast<BYTE*>(s), sizeof *s));  // the key and nonces go
  // Kind and handle stay, to say what the session was.
  s->kind = kind;
  s->handle = handle;
  return rc;
}

}  // extern "C"
