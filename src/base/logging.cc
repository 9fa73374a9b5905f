// Trace lines, the hourly TPM traffic file, service events and the time strings they use.
#include "base/logging.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/local_time.h"
#include "base/mutex.h"

namespace kesttcs {
namespace {

// Trace lines, including their terminator, never exceed this.
constexpr std::size_t kTraceLineSize = 256;

std::atomic<bool> g_need_log{false};

// Leaf lock of this module: held only to read or replace a setting, never while calling a sink or
// writing a file.
Mutex g_mu;
std::shared_ptr<const TraceSink> g_trace_sink GUARDED_BY(g_mu);
std::shared_ptr<const EventSink> g_event_sink GUARDED_BY(g_mu);
std::shared_ptr<const LocalTimeSource> g_time_source GUARDED_BY(g_mu);
std::string g_traffic_directory GUARDED_BY(g_mu);
// Traffic files that already failed to open; each is reported once.
std::set<std::string> g_failed_traffic_files GUARDED_BY(g_mu);

// Without a host's event log (unit tests, tools) an event is one line on stderr.
void StderrEventSink(const ServiceEvent& event) {
  std::string line = "KestTCS event 0x";
  char code[9];
  std::snprintf(code, sizeof(code), "%.8X", event.eventCode);
  line += code;
  for (size_t i = 0; i < event.strings.size(); ++i) {
    line += (i == 0 ? ": " : "; ") + event.strings[i];
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

std::shared_ptr<const TraceSink> CurrentTraceSink() {
  MutexLock lock(g_mu);
  return g_trace_sink;
}

void EmitTraceLine(std::string_view line) {
  std::shared_ptr<const TraceSink> sink = CurrentTraceSink();
  if (sink) {
    (*sink)(line);
  } else {
    StderrTraceSink()(line);
  }
}

std::tm LocalNow() {
  std::shared_ptr<const LocalTimeSource> source;
  {
    MutexLock lock(g_mu);
    source = g_time_source;
  }
  if (source) return (*source)();
  return LocalTimeOf(std::time(nullptr));
}

// Writes `bytes` as "%.2X " each, in groups of 16 flushed to the file as they fill. No line end
// separates the groups, so a record's bytes form one text line.
void WriteHexBytes(std::FILE* file, const BYTE* bytes, UINT32 length) {
  char group[16 * 3 + 1];
  std::size_t used = 0;
  for (UINT32 i = 0; i < length; ++i) {
    if (i != 0 && i % 16 == 0) {
      std::fputs(group, file);
      used = 0;
    }
    std::snprintf(group + used, sizeof(group) - used, "%.2X ", bytes[i]);
    used += 3;
  }
  if (used != 0) std::fputs(group, file);
}

std::string TrafficDirectory() {
  MutexLock lock(g_mu);
  return g_traffic_directory;
}

// The current hour's traffic file in `directory`.
std::string TrafficFileIn(std::string directory) {
  if (!directory.empty() && directory.back() != '/') directory.push_back('/');
  char stamp[32] = {};
  FormatHourStamp(stamp, sizeof(stamp));
  return directory + "LogTransDataWithTpm" + stamp + ".txt";
}

void ReportOpenFailureOnce(const std::string& name) {
  {
    MutexLock lock(g_mu);
    if (!g_failed_traffic_files.insert(name).second) return;
  }
  const char* strings[] = {"Open File failed", name.c_str()};
  ReportServiceEvent(TCS_E_FAIL, 0, 2, strings);
}

}  // namespace

void ResetLogging() {
  g_need_log = false;
  MutexLock lock(g_mu);
  g_trace_sink.reset();
  g_event_sink.reset();
  g_time_source.reset();
  g_traffic_directory.clear();
  g_failed_traffic_files.clear();
}

bool NeedLog() { return g_need_log.load(std::memory_order_relaxed); }

void SetNeedLog(bool on) { g_need_log = on; }

void SetTraceSink(TraceSink sink) {
  auto shared = sink ? std::make_shared<const TraceSink>(std::move(sink)) : nullptr;
  MutexLock lock(g_mu);
  g_trace_sink = std::move(shared);
}

TraceSink StderrTraceSink() {
  return [](std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
  };
}

void TcsTrace(const char* text, const TSS_RESULT* pResult) {
  if (text == nullptr || !NeedLog()) return;
  char suffix[32] = "\n";
  if (pResult != nullptr) std::snprintf(suffix, sizeof(suffix), " result = 0x%.8x\n", *pResult);
  constexpr std::string_view kPrefix = "TCS:";
  const std::string_view tail(suffix);
  const std::size_t room = kTraceLineSize - 1 - kPrefix.size() - tail.size();
  const std::string_view body(text, strnlen(text, room));

  char line[kTraceLineSize] = {};
  const int written = std::snprintf(line, sizeof(line), "%.*s%.*s%s", int(kPrefix.size()),
                                    kPrefix.data(), int(body.size()), body.data(), suffix);
  if (written > 0) EmitTraceLine(std::string_view(line, std::size_t(written)));
}

void TcsTracef(const char* format, ...) {
  if (format == nullptr || !NeedLog()) return;
  char text[kTraceLineSize] = {};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  TcsTrace(text, nullptr);
}

void WriteDebugLine(std::string_view text) {
  std::string line(text);
  line.push_back('\n');
  EmitTraceLine(line);
}

void SetLocalTimeSource(LocalTimeSource source) {
  auto shared = source ? std::make_shared<const LocalTimeSource>(std::move(source)) : nullptr;
  MutexLock lock(g_mu);
  g_time_source = std::move(shared);
}

void FormatDateString(char* buffer, std::size_t size, char separator) {
  if (buffer == nullptr) return;
  const std::tm now = LocalNow();
  std::snprintf(buffer, size, "%.2d%c%.2d%c%.2d", now.tm_year + 1900, separator, now.tm_mon + 1,
                separator, now.tm_mday);
}

void FormatTimeString(char* buffer, std::size_t size, char separator) {
  if (buffer == nullptr) return;
  const std::tm now = LocalNow();
  std::snprintf(buffer, size, "%.2d%c%.2d%c%.2d", now.tm_hour, separator, now.tm_min, separator,
                now.tm_sec);
}

void FormatCompactStamp(char* buffer, std::size_t size) {
  if (buffer == nullptr) return;
  const std::tm now = LocalNow();
  std::snprintf(buffer, size, "%.2d%.2d%.2d%.2d%.2d%.2d", now.tm_year + 1900, now.tm_mon + 1,
                now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
}

void FormatHourStamp(char* buffer, std::size_t size) {
  if (buffer == nullptr) return;
  const std::tm now = LocalNow();
  std::snprintf(buffer, size, "%.2d-%.2d-%.2d-%.2d", now.tm_year + 1900, now.tm_mon + 1,
                now.tm_mday, now.tm_hour);
}

void FormatMinuteStamp(char* buffer, std::size_t size) {
  if (buffer == nullptr) return;
  const std::tm now = LocalNow();
  std::snprintf(buffer, size, "%.2d-%.2d-%.2d %.2d %.2d", now.tm_year + 1900, now.tm_mon + 1,
                now.tm_mday, now.tm_hour, now.tm_min);
}

void SetTrafficLogDirectory(std::string directory) {
  MutexLock lock(g_mu);
  g_traffic_directory = std::move(directory);
}

std::string TrafficLogFileName() { return TrafficFileIn(TrafficDirectory()); }

void LogTransDataWithTpm(UINT32 length, const BYTE* data, int direction) {
  if (!NeedLog()) return;
  std::string directory = TrafficDirectory();
  // Until the host has set the log directory there is nowhere to write: never the working
  // directory of whoever runs the code.
  if (directory.empty()) return;
  const std::string name = TrafficFileIn(std::move(directory));
  std::FILE* file = std::fopen(name.c_str(), "a+");
  if (file == nullptr) {
    ReportOpenFailureOnce(name);
    return;
  }
  char now[32] = {};
  FormatTimeString(now, sizeof(now), ':');
  if (direction == kTrafficSend) {
    std::fprintf(file, "\n\nSend Data To TPM.Time:%s\n", now);
    if (data != nullptr) WriteHexBytes(file, data, length);
  } else if (direction == kTrafficReceive) {
    std::fprintf(file, "\nRecv Data From TPM.Time:%s\n", now);
    if (data != nullptr) WriteHexBytes(file, data, length);
  } else if (direction == kTrafficText) {
    std::fprintf(file, "\n%s", data != nullptr ? reinterpret_cast<const char*>(data) : "");
  }
  std::fflush(file);
  std::fclose(file);
}

int EventTypeFromCode(UINT32 eventCode) {
  switch (eventCode >> 30) {
    case 1:
      return kEventInformation;
    case 2:
      return kEventWarning;
    case 3:
      return kEventError;
    default:
      return kEventSuccess;
  }
}

void SetEventSink(EventSink sink) {
  auto shared = sink ? std::make_shared<const EventSink>(std::move(sink)) : nullptr;
  MutexLock lock(g_mu);
  g_event_sink = std::move(shared);
}

void ReportServiceEvent(UINT32 eventCode, UINT16 category, UINT16 stringCount,
                        const char* const* strings) {
  ServiceEvent event{EventTypeFromCode(eventCode), category, eventCode, {}};
  if (strings != nullptr) {
    event.strings.reserve(stringCount);
    for (UINT16 i = 0; i < stringCount; ++i) {
      event.strings.emplace_back(strings[i] != nullptr ? strings[i] : "");
    }
  }
  std::shared_ptr<const EventSink> sink;
  {
    MutexLock lock(g_mu);
    sink = g_event_sink;
  }
  if (sink) {
    (*sink)(event);
  } else {
    StderrEventSink(event);
  }
}

}  // namespace kesttcs
