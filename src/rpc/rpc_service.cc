#include "rpc/rpc_service.h"

#include <grp.h>
#include <sys/un.h>

#include <cerrno>
#include <memory>
#include <optional>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "rpc/api_frame.h"
#include "rpc/context_owners.h"
#include "rpc/dcerpc/server.h"
#include "rpc/internal_calls.h"
#include "rpc/operations.h"
#include "rpc/rpc_dispatch.h"
#include "rpc/service_state.h"
#include "rpc/service_state_wire.h"
#include "rpc/stubs.h"
#include "tpm/tpm_turns.h"

namespace kesttcs {
namespace {

using rpc::Operation;

constexpr uint16_t kOpenContext = rpc::OpnumOf("Tcsi_OpenContext");
constexpr uint16_t kCloseContext = rpc::OpnumOf("Tcsi_CloseContext");

// Runs the operation's frame; the internal call is refused when the caller does not own the
// context it presents, and an open when the caller holds its limit of contexts (with the result a
// failed open has). A call holds its context open until its outputs have left the context's
// memory; a close first waits, outside the API lock, for the context's other calls to end.
// Successful opens and closes update the owner map.
TSS_RESULT RunOperation(const Operation& op, rpc::CallFrame& frame, const ContextOwner& owner) {
  const bool takes_context = op.params[0].is_input();
  const bool closes = op.opnum == kCloseContext;
  const bool opens = op.opnum == kOpenContext;
  const TCS_CONTEXT_HANDLE hContext = takes_context ? frame.u32(0) : 0;
  const bool admitted = takes_context && (closes ? owners_BeginClose(owner, hContext)
                                                 : owners_BeginCall(owner, hContext));
  TSS_RESULT refusal = TSS_SUCCESS;
  if (takes_context && !admitted) refusal = TCS_E_INVALID_CONTEXT;
  if (opens && !owners_BeginOpen(owner)) refusal = TCS_E_FAIL;
  // Three small captures: std::function keeps them in place, so dispatch allocates nothing here.
  const TSS_RESULT result =
      RunApiFrame(op, frame, [&frame, refusal, opnum = op.opnum]() -> TSS_RESULT {
        return refusal != TSS_SUCCESS ? refusal : CallInternalFunction(opnum, frame);
      });
  if (opens && refusal == TSS_SUCCESS) {
    owners_EndOpen(owner, result == TSS_SUCCESS ? frame.u32(0) : 0);
  }
  if (admitted) {
    if (closes) {
      owners_EndClose(hContext, result == TSS_SUCCESS);
    } else {
      owners_EndCall(hContext);
    }
  }
  return result;
}

// The client a call's TPM commands count for, when clients take turns at the TPM: the owner of
// its contexts. The three kinds of owner get keys of their own ranges; 0 stays the service's.
uint64_t TpmClientOf(const ContextOwner& owner) {
  if (owner.is_process) return uint64_t{1} << 62 | static_cast<uint32_t>(owner.pid);
  if (owner.assoc_group != 0) return uint64_t{2} << 62 | owner.assoc_group;
  return uint64_t{3} << 62 | owner.connection_id;
}

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
  const Operation* op = rpc::FindOperation(opnum);
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
  const ContextOwner owner = OwnerOf(info.peer);
  const TpmClientScope client(TpmClientOf(owner));
  const TSS_RESULT result = RunOperation(*op, frame, owner);
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

UINT32 RpcServerUseProtseqEp(const RpcEndpointConfig& config) {
  dcerpc::ServerOptions options;
  options.unix_path = config.socket_path.empty() ? dcerpc::DefaultSocketPath() : config.socket_path;
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
