// The TCS interface served over DCE/RPC: the service host brings it up and down in the same steps
// as the Windows RPC runtime (use protocol sequence and endpoint, register the interface, listen,
// wait, stop listening, unregister). Each call returns 0 or an errno-style status that the host
// reports as the service's exit code. On Windows (windows/rpc_service.cc) the calls are the
// Microsoft RPC runtime's, on "\pipe\KestTCS" and local RPC "KestTCS" (where the runtime names the
// calling process), and return its RPC status.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

struct RpcEndpointConfig {
  std::string socket_path;  // empty: the default "<runtime dir>/KestTCS"
  std::string group;        // socket group; empty or unknown keeps the process's group
  uint16_t tcp_port = 0;    // 0: no TCP listener on 127.0.0.1
  // Limits (see dcerpc::ServerOptions), and the contexts one client may hold.
  size_t max_connections = 4096;
  size_t max_connections_per_user = 1024;
  std::chrono::seconds idle_timeout{60};
  size_t request_memory = 32 * 1024 * 1024;
  size_t max_contexts = 1024;
};

// The endpoint's path in the file system, where the service's lock beside it goes: the configured
// Unix socket, else the default one. Empty on Windows, whose pipe the file system does not hold.
std::string EndpointPath(const std::string& configuredSocket);

// Remembers where to listen and checks that the endpoint can be created.
[[nodiscard]] UINT32 RpcServerUseProtseqEp(const RpcEndpointConfig& config);
// Registers the TCS interface (all 126 operations) and the service-state interface with the server.
[[nodiscard]] UINT32 RpcServerRegisterIf();
// Opens the listeners and starts serving up to maxCalls calls at once; returns at once.
[[nodiscard]] UINT32 RpcServerListen(unsigned maxCalls);
// Blocks until listening has been stopped; returns 0.
UINT32 RpcMgmtWaitServerListen();
// Stops listening and lets calls in flight finish.
[[nodiscard]] UINT32 RpcMgmtStopServerListening();
// Drops the interface registration.
[[nodiscard]] UINT32 RpcServerUnregisterIf();

}  // namespace kesttcs
