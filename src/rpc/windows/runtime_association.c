#include "rpc/windows/runtime_association.h"

#include <windows.h>
/* windows.h first: the RPC headers rely on its declarations. */
#include <rpc.h>
#include <rpcdcep.h>
#include <rpcndr.h>
#include <string.h>

/* The guard that keeps the service's handles apart from any other context handle. */
static const char kGuard = 0;
static void* Guard(void) { return (void*)&kGuard; }

/* The run-down routine the runtime calls; the tag is the handle's user context. */
static void __RPC_USER RunDown(void* tag) { KestTcs_AssociationEnded(tag); }

int KestTcs_TagCallAssociation(void* tag, unsigned char key[KESTTCS_ASSOCIATION_KEY_SIZE]) {
  const RPC_BINDING_HANDLE binding = I_RpcGetCurrentCallHandle();
  int tagged = 0;
  if (binding == NULL || tag == NULL) return 0;
  RpcTryExcept {
    /* No wire form: the runtime makes a new handle in the association... */
    NDR_SCONTEXT handle =
        NDRSContextUnmarshall2(binding, NULL, NDR_LOCAL_DATA_REPRESENTATION, Guard(), 0);
    handle->userContext = tag;
    /* ...which becomes valid (with a UUID and the run-down) once marshalled. */
    NDRSContextMarshall2(binding, handle, key, RunDown, Guard(), 0);
    tagged = 1;
  }
  RpcExcept(1) { tagged = 0; }
  RpcEndExcept;
  return tagged;
}

int KestTcs_CallAssociationHolds(const unsigned char key[KESTTCS_ASSOCIATION_KEY_SIZE]) {
  const RPC_BINDING_HANDLE binding = I_RpcGetCurrentCallHandle();
  unsigned char wire[KESTTCS_ASSOCIATION_KEY_SIZE];
  int holds = 0;
  if (binding == NULL) return 0;
  memcpy(wire, key, sizeof wire);
  /* A handle of another association raises an exception; the one found is released by the
   * runtime with the call's other unmarshalled context handles. */
  RpcTryExcept {
    holds =
        NDRSContextUnmarshall2(binding, wire, NDR_LOCAL_DATA_REPRESENTATION, Guard(), 0) != NULL;
  }
  RpcExcept(1) { holds = 0; }
  RpcEndExcept;
  return holds;
}
