#include <stdio.h>
#include <stdlib.h>

#include "kesttcs_h.h"
#include "widl_client.h"

int failures = 0;

void Check(int ok, const char* what, TSS_RESULT result) {
  printf("%s %s (0x%08x)\n", ok ? "ok  " : "FAIL", what, result);
  fflush(stdout);
  if (!ok) ++failures;
}

void* __RPC_USER MIDL_user_allocate(SIZE_T size) { return malloc(size); }
void __RPC_USER MIDL_user_free(void* block) { free(block); }

int Bind(const char* protseq, const char* address, const char* endpoint) {
  RPC_CSTR binding = NULL;
  if (KestTCS_IfHandle != NULL) RpcBindingFree(&KestTCS_IfHandle);
  if (RpcStringBindingComposeA(NULL, (RPC_CSTR)protseq, (RPC_CSTR)address, (RPC_CSTR)endpoint, NULL,
                               &binding) != RPC_S_OK) {
    return 0;
  }
  const RPC_STATUS status = RpcBindingFromStringBindingA(binding, &KestTCS_IfHandle);
  RpcStringFreeA(&binding);
  return status == RPC_S_OK;
}
