/*
 * A Windows client of the TCS interface for the server tests: widl client stubs of kesttcs.idl
 * with the implicit binding handle, over local RPC "KestTCS" (where the runtime names the calling
 * process to the service) or over ncacn_ip_tcp (where the service knows only the association).
 *
 *   rpc_test_client.exe [tcp HOST PORT]
 *        opens a context, reads random bytes, reads and extends PCR 15, asks the TCS version from
 *        8 threads 1000 times each on the one binding handle and context, has a second process
 *        present its context (refused), and exits with the context still open (the service
 *        closes it). Over local RPC it also reaches the service over "\pipe\KestTCS".
 *   rpc_test_client.exe [tcp HOST PORT] HANDLE
 *        presents HANDLE, a context of another process; exits 0 when the service refuses it as
 *        an invalid context
 *
 * Prints one line per check; the exit status is the number of failed checks.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kesttcs_h.h"
#include "widl_client.h"

enum { kInvalidContext = 0xE02820C1u };
enum { kTcsCapVersion = 2, kThreads = 8, kCallsPerThread = 1000 };

/* Where the calls go: local RPC "KestTCS" unless the command line names a TCP host and port. */
static const char* protseq = "ncalrpc";
static const char* host = NULL;
static const char* endpoint = "KestTCS";

/* Runs this program again with `hContext` and returns its exit status. */
static DWORD PresentInAnotherProcess(TCS_CONTEXT_HANDLE hContext) {
  char program[MAX_PATH];
  char command[MAX_PATH + 128];
  STARTUPINFOA startup;
  PROCESS_INFORMATION process;
  DWORD status = 1;
  memset(&startup, 0, sizeof startup);
  startup.cb = sizeof startup;
  GetModuleFileNameA(NULL, program, MAX_PATH);
  if (host != NULL) {
    snprintf(command, sizeof command, "\"%s\" tcp %s %s %u", program, host, endpoint, hContext);
  } else {
    snprintf(command, sizeof command, "\"%s\" %u", program, hContext);
  }
  if (!CreateProcessA(program, command, NULL, NULL, FALSE, 0, NULL, NULL, &startup, &process)) {
    return status;
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  GetExitCodeProcess(process.hProcess, &status);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  return status;
}

/* One thread's share of the concurrent calls on the context at `parameter`: the TCS version, asked
 * kCallsPerThread times. Returns the number of calls that failed. */
static DWORD WINAPI AskVersionRepeatedly(void* parameter) {
  const TCS_CONTEXT_HANDLE hContext = *(const TCS_CONTEXT_HANDLE*)parameter;
  BYTE none = 0;
  DWORD failed = 0;
  for (int i = 0; i < kCallsPerThread; ++i) {
    TSS_RESULT result = 0;
    UINT32 size = 0;
    BYTE* answer = NULL;
    CALL(Tcsi_GetCapability(hContext, kTcsCapVersion, 0, &none, &size, &answer));
    if (result != 0 || answer == NULL || size == 0) ++failed;
    MIDL_user_free(answer);
  }
  return failed;
}

/* kThreads threads share the binding handle and the context. */
static void CallFromManyThreads(TCS_CONTEXT_HANDLE hContext) {
  HANDLE threads[kThreads];
  DWORD failed = 0;
  int started = 0;
  for (; started < kThreads; ++started) {
    threads[started] = CreateThread(NULL, 0, AskVersionRepeatedly, &hContext, 0, NULL);
    if (threads[started] == NULL) break;
  }
  WaitForMultipleObjects((DWORD)started, threads, TRUE, INFINITE);
  for (int i = 0; i < started; ++i) {
    DWORD thread_failed = kCallsPerThread;
    GetExitCodeThread(threads[i], &thread_failed);
    failed += thread_failed;
    CloseHandle(threads[i]);
  }
  Check(started == kThreads && failed == 0, "8 threads, 1000 Tcsi_GetCapability calls each",
        failed);
}

static void OwnContext(void) {
  TSS_RESULT result = 0;
  TCS_CONTEXT_HANDLE hContext = 0;
  CALL(Tcsi_OpenContext(&hContext));
  Check(result == 0 && hContext != 0, "Tcsi_OpenContext", result);
  if (result != 0) return;

  UINT32 size = 16;
  BYTE* random = NULL; /* [out] pointers start null before every call */
  CALL(Tcsip_GetRandom(hContext, &size, &random));
  Check(result == 0 && size == 16 && random != NULL, "Tcsip_GetRandom(16)", result);
  MIDL_user_free(random);

  TPM_DIGEST before, after, read_back, measurement;
  memset(&before, 0, sizeof before);
  CALL(Tcsip_PcrRead(hContext, 15, &before));
  Check(result == 0, "Tcsip_PcrRead(15)", result);
  memset(&measurement, 0x5a, sizeof measurement);
  CALL(Tcsip_Extend(hContext, 15, measurement, &after));
  Check(result == 0 && memcmp(&before, &after, sizeof after) != 0,
        "Tcsip_Extend(15) changes the PCR", result);
  CALL(Tcsip_PcrRead(hContext, 15, &read_back));
  Check(result == 0 && memcmp(&after, &read_back, sizeof after) == 0,
        "Tcsip_PcrRead(15) reads the extended value", result);

  CallFromManyThreads(hContext);

  const DWORD other = PresentInAnotherProcess(hContext);
  Check(other == 0, "another process presenting the context is refused", other);
  /* The context stays open: the service closes it when this process ends. */
}

/* The designed endpoint serves the interface: a context opened over "\\pipe\\KestTCS" works
 * and closes. */
static void ReachNamedPipe(void) {
  TSS_RESULT result = 0;
  TCS_CONTEXT_HANDLE hContext = 0;
  if (!Bind("ncacn_np", NULL, "\\pipe\\KestTCS")) {
    Check(0, "binding to \\pipe\\KestTCS", 0);
    return;
  }
  CALL(Tcsi_OpenContext(&hContext));
  Check(result == 0, "Tcsi_OpenContext over \\pipe\\KestTCS", result);
  if (result != 0) return;
  UINT32 size = 8;
  BYTE* random = NULL;
  CALL(Tcsip_GetRandom(hContext, &size, &random));
  Check(result == 0 && size == 8, "Tcsip_GetRandom(8) over \\pipe\\KestTCS", result);
  MIDL_user_free(random);
  CALL(Tcsi_CloseContext(hContext));
  Check(result == 0, "Tcsi_CloseContext over \\pipe\\KestTCS", result);
}

int main(int argc, char** argv) {
  if (argc >= 4 && strcmp(argv[1], "tcp") == 0) {
    protseq = "ncacn_ip_tcp";
    host = argv[2];
    endpoint = argv[3];
    argc -= 3;
    argv += 3;
  }
  if (!Bind(protseq, host, endpoint)) {
    printf("FAIL binding to %s %s %s\n", protseq, host != NULL ? host : "", endpoint);
    return 1;
  }
  if (argc == 2) {
    TSS_RESULT result = 0;
    UINT32 size = 4;
    BYTE* random = NULL;
    CALL(Tcsip_GetRandom((TCS_CONTEXT_HANDLE)strtoul(argv[1], NULL, 10), &size, &random));
    MIDL_user_free(random);
    return result == kInvalidContext ? 0 : 1;
  }
  OwnContext();
  if (host == NULL) ReachNamedPipe();
  return failures;
}
