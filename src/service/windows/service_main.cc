// The service under the service control manager, and on the console with -debug.
#include <atomic>
#include <cstdio>
#include <string>

#include "base/logging.h"
#include "service/message_file.h"
#include "service/power_events.h"
#include "service/service_start.h"
#include "service/service_status.h"
#include "service/windows/host.h"

namespace kesttcs::host {
namespace {

// Written by the dispatcher's thread before the service thread starts; read by the status sink.
SERVICE_STATUS_HANDLE g_status_handle = nullptr;
// ServiceStart's result, reported as the exit code when the service stops.
UINT32 g_service_result = 0;

// A stop runs on the thread of the control (or console) handler, and ServiceStart returns on the
// service thread as soon as the stop has ended listening: the service thread then waits for the
// stop to finish shutting the managers down before the process may end.
class StopInProgress {
 public:
  StopInProgress() : done_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
  ~StopInProgress() { CloseHandle(done_); }
  StopInProgress(const StopInProgress&) = delete;
  StopInProgress& operator=(const StopInProgress&) = delete;

  // Later requests find the stop under way and do nothing, as a service manager sends no second.
  void Run() {
    if (started_.exchange(true)) return;
    ServiceStop();
    SetEvent(done_);
  }
  void AwaitEnd() {
    if (started_) WaitForSingleObject(done_, INFINITE);
  }

 private:
  std::atomic<bool> started_{false};
  HANDLE done_;
};

StopInProgress& Stop() {
  static StopInProgress* stop = new StopInProgress;
  return *stop;
}

void SendToServiceManager(const ServiceStatusRecord& record) {
  SERVICE_STATUS status{};
  status.dwServiceType = record.serviceType;
  status.dwCurrentState = record.currentState;
  status.dwControlsAccepted = record.controlsAccepted;
  status.dwWin32ExitCode = record.win32ExitCode;
  status.dwServiceSpecificExitCode = record.serviceSpecificExitCode;
  status.dwCheckPoint = record.checkPoint;
  status.dwWaitHint = record.waitHint;
  SetServiceStatus(g_status_handle, &status);
}

// A service has no console: a failed start's reason goes to the event log, under the failure's
// code.
void ReportStartupFailure(UINT32 code) {
  if (code == 0) return;
  const std::string line = "KestTcs_startup Fail! " + StartupFailureLine(code);
  const char* strings[] = {line.c_str()};
  ReportServiceEvent(code, 0, 1, strings);
}

void WINAPI ServiceMainEntry(DWORD /*argc*/, char** /*argv*/) {
  OutputDebugStringA("ServiceMain");
  g_status_handle = RegisterServiceCtrlHandlerExA(kServiceName, ServiceControlHandlerEx, nullptr);
  if (g_status_handle == nullptr) return;
  SetServiceStatusSink(SendToServiceManager);
  SendServiceStatus();
  ReportServiceStatus(kServiceStartPending, 0, 1000);
  g_service_result = ServiceStart();
  Stop().AwaitEnd();
  ReportStartupFailure(g_service_result);
  ReportServiceStatus(kServiceStopped, g_service_result, 0);
}

BOOL WINAPI ConsoleControlHandler(DWORD type) {
  if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT) return FALSE;
  std::printf(MessageText("StoppingServiceConsole", "Stopping %s.\n").c_str(), kServiceDisplayName);
  std::fflush(stdout);
  Stop().Run();
  return TRUE;
}

void UseHostSinks() {
  SetTraceSink(DebugOutputTraceSink());
  SetEventSink(EventLogSink());
  InstallPowerEventRouting();
}

}  // namespace

DWORD WINAPI ServiceControlHandlerEx(DWORD control, DWORD eventType, void* /*eventData*/,
                                     void* /*context*/) {
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL);
  return ServiceControlHandler(control, eventType, [] { Stop().Run(); });
}

int ServiceMain() {
  UseHostSinks();
  const SERVICE_TABLE_ENTRYA table[] = {{const_cast<char*>(kServiceName), ServiceMainEntry},
                                        {nullptr, nullptr}};
  if (!StartServiceCtrlDispatcherA(table)) {
    // Started from a console rather than by the service manager: nothing to serve, and nothing
    // shown, as the service manager's own programs do.
    return kExitStatusOtherError;
  }
  return ExitStatusFromServiceCode(g_service_result);
}

void CmdDebugService() {
  UseHostSinks();
  SetConsoleCtrlHandler(ConsoleControlHandler, TRUE);
  TcsTrace("CmdDebugService call serviceStart.", nullptr);
  PrintStartupFailure(ServiceStart());
  Stop().AwaitEnd();
}

}  // namespace kesttcs::host
