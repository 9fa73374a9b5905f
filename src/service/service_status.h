// Service status reporting and the service control handler, shared by every host. The host
// installs a status sink that hands each report to its service manager (systemd on Linux); the
// rules for exit codes and check points live here so that every host reports the same way.
//
// The status record and the check-point counter are process-wide and guarded by this module's leaf
// mutex; the sink, the stop function and the power handler are called with that mutex released.
#pragma once

#include <functional>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The service's names as the service manager and the console show them.
inline constexpr char kServiceName[] = "KestTCS";
inline constexpr char kServiceDisplayName[] = "Trusted Platform Core Service (KESTRON)";

// Service states (the values the Windows service manager uses).
inline constexpr UINT32 kServiceStopped = 1;
inline constexpr UINT32 kServiceStartPending = 2;
inline constexpr UINT32 kServiceStopPending = 3;
inline constexpr UINT32 kServiceRunning = 4;
inline constexpr UINT32 kServiceContinuePending = 5;

// Controls accepted: stop, shut-down and power events.
inline constexpr UINT32 kServiceAcceptedControls = 0x45;
// Exit code that says "look at the service-specific code" (ERROR_SERVICE_SPECIFIC_ERROR).
inline constexpr UINT32 kServiceSpecificError = 1066;

// Control codes the handler acts on.
inline constexpr UINT32 kControlStop = 1;
inline constexpr UINT32 kControlShutdown = 5;
inline constexpr UINT32 kControlPowerEvent = 13;

// One report to the service manager.
struct ServiceStatusRecord {
  UINT32 serviceType = 0x30;  // own process, interactive
  UINT32 currentState = kServiceStartPending;
  UINT32 controlsAccepted = kServiceAcceptedControls;
  UINT32 win32ExitCode = 0;
  UINT32 serviceSpecificExitCode = 0;
  UINT32 checkPoint = 1;
  UINT32 waitHint = 30000;  // milliseconds
};

// Receives every report. Called on the reporting thread without this module's mutex held.
using ServiceStatusSink = std::function<void(const ServiceStatusRecord& status)>;
// Installs the sink; an empty function drops reports (the state before a host installs one).
void SetServiceStatusSink(ServiceStatusSink sink);

// Set once by the -debug command; while true, status reports do nothing.
void SetDebugMode(bool on);

// Restores the start-up state: the record as ServiceMain first fills it, check point counter 1,
// debug mode off, no sink. For tests and for a host that reports its first status directly.
void ResetServiceStatus();

// Sends the record as it stands (ServiceMain's first report, before any ReportServiceStatus).
void SendServiceStatus();

// Reports `state` unless debug mode is on. A TCS result code (upper 16 bits 0xE028) becomes the
// service-specific exit code beside kServiceSpecificError; any other code is the exit code itself
// (the service-specific code keeps its earlier value). Running and stopped carry check point 0;
// every other state takes the next value of the check-point counter, which starts at 1 and is
// shared by start and stop. Returns 0 always.
UINT32 ReportServiceStatus(UINT32 state, UINT32 exitCode, UINT32 waitHint);

// Process exit status for a 32-bit service exit code: 0 stays 0; a TCS result code gives
// kExitStatusTcsError (the code itself goes to the service manager's status text and the journal);
// a system error code below 256 is the exit status itself; anything larger gives
// kExitStatusOtherError.
inline constexpr int kExitStatusTcsError = 3;
inline constexpr int kExitStatusOtherError = 1;
int ExitStatusFromServiceCode(UINT32 code);

// Power events reach the power-state handling through this seam: the host's control handler hands
// over the event type and returns what the handler answers (0 grants a suspend query). Without a
// handler every power event is answered 0 and nothing else happens.
using PowerEventHandler = std::function<UINT32(UINT32 eventType)>;
void SetPowerEventHandler(PowerEventHandler handler);

// The service control handler. Stop and shut-down: report stop-pending (30000 ms), run `stop`
// (ServiceStop), trace "ServiceStop:Ok!", report stopped, return 0. Power event: trace
// "Power ctrlCode=0x%x,EventType=0x%x" and return the power handler's answer. Anything else: 0.
UINT32 ServiceControlHandler(UINT32 control, UINT32 eventType, const std::function<void()>& stop);

}  // namespace kesttcs
