#include "rpc/rpc_service.h"

#include <grp.h>
#include <sys/un.h>

#include <cerrno>
#include <memory>
#include <optional>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "rpc/context_owners.h"
#include "rpc/dcerpc/server.h"
#include "rpc/operations.h"
#include "rpc/owned_call.h"
#include "rpc/rpc_dispatch.h"
#include "rpc/service_state.h"
#include "rpc/service_state_wire.h"
#include "rpc/stubs.h"

namespace kesttcs {
namespace {

// The running server and where it listens.
struct ServiceState {
  Mutex mu;
  std::optional<dcerpc::ServerOptions> options GUARDED_BY(mu);
  // Shared so that a wait for the end of listening keeps the server alive while the stop path
  // unregisters it.
  std::shared_ptr<dcerpc::Server> server GUARDED_BY(mu);
  bool listening GUARDED_BY(mu) = false;
};

ServiceState& Service() {
  static ServiceState* state = new ServiceState;
  return *state;
}

}  // namespace

uint32_t DispatchTcsCall(const dcerpc::CallInfo& info, uint16_t opnum,
                         std::span<const uint8_t> stub_in, std::vector<uint8_t>& stub_out) {
  const rpc::Operation* op = rpc::FindOperation(opnum);
  if (op == nullptr) return dcerpc::kNcaOpRangeError;
  dcerpc::NdrWriter writer(stub_out);
  if (!op->frame.has_handler) {
    writer.WriteUint32(TCS_E_NOTIMPL);
    return 0;
  }
  rpc::CallFrame frame(*op);
  dcerpc::NdrReader reader(stub_in, info.byte_order);
  if (!rpc::UnmarshalRequest(reader, frame)) return dcerpc::kRpcBadStubData;

  owners_NoteConnection(info.peer);
  const TSS_RESULT result = RunOwnedCall(*op, frame, OwnerOf(info.peer));
  if (!rpc::MarshalResponse(frame, result, writer)) {
    // An internal function left its outputs inconsistent; the client gets a fault, not bad data.
    stub_out.clear();
    return dcerpc::kNcaFaultUnspecified;
  }
  return 0;
}

uint16_t RpcServerTcpPort() {
  ServiceState& s = Service();
  MutexLock lock(s.mu);
  return s.server && s.listening ? s.server->tcp_port() : 0;
}

std::string EndpointPath(const std::string& configuredSocket) {
  return configuredSocket.empty() ? dcerpc::DefaultSocketPath() : configuredSocket;
}

UINT32 RpcServerUseProtseqEp(const RpcEndpointConfig& config) {
  dcerpc::ServerOptions options;
  options.unix_path = EndpointPath(config.socket_path);
  if (options.unix_path.empty()) return ENOENT;
  if (options.unix_path.size() >= sizeof(sockaddr_un{}.sun_path)) return ENAMETOOLONG;
  if (!config.group.empty()) {
    if (const group* g = getgrnam(config.group.c_str())) options.socket_group = g->gr_gid;
  }
  if (config.tcp_port != 0) options.tcp_port = config.tcp_port;
  options.max_connections = config.max_connections;
  options.max_connections_per_user = config.max_connections_per_user;
  options.idle_timeout = config.idle_timeout;
  options.request_memory = config.request_memory;
  ServiceState& s = Service();
  MutexLock lock(s.mu);
  if (s.listening) return EALREADY;
  s.options = options;
  owners_SetContextLimit(config.max_contexts);
  return 0;
}

UINT32 RpcServerRegisterIf() {
  ServiceState& s = Service();
  MutexLock lock(s.mu);
  if (s.server) return EALREADY;
  auto server = std::make_unique<dcerpc::Server>();
  if (!server->RegisterInterface(rpc::TcsInterfaceSyntax(), DispatchTcsCall) ||
      !server->RegisterInterface(rpc::ServiceStateInterfaceSyntax(),
                                 rpc::DispatchServiceStateCall)) {
    return EINVAL;
  }
  server->SetConnectionClosedCallback(owners_ConnectionClosed);
  // An idle connection of a client that holds contexts stays: closing it would close them.
  server->SetHoldsStateCallback(owners_HoldsContexts);
  s.server = std::move(server);
  return 0;
}

UINT32 RpcServerListen(unsigned maxCalls) {
  ServiceState& s = Service();
  MutexLock lock(s.mu);
  if (!s.server || !s.options) return EINVAL;
  if (s.listening) return EALREADY;
  dcerpc::ServerOptions options = *s.options;
  options.max_calls = maxCalls == 0 ? 1 : maxCalls;
  const int err = s.server->Start(options);
  if (err != 0) return static_cast<UINT32>(err);
  s.listening = true;
  return 0;
}

UINT32 RpcMgmtWaitServerListen() {
  std::shared_ptr<dcerpc::Server> server;
  {
    ServiceState& s = Service();
    MutexLock lock(s.mu);
    server = s.server;
  }
  if (server) server->Wait();
  return 0;
}

UINT32 RpcMgmtStopServerListening() {
  std::shared_ptr<dcerpc::Server> server;
  {
    ServiceState& s = Service();
    MutexLock lock(s.mu);
    if (!s.server || !s.listening) return EINVAL;
    server = s.server;
  }
  // Stop runs the closed-connection callbacks, which must not find this module's lock taken.
  server->Stop();
  ServiceState& s = Service();
  MutexLock lock(s.mu);
  s.listening = false;
  return 0;
}

UINT32 RpcServerUnregisterIf() {
  std::shared_ptr<dcerpc::Server> server;
  {
    ServiceState& s = Service();
    MutexLock lock(s.mu);
    if (!s.server) return EINVAL;
    server = std::move(s.server);
    s.listening = false;
    s.options.reset();
  }
  server.reset();
  owners_Reset();
  return 0;
}

}  // namespace kesttcs
