/* Tcsi_FreeMemory on Windows: the caller's buffers are freed here; the service holds no copy of
 * them and only checks the context. */
#include "client/windows/client_call.h"
#include "client/windows/kesttcs_h.h"

TSS_RESULT Tcsi_FreeMemory(TCS_CONTEXT_HANDLE hContext, BYTE* pMemory) {
  KestTcs_FreeContextBuffers(hContext, pMemory);
  /* A placeholder byte stands for the freed pointer, which must not be read any more. */
  static BYTE placeholder = 0;
  void** filled[] = {0};
  TSS_RESULT result;
  KestTcs_BeginCall(filled, 0);
  RpcTryExcept { result = Rpc_Tcsi_FreeMemory(hContext, pMemory != NULL ? &placeholder : NULL); }
  RpcExcept(KestTcs_CatchStatus(RpcExceptionCode())) { return KestTcs_FailCall(filled, 0); }
  RpcEndExcept return KestTcs_EndCall(hContext, result, filled, 0);
}
