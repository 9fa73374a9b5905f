// kesttcs-cli's own reader of the registered-key file "KestData.dat", written from its description
// in docs/formats.md, so that `keys check` can judge a file without the service: the checksum, and
// every record slot against the format's rules.
#pragma once

#include <span>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

struct KestDataReport {
  bool empty = false;  // a file without any byte: storage that never held a key
  UINT32 storedChecksum = 0;
  UINT32 computedChecksum = 0;
  UINT32 recordCount = 0;  // the count in the header
  UINT32 validRecords = 0;
  UINT32 deletedRecords = 0;
  // What breaks the format's rules, one line each ("record 2 at offset 226: ..."); the checksum is
  // not among them.
  std::vector<std::string> problems;

  bool checksumMatches() const { return empty || storedChecksum == computedChecksum; }
};

// Reads a whole file's bytes. Record slots are followed only while they lie within the file.
KestDataReport CheckKestData(std::span<const BYTE> file);

}  // namespace kesttcs::cli
