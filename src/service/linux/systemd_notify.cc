// Status reports to systemd through sd_notify.
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <kesttcs/tcs_results.h>

#include "service/linux/host.h"

namespace kesttcs::host {
namespace {

std::string PendingText(const char* what, const ServiceStatusRecord& status) {
  char text[128];
  std::snprintf(text, sizeof(text), "STATUS=%s (check point %u)\nEXTEND_TIMEOUT_USEC=%llu", what,
                status.checkPoint, static_cast<unsigned long long>(status.waitHint) * 1000ULL);
  return text;
}

std::string StoppedText(const ServiceStatusRecord& status) {
  char text[256];
  if (status.win32ExitCode == 0) return "STATUS=Stopped";
  if (status.win32ExitCode == kServiceSpecificError) {
    std::snprintf(text, sizeof(text), "STATUS=Stopped: service-specific error 0x%.8X (%s)",
                  status.serviceSpecificExitCode, ResultName(status.serviceSpecificExitCode));
    return text;
  }
  const UINT32 code = status.win32ExitCode;
  std::snprintf(text, sizeof(text), "STATUS=Stopped: error %u (%s)\nERRNO=%u", code,
                std::strerror(static_cast<int>(code)), code);
  return text;
}

}  // namespace

std::string SystemdNotifyText(const ServiceStatusRecord& status) {
  switch (status.currentState) {
    case kServiceStartPending:
      return PendingText("Starting", status);
    case kServiceStopPending:
      return "STOPPING=1\n" + PendingText("Stopping", status);
    case kServiceContinuePending:
      return PendingText("Resuming", status);
    case kServiceRunning:
      return "READY=1\nSTATUS=Running";
    case kServiceStopped:
      return StoppedText(status);
    default: {
      char text[48];
      std::snprintf(text, sizeof(text), "STATUS=State %u", status.currentState);
      return text;
    }
  }
}

ServiceStatusSink SdNotifyStatusSink() {
  return [](const ServiceStatusRecord& status) { sd_notify(0, SystemdNotifyText(status).c_str()); };
}

}  // namespace kesttcs::host
