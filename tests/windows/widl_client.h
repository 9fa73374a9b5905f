/* What the Windows test clients share: their checks, the runtime's memory hooks, the exception
 * frame around each call, and the implicit binding handle's target. Include after kesttcs_h.h. */
#pragma once

/* The failed checks so far: the client's exit status. */
extern int failures;

/* Prints "ok" or "FAIL", the check and the result it saw. */
void Check(int ok, const char* what, TSS_RESULT result);

/* Each call inside the runtime's exception frame: a failed call counts as a fault, not a crash. */
#define CALL(expr)                              \
  RpcTryExcept { result = (expr); }             \
  RpcExcept(1) { result = RpcExceptionCode(); } \
  RpcEndExcept

/* Points the implicit binding handle at `endpoint` on `address` (NULL: this machine) over
 * `protseq`; nonzero on success. */
int Bind(const char* protseq, const char* address, const char* endpoint);
