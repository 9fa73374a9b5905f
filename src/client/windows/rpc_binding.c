/* The implicit binding handle widl's client stubs use. */
#include "client/windows/rpc_binding.h"
#include "client/windows/kesttcs_h.h"

unsigned long KestTcs_Bind(const char* protseq, const char* network, const char* endpoint) {
  RPC_CSTR text = NULL;
  RPC_STATUS status = RpcStringBindingComposeA(NULL, (RPC_CSTR)protseq, (RPC_CSTR)network,
                                               (RPC_CSTR)endpoint, NULL, &text);
  if (status != RPC_S_OK) return status;
  handle_t binding = NULL;
  status = RpcBindingFromStringBindingA(text, &binding);
  RpcStringFreeA(&text);
  if (status != RPC_S_OK) return status;
  KestTcs_Unbind();
  KestTCS_IfHandle = binding;
  return RPC_S_OK;
}

void KestTcs_Unbind(void) {
  if (KestTCS_IfHandle != NULL) RpcBindingFree(&KestTCS_IfHandle);
  KestTCS_IfHandle = NULL;
}

int KestTcs_IsBound(void) { return KestTCS_IfHandle != NULL; }
