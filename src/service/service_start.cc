// ServiceStart and ServiceStop: the RPC bring-up written as a table of steps around start-up and
// shut-down.
#include "service/service_start.h"

#include <kesttcs/tcs_results.h>

#include <utility>

#include "base/logging.h"
#include "base/mutex.h"
#include "rpc/rpc_service.h"
#include "service/service_status.h"
#include "service/startup.h"

namespace kesttcs {
namespace {

// Wait hint of every start-pending report ServiceStart makes.
constexpr UINT32 kStartWaitHintMs = 3000;
// Calls served at once.
constexpr unsigned kMaxConcurrentCalls = 1000;

struct RpcStep {
  const char* start;    // traced before the call
  const char* failure;  // traced when it fails
  const char* success;  // traced when it succeeds
  UINT32 (*run)();
  bool reportPending;  // report start-pending after success
};

UINT32 UseEndpoint() {
  const TcsConfig& config = ServiceConfig();
  RpcEndpointConfig endpoint;
  endpoint.socket_path = ServiceSocketPath();
  endpoint.group = config.group;
  endpoint.tcp_port = config.tcpPort;
  endpoint.max_connections = config.maxConnections;
  endpoint.max_connections_per_user = config.maxConnectionsPerUser;
  endpoint.idle_timeout = std::chrono::seconds(config.idleTimeout);
  endpoint.request_memory = size_t{config.requestMemory} * 1024 * 1024;
  endpoint.max_contexts = config.maxContexts;
  return RpcServerUseProtseqEp(endpoint);
}
UINT32 RegisterInterface() { return RpcServerRegisterIf(); }
UINT32 Listen() { return RpcServerListen(kMaxConcurrentCalls); }

constexpr RpcStep kRpcSteps[] = {
    {"TCS service Starting:call RpcServerUseProtseqEp ...",
     "ServiceStart RpcServerUseProtseqEp:tells the RPC run-time library to use the specified "
     "protocol sequence combined with the specified endpoint for receiving remote procedure calls "
     "Fail!",
     "TCS service Starting:call RpcServerUseProtseqEp ok.", UseEndpoint, true},
    {"TCS service Starting:call RpcServerRegisterIf ...",
     "ServiceStart RpcServerRegisterIf:registers an interface with the RPC run-time library Fail!",
     "TCS service Starting:call RpcServerRegisterIf ok.", RegisterInterface, true},
    {"TCS service Starting:call RpcServerListen ...",
     "ServiceStart RpcServerListen:signals the RPC run-time library to listen for remote procedure "
     "calls Fail!",
     "TCS service Starting:call RpcServerListen ok.", Listen, false},
};

// The power-event source and whether it runs; the mutex is a leaf held across start and stop.
struct PowerEventSource {
  Mutex mu;
  std::function<void()> start GUARDED_BY(mu);
  std::function<void()> stop GUARDED_BY(mu);
  bool running GUARDED_BY(mu) = false;
  bool stopped GUARDED_BY(mu) = false;
};

PowerEventSource& PowerSource() {
  static PowerEventSource source;
  return source;
}

void StartPowerEvents() {
  PowerEventSource& source = PowerSource();
  MutexLock lock(source.mu);
  if (source.stopped || source.running || !source.start) return;
  source.start();
  source.running = true;
}

void StopPowerEvents() {
  PowerEventSource& source = PowerSource();
  MutexLock lock(source.mu);
  source.stopped = true;
  if (!source.running) return;
  source.running = false;
  if (source.stop) source.stop();
}

}  // namespace

void SetPowerEventSource(std::function<void()> start, std::function<void()> stop) {
  PowerEventSource& source = PowerSource();
  MutexLock lock(source.mu);
  source.start = std::move(start);
  source.stop = std::move(stop);
  source.running = false;
  source.stopped = false;
}

UINT32 ServiceStart() {
  TcsTrace("TCS service Starting ...", nullptr);
  ReportServiceStatus(kServiceStartPending, 0, kStartWaitHintMs);

  TcsTrace("TCS service Starting:call startup tpm...", nullptr);
  if (const TSS_RESULT r = KestTcs_startup(); r != TSS_SUCCESS) {
    TcsTrace("KestTcs_startup Fail!", nullptr);
    return r;
  }
  TcsTrace("TCS service Starting:startup tpm ok.", nullptr);
  ReportServiceStatus(kServiceStartPending, 0, kStartWaitHintMs);

  for (const RpcStep& step : kRpcSteps) {
    TcsTrace(step.start, nullptr);
    if (const UINT32 status = step.run(); status != 0) {
      TcsTrace(step.failure, nullptr);
      return status;
    }
    TcsTrace(step.success, nullptr);
    if (step.reportPending) ReportServiceStatus(kServiceStartPending, 0, kStartWaitHintMs);
  }

  ReportServiceStatus(kServiceRunning, 0, 0);
  StartPowerEvents();
  TcsTrace("TCS service Starting:call RpcMgmtWaitServerListen ...", nullptr);
  TcsTrace("TCS service start end.\n", nullptr);
  return RpcMgmtWaitServerListen();
}

void ServiceStop() {
  TcsTrace("TCS service Stoping ...", nullptr);
  StopPowerEvents();
  TcsTrace("TCS service Stoping:call RpcMgmtStopServerListening...", nullptr);
  if (const UINT32 status = RpcMgmtStopServerListening(); status != 0) {
    TcsTracef("%s returned: 0x%x\n", "RpcMgmtStopServerListening", status);
    return;
  }
  TcsTrace("TCS service Stoping:call RpcMgmtStopServerListening ok.", nullptr);
  TcsTrace("TCS service Stoping:call RpcServerUnregisterIf...", nullptr);
  if (const UINT32 status = RpcServerUnregisterIf(); status != 0) {
    TcsTracef("%s returned: 0x%x\n", "RpcServerUnregisterIf", status);
    return;
  }
  TcsTrace("TCS service Stoping:call RpcServerUnregisterIf ok.", nullptr);
  TcsTrace("TCS service Stoping:call shutdown tpm...", nullptr);
  kesttcs_shutdown();
  TcsTrace("TCS service Stoping:call shutdown tpm ok.", nullptr);
}

}  // namespace kesttcs
