// Diagnostic outputs of the service: trace lines (only while needLog is on), the hourly file of raw
// TPM traffic (only while needLog is on), and service events (always). Where trace lines and events
// end up is chosen by the host through sinks; tests install capturing sinks.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The "needLog" switch read from the configuration at start-up. Off by default.
bool NeedLog();
void SetNeedLog(bool on);

// Receives one finished trace line ("TCS:...\n", at most 255 characters). Called from any thread.
using TraceSink = std::function<void(std::string_view line)>;
// Installs the trace sink; an empty function restores the default (stderr).
void SetTraceSink(TraceSink sink);

// Writes "TCS:<text>\n", or "TCS:<text> result = 0x%.8x\n" when pResult is not null, to the trace
// sink while needLog is on. A null text does nothing. Lines are cut to fit 256 bytes.
void TcsTrace(const char* text, const TSS_RESULT* pResult);

// printf-style trace: formats into a 256-byte buffer only while needLog is on, then TcsTrace(text,
// nullptr). Handlers use this so that nothing is formatted when logging is off.
void TcsTracef(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Directory of the hourly TPM traffic files (the service's log directory). Set at start-up.
void SetTrafficLogDirectory(std::string directory);

// Direction codes of a traffic record.
inline constexpr int kTrafficReceive = 0;
inline constexpr int kTrafficSend = 1;
inline constexpr int kTrafficText = 2;

// Appends one record to the current hour's traffic file while needLog is on: a command before it is
// sent (kTrafficSend), a response after it arrives (kTrafficReceive), or a text line (kTrafficText,
// `data` taken as a zero-terminated string, `length` ignored). Callers hold the TPM lock.
void LogTransDataWithTpm(UINT32 length, const BYTE* data, int direction);

// One service event as the host's event log receives it.
struct ServiceEvent {
  int type;  // 0 success, 1 error, 2 warning, 4 information (from the top two bits of the code)
  UINT16 category;
  UINT32 eventCode;
  std::vector<std::string> strings;
};
using EventSink = std::function<void(const ServiceEvent& event)>;
// Installs the event sink; an empty function restores the default (the journal, else syslog).
void SetEventSink(EventSink sink);

// Writes one entry to the event log under the identifier "KestTCS", whatever needLog says.
void ReportServiceEvent(UINT32 eventCode, UINT16 category, UINT16 stringCount,
                        const char* const* strings);

}  // namespace kesttcs
