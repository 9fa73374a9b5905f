// Linux host sinks: trace lines to the journal at debug priority, service events to the journal
// (or to syslog where no journal runs), both under the identifier "KestTCS".
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "service/linux/journal_sink.h"

namespace kesttcs {
namespace {

constexpr const char* kIdentifier = "KestTCS";
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

int PriorityOf(int eventType) {
  switch (eventType) {
    case kEventError:
      return LOG_ERR;
    case kEventWarning:
      return LOG_WARNING;
    case kEventInformation:
      return LOG_INFO;
    default:
      return LOG_NOTICE;
  }
}

std::string MessageOf(const ServiceEvent& event) {
  if (event.strings.empty()) {
    char text[40];
    std::snprintf(text, sizeof(text), "KestTCS event 0x%.8X", event.eventCode);
    return text;
  }
  std::string message;
  for (const std::string& s : event.strings) {
    if (!message.empty()) message += "; ";
    message += s;
  }
  return message;
}

}  // namespace

TraceSink JournalTraceSink() {
  return [](std::string_view line) {
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    const int rc = sd_journal_send("MESSAGE=%.*s", int(line.size()), line.data(), "PRIORITY=%d",
                                   LOG_DEBUG, "SYSLOG_IDENTIFIER=%s", kIdentifier, nullptr);
    // Without a journal the line still reaches whoever collects the service's stderr.
    if (rc < 0) std::fprintf(stderr, "%.*s\n", int(line.size()), line.data());
  };
}

EventSink SystemEventSink() {
  return [](const ServiceEvent& event) {
    const std::string message = MessageOf(event);
    const int priority = PriorityOf(event.type);
    if (access(kJournalSocket, F_OK) == 0) {
      const int rc = sd_journal_send(
          "MESSAGE=%s", message.c_str(), "PRIORITY=%d", priority, "SYSLOG_IDENTIFIER=%s",
          kIdentifier, "KESTTCS_EVENT_CODE=0x%.8X", event.eventCode, "KESTTCS_EVENT_CATEGORY=%u",
          unsigned(event.category), nullptr);
      if (rc < 0) WriteDebugLine("Could not report the event.");
      return;
    }
    openlog(kIdentifier, LOG_PID, LOG_DAEMON);
    syslog(priority, "%s (event 0x%.8X)", message.c_str(), event.eventCode);
    closelog();
  };
}

}  // namespace kesttcs
