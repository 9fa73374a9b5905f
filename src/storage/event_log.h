// The PCR event log: for each PCR the TPM has, the ordered list of TSS_PCR_EVENT records that
// clients logged, handed out again as copies in the caller's context memory. The log lives in
// memory from event_log_init to event_log_final; with persistence attached (event_log_file.h) each
// appended event is also written to the events file.
//
// A PCR may instead be served by an outside event source (firmware or measurement events), chosen
// by two PCR bit masks. Both masks are empty and nothing sets them, so every PCR is served from
// memory; the source table exists without sources.
//
// Lock: the log mutex guards the lists and the attached file. While it is held only the context
// memory's mutex (a leaf) is taken, to hand out copies. Every operation first validates hContext
// (TCS_E_INVALID_CONTEXT unchanged).
#pragma once

#include <functional>
#include <span>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// The names the outside event sources are opened with.
inline constexpr char kFirmwareEventSourceName[] = "firmware_events";
inline constexpr char kMeasurementEventSourceName[] = "measurement_events";

// One logged event with deep copies of its two byte arrays. pcrValue holds ulPcrValueLength bytes
// when that is not 0; event holds ulEventLength bytes when that is positive as a signed value.
struct LoggedEvent {
  TSS_VERSION versionInfo{};
  UINT32 ulPcrIndex = 0;
  UINT32 eventType = 0;
  UINT32 ulPcrValueLength = 0;
  std::vector<BYTE> pcrValue;
  UINT32 ulEventLength = 0;
  std::vector<BYTE> event;
};

// An outside event source; every function returns 0 for success. getEvent with a null event
// stores the PCR's event count into *number.
struct EventSource {
  TSS_RESULT (*open)(const char* name, int* handle);
  TSS_RESULT(*getEventsByPcr)
  (int handle, UINT32 pcrIndex, UINT32 firstEvent, UINT32* eventCount,
   std::vector<LoggedEvent>* events);
  TSS_RESULT (*getEvent)(int handle, UINT32 pcrIndex, UINT32* number, LoggedEvent* event);
  TSS_RESULT (*close)(int handle);
};

// The deep copy of `e`, or TCS_E_BAD_PARAMETER when a length asks for data behind a null pointer.
[[nodiscard]] TSS_RESULT CopyEvent(const TSS_PCR_EVENT& e, LoggedEvent* copy);

// Creates the log with one empty list per PCR for `pcrCount` PCRs. A second call while the log
// exists does nothing. Returns 0, or TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT event_log_init(UINT32 pcrCount);

// Detaches the events file and frees every record and the log. Returns 0.
[[nodiscard]] TSS_RESULT event_log_final();

// Called under the log mutex with each event right after it was appended; persistence writes it
// to the events file. Set while no call runs (start-up); an empty function detaches.
using EventAppended = std::function<void(const LoggedEvent& event)>;
void event_log_set_append_hook(EventAppended hook);

// Appends already-logged events (a replayed events file) without calling the append hook. Returns
// 0, TCS_E_BAD_PARAMETER when one names a PCR at or above the count (nothing appended), or
// TCS_E_INTERNAL_ERROR when the log does not exist.
[[nodiscard]] TSS_RESULT event_log_restore(std::span<const LoggedEvent> events);

// Appends a deep copy of Event to its PCR's list; *pNumber becomes that PCR's event count after
// the append (1 for its first event). Returns 0; TCS_E_BAD_PARAMETER for a PCR index at or above
// the count, a null pNumber or data lengths without data; TCS_E_FAIL for a PCR served by an
// outside source; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_LogPcrEvent_Internal(TCS_CONTEXT_HANDLE hContext,
                                                   const TSS_PCR_EVENT& Event, UINT32* pNumber);

// With a null ppEvent: *pNumber becomes the number of events of PcrIndex. Otherwise *ppEvent
// becomes a copy of the event at position *pNumber (from 0). Returns 0; TCS_E_BAD_PARAMETER for a
// PCR index at or above the count, a position past the end or a null pNumber; TCS_E_INTERNAL_ERROR
// when an outside source fails; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_GetPcrEvent_Internal(TCS_CONTEXT_HANDLE hContext, UINT32 PcrIndex,
                                                   UINT32* pNumber, TSS_PCR_EVENT** ppEvent);

// The events FirstEvent .. end - 1 of PcrIndex, where end is the smaller of the PCR's event count
// and *pEventCount (the given count is an end position, not a number of events after
// FirstEvent). *pEventCount becomes end - FirstEvent; with end 0 it is 0 and *ppEvents null.
// Returns 0; TCS_E_BAD_PARAMETER for a PCR index at or above the count or FirstEvent > end;
// TCS_E_INTERNAL_ERROR when an outside source fails; TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_GetPcrEventsByPcr_Internal(TCS_CONTEXT_HANDLE hContext,
                                                         UINT32 PcrIndex, UINT32 FirstEvent,
                                                         UINT32* pEventCount,
                                                         TSS_PCR_EVENT** ppEvents);

// Every event, PCR 0's list first and each list in logging order; an empty log gives count 0 and
// a null array. Returns 0, TCS_E_BAD_PARAMETER for null outputs, or TCS_E_OUTOFMEMORY.
[[nodiscard]] TSS_RESULT Tcsi_GetPcrEventLog_Internal(TCS_CONTEXT_HANDLE hContext,
                                                      UINT32* pEventCount,
                                                      TSS_PCR_EVENT** ppEvents);

}  // namespace kesttcs
