// The Windows host of the service (service/host.h): the service control manager's callbacks, the
// console commands with their event source in the registry, and the debugger-output and event-log
// sinks.
//
// The service "KestTCS" runs in a process of its own. ServiceMain hands the process to the service
// control manager, whose dispatcher calls the service's main function and its control handler:
// stop and shut-down stop the service, power events go to power-state handling. In -debug mode
// the console's Ctrl-C and Ctrl-Break stop it.
#pragma once

#include <windows.h>

#include <string>

#include "base/logging.h"
#include "service/host.h"

namespace kesttcs::host {

// The control handler the service registers (RegisterServiceCtrlHandlerExA): raises its thread's
// priority above normal, then acts as ServiceControlHandler with ServiceStop as the stop.
DWORD WINAPI ServiceControlHandlerEx(DWORD control, DWORD eventType, void* eventData,
                                     void* context);

// The system's text for GetLastError() and its code, "text (0x5)", when it fits `size` bytes with
// room to spare (callers pass 256); otherwise an empty string.
std::string GetLastErrorText(size_t size = 256);

// The event source "KestTCS" of the Application log in the registry, with `messageFile` as its
// event and category message file. AddEventSource returns false at the first value it cannot
// write; RemoveEventSource true when the key was deleted.
bool AddEventSource(const std::string& messageFile, DWORD categoryCount);
bool RemoveEventSource();

// Trace lines to the debugger output (OutputDebugStringA).
TraceSink DebugOutputTraceSink();

// Service events to the system event log under the source "KestTCS" (ReportEventA); when the
// report fails, "Could not report the event." goes to the debugger output.
EventSink EventLogSink();

}  // namespace kesttcs::host
