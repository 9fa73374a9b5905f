// Status reports, exit-code rules and the control handler shared by every host.
#include "service/service_status.h"

#include <atomic>
#include <memory>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "base/mutex.h"

namespace kesttcs {
namespace {

std::atomic<bool> g_debug_mode{false};

// Leaf lock: held only while the record, the counter or a callback is read or replaced.
Mutex g_mu;
ServiceStatusRecord g_status GUARDED_BY(g_mu);
UINT32 g_check_point GUARDED_BY(g_mu) = 1;
std::shared_ptr<const ServiceStatusSink> g_sink GUARDED_BY(g_mu);
std::shared_ptr<const PowerEventHandler> g_power_handler GUARDED_BY(g_mu);

void Deliver(const ServiceStatusRecord& record, std::shared_ptr<const ServiceStatusSink> sink) {
  if (sink && *sink) (*sink)(record);
}

}  // namespace

void SetServiceStatusSink(ServiceStatusSink sink) {
  MutexLock lock(g_mu);
  g_sink = std::make_shared<const ServiceStatusSink>(std::move(sink));
}

void SetDebugMode(bool on) { g_debug_mode = on; }

void ResetServiceStatus() {
  g_debug_mode = false;
  MutexLock lock(g_mu);
  g_status = ServiceStatusRecord{};
  g_check_point = 1;
  g_sink.reset();
  g_power_handler.reset();
}

void SendServiceStatus() {
  ServiceStatusRecord record;
  std::shared_ptr<const ServiceStatusSink> sink;
  {
    MutexLock lock(g_mu);
    record = g_status;
    sink = g_sink;
  }
  Deliver(record, std::move(sink));
}

UINT32 ReportServiceStatus(UINT32 state, UINT32 exitCode, UINT32 waitHint) {
  if (g_debug_mode) return 0;
  ServiceStatusRecord record;
  std::shared_ptr<const ServiceStatusSink> sink;
  {
    MutexLock lock(g_mu);
    g_status.controlsAccepted = kServiceAcceptedControls;
    g_status.currentState = state;
    if (IsTcsFamily(exitCode)) {
      g_status.win32ExitCode = kServiceSpecificError;
      g_status.serviceSpecificExitCode = exitCode;
    } else {
      g_status.win32ExitCode = exitCode;
    }
    g_status.waitHint = waitHint;
    if (state == kServiceRunning || state == kServiceStopped) {
      g_status.checkPoint = 0;
    } else {
      g_status.checkPoint = g_check_point++;
    }
    record = g_status;
    sink = g_sink;
  }
  Deliver(record, std::move(sink));
  return 0;
}

int ExitStatusFromServiceCode(UINT32 code) {
  if (code == 0) return 0;
  if (IsTcsFamily(code)) return kExitStatusTcsError;
  if (code < 256) return static_cast<int>(code);
  return kExitStatusOtherError;
}

void SetPowerEventHandler(PowerEventHandler handler) {
  MutexLock lock(g_mu);
  g_power_handler = std::make_shared<const PowerEventHandler>(std::move(handler));
}

UINT32 ServiceControlHandler(UINT32 control, UINT32 eventType, const std::function<void()>& stop) {
  switch (control) {
    case kControlStop:
    case kControlShutdown:
      ReportServiceStatus(kServiceStopPending, 0, 30000);
      stop();
      TcsTrace("ServiceStop:Ok!", nullptr);
      ReportServiceStatus(kServiceStopped, 0, 0);
      return 0;
    case kControlPowerEvent: {
      TcsTracef("Power ctrlCode=0x%x,EventType=0x%x", control, eventType);
      std::shared_ptr<const PowerEventHandler> handler;
      {
        MutexLock lock(g_mu);
        handler = g_power_handler;
      }
      return (handler && *handler) ? (*handler)(eventType) : 0;
    }
    default:
      return 0;
  }
}

}  // namespace kesttcs
