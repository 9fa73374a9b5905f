// Arbitrary bytes as the PCR event log's file "events.log": parsing, then the replay check against
// a TPM whose PCRs hold what the parsed events give, and each record written again, which must be
// the bytes it was read from. No crash, no read outside the buffer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include <kesttcs/tcs_results.h>

#include "storage/event_log_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kesttcs;
  const std::span<const uint8_t> bytes(data, size);
  const std::optional<ParsedEventsFile> parsed = ParseEventsFile(bytes);
  if (!parsed) return 0;
  if (parsed->wholeLength > size) abort();
  std::vector<BYTE> again = EventsFileHeader();
  for (const LoggedEvent& e : parsed->events) {
    const std::vector<BYTE> record = EncodeEventRecord(e);
    again.insert(again.end(), record.begin(), record.end());
  }
  if (again.size() != parsed->wholeLength || !std::equal(again.begin(), again.end(), data)) abort();
  static_cast<void>(FirstMismatchingPcr(parsed->events, [](UINT32, TPM_PCRVALUE* value) {
    *value = TPM_PCRVALUE{};
    return TSS_SUCCESS;
  }));
  return 0;
}
