// The Windows host of the service (service/host.h): the service control manager's callbacks, the
// console commands (install.cc, with the event source in the registry), and the debugger-output
// and event-log sinks.
//
// The service "KestTCS" runs in a process of its own. ServiceMain hands the process to the service
// control manager, whose dispatcher calls the service's main function and its control handler:
// stop and shut-down stop the service, power events go to power-state handling. In -debug mode
// the console's Ctrl-C and Ctrl-Break stop it.
#pragma once

#include <windows.h>

#include "base/logging.h"
#include "service/host.h"

namespace kesttcs::host {

// The control handler the service registers (RegisterServiceCtrlHandlerExA): raises its thread's
// priority above normal, then acts as ServiceControlHandler with ServiceStop as the stop.
DWORD WINAPI ServiceControlHandlerEx(DWORD control, DWORD eventType, void* eventData,
                                     void* context);

// Trace lines to the debugger output (OutputDebugStringA).
TraceSink DebugOutputTraceSink();

// Service events to the system event log under the source "KestTCS" (ReportEventA); when the
// report fails, "Could not report the event." goes to the debugger output.
EventSink EventLogSink();

}  // namespace kesttcs::host
