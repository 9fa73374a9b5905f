// The Windows host's sinks: trace lines to the debugger output, service events to the event log.
#include <vector>

#include "service/service_status.h"
#include "service/windows/host.h"

namespace kesttcs::host {

TraceSink DebugOutputTraceSink() {
  return [](std::string_view line) { OutputDebugStringA(std::string(line).c_str()); };
}

EventSink EventLogSink() {
  return [](const ServiceEvent& event) {
    const HANDLE source = RegisterEventSourceA(nullptr, kServiceName);
    if (source == nullptr) return;
    std::vector<const char*> strings;
    for (const std::string& text : event.strings) strings.push_back(text.c_str());
    if (!ReportEventA(source, static_cast<WORD>(event.type), event.category, event.eventCode,
                      nullptr, static_cast<WORD>(strings.size()), 0,
                      strings.empty() ? nullptr : strings.data(), nullptr)) {
      OutputDebugStringA("Could not report the event.");
    }
    DeregisterEventSource(source);
  };
}

}  // namespace kesttcs::host
