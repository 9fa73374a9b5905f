// The events file "data/events.log": with persistence switched on, every event appended to the PCR
// event log is also appended to this file, and at start-up the file is replayed into the new log
// when the TPM's PCRs still agree with it (the TPM was not reset since), so a restart of the
// service alone keeps the log. The format is in docs/formats.md.
//
// The file is written under the log mutex (event_log.h), one write per event and without a flush:
// a crash may lose the events in flight; a record cut short is dropped at the next start.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "storage/event_log.h"

namespace kesttcs {

inline constexpr char kEventsFileName[] = "/events.log";
// Where a file that no longer matches the TPM is set aside (an older one is replaced).
inline constexpr char kEventsBackupName[] = "/events.log.bak";
// The warning event reported when the events file is set aside; its text says why.
inline constexpr UINT32 kEventEventsFileSetAside = 0x80282002;

// The events file's bytes for an empty log, and for one more event.
std::vector<BYTE> EventsFileHeader();
std::vector<BYTE> EncodeEventRecord(const LoggedEvent& event);

// The whole records of an events file and how many bytes they take with the header; nullopt when
// the header is not an events file's. A record cut short at the end ends the list.
struct ParsedEventsFile {
  std::vector<LoggedEvent> events;
  size_t wholeLength = 0;
};
std::optional<ParsedEventsFile> ParseEventsFile(std::span<const BYTE> bytes);

// Reads the TPM's current value of PCR `pcrIndex`.
using PcrReader = std::function<TSS_RESULT(UINT32 pcrIndex, TPM_PCRVALUE* value)>;

// The first PCR whose events, their 20-byte digests extended one by one into a PCR of zeros, do
// not give the value `read` returns, or that cannot be read, or whose event has a digest of
// another length; nullopt when every PCR with events matches. PCRs without events are not read.
std::optional<UINT32> FirstMismatchingPcr(std::span<const LoggedEvent> events,
                                          const PcrReader& read);

// Replays the events file of `dataDir` into the log (which event_log_init created) when it
// matches the TPM, otherwise moves it to events.log.bak and reports kEventEventsFileSetAside;
// then attaches the file so that every event appended from now on is written to it. A missing file
// is created. Returns 0, or TCS_E_FAIL when the file cannot be opened or written.
[[nodiscard]] TSS_RESULT event_log_attach_file(const std::string& dataDir, const PcrReader& read);

}  // namespace kesttcs
