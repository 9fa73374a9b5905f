#include "rpc/rpc_service.h"

#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
// <rpc.h> maps the name to its ANSI form; the service's own function keeps the plain name.
#undef RpcServerUseProtseqEp

#include <string>

#include "rpc/context_owners.h"
#include "rpc/windows/calling_client.h"

// The server interface of the stubs widl generates from kesttcs.idl (its header is not included
// here: its interface types would clash with <kesttcs/tcs_types.h>).
extern "C" RPC_IF_HANDLE KestTCS_v1_0_s_ifspec;

namespace kesttcs {
namespace {

// The endpoint of the service on Windows; the Unix socket's path and group mean nothing here.
constexpr char kProtseq[] = "ncacn_np";
constexpr char kEndpoint[] = "\\pipe\\KestTCS";
constexpr unsigned kMaxCallsPerProtseq = 1000;
// Local RPC beside it: there every RPC runtime, Wine's included, names the calling process.
constexpr char kLocalProtseq[] = "ncalrpc";
constexpr char kLocalEndpoint[] = "KestTCS";

RPC_CSTR Text(const char* text) {
  // The runtime takes the strings as unsigned and does not change them.
  return reinterpret_cast<RPC_CSTR>(const_cast<char*>(text));
}

}  // namespace

std::string EndpointPath(const std::string& /*configuredSocket*/) { return {}; }

UINT32 RpcServerUseProtseqEp(const RpcEndpointConfig& config) {
  RPC_STATUS status =
      ::RpcServerUseProtseqEpA(Text(kProtseq), kMaxCallsPerProtseq, Text(kEndpoint), nullptr);
  if (status == RPC_S_OK) {
    status = ::RpcServerUseProtseqEpA(Text(kLocalProtseq), kMaxCallsPerProtseq,
                                      Text(kLocalEndpoint), nullptr);
  }
  if (status == RPC_S_OK && config.tcp_port != 0) {
    const std::string port = std::to_string(config.tcp_port);
    status = ::RpcServerUseProtseqEpA(Text("ncacn_ip_tcp"), kMaxCallsPerProtseq, Text(port.c_str()),
                                      nullptr);
  }
  if (status == RPC_S_OK) owners_SetContextLimit(config.max_contexts);
  return status;
}

UINT32 RpcServerRegisterIf() {
  return ::RpcServerRegisterIf(KestTCS_v1_0_s_ifspec, nullptr, nullptr);
}

UINT32 RpcServerListen(unsigned maxCalls) {
  return ::RpcServerListen(1, maxCalls == 0 ? 1 : maxCalls, TRUE);
}

UINT32 RpcMgmtWaitServerListen() {
  ::RpcMgmtWaitServerListen();
  return 0;
}

UINT32 RpcMgmtStopServerListening() { return ::RpcMgmtStopServerListening(nullptr); }

UINT32 RpcServerUnregisterIf() {
  // Calls in flight are not waited for; the managers' own locks keep them safe.
  const RPC_STATUS status = ::RpcServerUnregisterIf(KestTCS_v1_0_s_ifspec, nullptr, FALSE);
  StopWatchingClients();
  owners_Reset();
  return status;
}

}  // namespace kesttcs
