/* A "tbs.dll" that forwards to a swtpm process, standing in for TPM Base Services (Wine's own
 * tbs.dll finds no TPM). One context at a time, as the service opens one. */
#include <windows.h>

#include "swtpm_tcp.h"

/* The TBS result codes come from <winerror.h>, which lacks this one. */
#define TBS_E_INVALID_CONTEXT 0x80284004u

static const void* const kContext = &kContext;

__declspec(dllexport) UINT32 WINAPI Tbsi_Context_Create(const void* params, void** context) {
  if (params == NULL || context == NULL) return TBS_E_BAD_PARAMETER;
  if (SwtpmConnected()) return TBS_E_INTERNAL_ERROR;
  if (!SwtpmConnect()) return TBS_E_TPM_NOT_FOUND;
  *context = (void*)kContext;
  return TBS_SUCCESS;
}

__declspec(dllexport) UINT32 WINAPI Tbsip_Context_Close(void* context) {
  if (context != kContext || !SwtpmConnected()) return TBS_E_INVALID_CONTEXT;
  SwtpmDisconnect();
  return TBS_SUCCESS;
}

__declspec(dllexport) UINT32 WINAPI
    Tbsip_Submit_Command(void* context, UINT32 locality, UINT32 priority, const BYTE* in,
                         UINT32 inLen, BYTE* out, UINT32* outLen) {
  (void)locality;
  (void)priority;
  if (context != kContext || !SwtpmConnected()) return TBS_E_INVALID_CONTEXT;
  switch (SwtpmExchange(in, inLen, out, outLen)) {
    case 0:
      return TBS_SUCCESS;
    case 1:
      return TBS_E_INSUFFICIENT_BUFFER;
    default:
      return TBS_E_IOERROR;
  }
}

__declspec(dllexport) UINT32 WINAPI Tbsip_Cancel_Commands(void* context) {
  if (context != kContext) return TBS_E_INVALID_CONTEXT;
  return SwtpmCancel() ? TBS_SUCCESS : TBS_E_IOERROR;
}
