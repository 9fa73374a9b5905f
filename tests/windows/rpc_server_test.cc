// The Windows RPC server under Wine: the TCS interface served through the Microsoft RPC runtime on
// "\pipe\KestTCS", local RPC "KestTCS" and ncacn_ip_tcp on the loopback port in KESTTCS_TCP_PORT
// (widl's server stubs and the generated server routines), the TPM reached through the test driver
// library beside this program (forwarding to swtpm): the backend string on the command line
// ("auto" finds tbs.dll; "tddl:tpmddl.dll" names the TDDL library) and the path it must take
// ("tbs" or "tddl").
//
//   rpc_server_test.exe BACKEND tbs|tddl          runs rpc_test_client.exe, a widl client in a
//       process of its own, over local RPC (and the named pipe), and checks that the context the
//       client left open was closed when its process ended
//   rpc_server_test.exe BACKEND tbs|tddl tcp      the same over TCP, where the context is closed
//       when the client's association ends
//   rpc_server_test.exe BACKEND tbs|tddl serve    serves until its standard input ends (a client
//       on another host calls meanwhile), then checks that the one context that client left open
//       was closed when its association ended
//
// Prints one line per check; the exit status is the number of failed checks.
#include <windows.h>
// <windows.h> maps the name to the RPC runtime's ANSI function; the service's own is meant here.
#undef RpcServerUseProtseqEp

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "contexts/contexts.h"
#include "rpc/context_owners.h"
#include "rpc/rpc_service.h"
#include "tpm/driver.h"
#include "tpm/req_mgr.h"

namespace kesttcs {
namespace {

int failures = 0;

void Check(bool ok, const char* what, unsigned long detail = 0) {
  std::printf("%s %s (%lu)\n", ok ? "ok  " : "FAIL", what, detail);
  std::fflush(stdout);
  if (!ok) ++failures;
}

// Runs the client beside this program with `arguments` and returns its exit status (its failed
// checks).
DWORD RunClient(const std::string& arguments) {
  char program[MAX_PATH];
  const DWORD length = GetModuleFileNameA(nullptr, program, MAX_PATH);
  std::string path(program, length);
  path = path.substr(0, path.find_last_of('\\') + 1) + "rpc_test_client.exe";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  std::string command = "\"" + path + "\" " + arguments;
  if (!CreateProcessA(path.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &process)) {
    return GetLastError();
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD status = 1;
  GetExitCodeProcess(process.hProcess, &status);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  return status;
}

// The run-down happens on a thread-pool thread once the process has ended: wait for it (bounded,
// so that a missing run-down fails instead of hanging).
bool ContextsClosedWithin(int tries) {
  for (int i = 0; i < tries && owners_CountContexts() != 0; ++i) Sleep(100);
  return owners_CountContexts() == 0;
}

}  // namespace

// Reads the standard input to its end: the script running this host closes it once the other
// host's client has finished.
void WaitForEndOfInput() {
  char buffer[64];
  while (std::fread(buffer, 1, sizeof buffer, stdin) > 0) {
  }
}

int RunChecks(const char* backend, bool wantTbs, bool serve, bool overTcp) {
  // The entry frame's trace lines of every call, on stderr.
  SetNeedLog(true);
  SetTraceSink(StderrTraceSink());
  Check(ctx_init() == TSS_SUCCESS, "contexts up");
  driver_configure(backend, ".");
  const TSS_RESULT tpm = req_mgr_init();
  Check(tpm == TSS_SUCCESS && driver_is_tbs() == wantTbs,
        wantTbs ? "TPM through tbs.dll" : "TPM through tpmddl.dll", tpm);
  if (tpm != TSS_SUCCESS) return failures;

  const char* port = std::getenv("KESTTCS_TCP_PORT");
  RpcEndpointConfig endpoints;
  endpoints.tcp_port = static_cast<uint16_t>(port != nullptr ? std::atoi(port) : 0);
  Check(endpoints.tcp_port != 0, "a TCP port in KESTTCS_TCP_PORT");
  UINT32 status = RpcServerUseProtseqEp(endpoints);
  Check(status == 0, "RpcServerUseProtseqEpA ncacn_np, ncalrpc and ncacn_ip_tcp", status);
  status = RpcServerRegisterIf();
  Check(status == 0, "RpcServerRegisterIf", status);
  status = RpcServerListen(16);
  Check(status == 0, "RpcServerListen", status);
  if (failures != 0) return failures;

  // Whoever the client was, the one context it left open is closed by run-down once it is gone.
  const char* leftOpen = nullptr;
  if (serve) {
    std::printf("serving on ncacn_ip_tcp 127.0.0.1[%s]\n", port);
    std::fflush(stdout);
    WaitForEndOfInput();
    leftOpen = "the context the other host's client left open is closed";
  } else if (!overTcp) {
    const DWORD client = RunClient("");
    Check(client == 0, "the client's checks pass over local RPC and the named pipe", client);
    leftOpen = "the context the client left open is closed after it ended";
  } else {
    const DWORD client = RunClient(std::string("tcp 127.0.0.1 ") + port);
    Check(client == 0, "the client's checks pass over TCP", client);
    leftOpen = "the context the TCP client left open is closed after its association ended";
  }
  Check(ContextsClosedWithin(100), leftOpen, static_cast<unsigned long>(owners_CountContexts()));
  Check(owners_CountAbandonedClosed() == 1, "one context closed by run-down",
        static_cast<unsigned long>(owners_CountAbandonedClosed()));

  Check(RpcMgmtStopServerListening() == 0, "RpcMgmtStopServerListening");
  Check(RpcMgmtWaitServerListen() == 0, "RpcMgmtWaitServerListen");
  Check(RpcServerUnregisterIf() == 0, "RpcServerUnregisterIf");
  Check(req_mgr_final() == TSS_SUCCESS, "request manager down");
  ctx_final();
  return failures;
}

}  // namespace kesttcs

int main(int argc, char** argv) {
  const bool serve = argc == 4 && std::strcmp(argv[3], "serve") == 0;
  const bool overTcp = argc == 4 && std::strcmp(argv[3], "tcp") == 0;
  if (argc != 3 && !serve && !overTcp) {
    std::fprintf(stderr, "usage: %s BACKEND tbs|tddl [tcp|serve]\n", argv[0]);
    return 2;
  }
  return kesttcs::RunChecks(argv[1], std::strcmp(argv[2], "tbs") == 0, serve, overTcp);
}
