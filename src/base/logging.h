// Diagnostic outputs of the service: trace lines (only while needLog is on), the hourly file of raw
// TPM traffic (only while needLog is on), and service events (always). Where trace lines and events
// end up is chosen by the host through sinks; tests install capturing sinks and a fixed clock.
//
// Every function here may be called from any thread. The module keeps its settings (switch, sinks,
// clock, traffic directory) in private state guarded by its own leaf mutex; sinks are called
// without that mutex held.
#pragma once

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Restores every setting of this module to its start-up value: needLog off, default sinks, the
// system clock, no traffic directory, and forgets which traffic files failed to open.
void ResetLogging();

// The "needLog" switch read from the configuration at start-up. Off by default.
bool NeedLog();
void SetNeedLog(bool on);

// Receives one finished trace line ("TCS:...\n", at most 255 characters). Called from any thread.
using TraceSink = std::function<void(std::string_view line)>;
// Installs the trace sink; an empty function restores the default (stderr).
void SetTraceSink(TraceSink sink);
// Sink writing each line to stderr (the default, and the host's choice in -debug).
TraceSink StderrTraceSink();

// Writes "TCS:<text>\n", or "TCS:<text> result = 0x%.8x\n" when pResult is not null, to the trace
// sink while needLog is on. A null text does nothing. A line that would not fit 256 bytes (with its
// terminator) has its text cut; the result part and the line end are kept.
void TcsTrace(const char* text, const TSS_RESULT* pResult);

// printf-style trace: formats into a 256-byte buffer only while needLog is on, then TcsTrace(text,
// nullptr). Handlers use this so that nothing is formatted when logging is off.
void TcsTracef(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Source of the local time used by the time strings and the traffic log. Tests install a fixed one;
// an empty function restores the system clock (localtime of time(nullptr)).
using LocalTimeSource = std::function<std::tm()>;
void SetLocalTimeSource(LocalTimeSource source);

// Time strings of the current local time. Each writes at most `size` bytes including the terminator
// (cutting the text when the buffer is short) and does nothing when `buffer` is null or `size` is
// 0. The year has four digits; every other field is zero-padded to two. Date with separator: year,
// month, day ("2007-05-14" with '-').
void FormatDateString(char* buffer, std::size_t size, char separator);
// Time with separator: hour, minute, second ("09:05:07" with ':').
void FormatTimeString(char* buffer, std::size_t size, char separator);
// Compact stamp: "20070514090507".
void FormatCompactStamp(char* buffer, std::size_t size);
// Hour stamp: "2007-05-14-09"; names the hourly traffic files.
void FormatHourStamp(char* buffer, std::size_t size);
// Minute stamp: "2007-05-14 09 05".
void FormatMinuteStamp(char* buffer, std::size_t size);

// Directory of the hourly TPM traffic files (the service's log directory), set at start-up. While
// it is empty no traffic file is written.
void SetTrafficLogDirectory(std::string directory);
// Full name of the traffic file for the current hour:
// <directory>/LogTransDataWithTpm<hour stamp>.txt.
std::string TrafficLogFileName();

// Direction codes of a traffic record.
inline constexpr int kTrafficReceive = 0;
inline constexpr int kTrafficSend = 1;
inline constexpr int kTrafficText = 2;

// Appends one record to the current hour's traffic file while needLog is on: a command before it is
// sent (kTrafficSend), a response after it arrives (kTrafficReceive), or a text line (kTrafficText,
// `data` taken as a zero-terminated string, `length` ignored). A null `data` counts as no bytes (or
// an empty text). The file is opened, written, flushed and closed per record. When it cannot be
// opened, an error event "Open File failed" naming the file is reported, once per file name.
// Callers hold the TPM lock.
void LogTransDataWithTpm(UINT32 length, const BYTE* data, int direction);

// Event types as the host's event log knows them.
inline constexpr int kEventSuccess = 0;
inline constexpr int kEventError = 1;
inline constexpr int kEventWarning = 2;
inline constexpr int kEventInformation = 4;

// Event type from the top two bits of an event code: 0 success, 1 information, 2 warning, 3 error.
// TCS result codes (0xE028xxxx) are therefore errors.
int EventTypeFromCode(UINT32 eventCode);

// One service event as the host's event log receives it.
struct ServiceEvent {
  int type;  // 0 success, 1 error, 2 warning, 4 information (from the top two bits of the code)
  UINT16 category;
  UINT32 eventCode;
  std::vector<std::string> strings;
};
using EventSink = std::function<void(const ServiceEvent& event)>;
// Installs the event sink; an empty function restores the default, one line on stderr. The host
// installs its system event log at start.
void SetEventSink(EventSink sink);

// Writes one entry to the event log under the identifier "KestTCS", whatever needLog says. Null
// entries of `strings` count as empty strings; a null `strings` as none.
void ReportServiceEvent(UINT32 eventCode, UINT16 category, UINT16 stringCount,
                        const char* const* strings);

// Sends a raw line to the trace sink whatever needLog says; for the few texts the host's event and
// debug paths write directly. A line end is appended.
void WriteDebugLine(std::string_view text);

}  // namespace kesttcs
