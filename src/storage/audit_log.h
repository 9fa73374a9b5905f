// The audit log: the text file "Audit.log" in the service's audit directory, where the service
// records, for every command whose ordinal is audited (audit_list.h), the command bytes sent and
// the response bytes received, and the audit digests the TPM reports. Older logs are kept beside it
// as "Audit<stamp>.log". The format, byte for byte, is in docs/formats.md.
//
// Each record opens the file for appending, writes and closes it. Lock: the audit file mutex, a
// leaf, serialises records and guards the directory; the request manager writes under the TPM
// lock.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Record kinds of auditLog_write; any other kind writes nothing.
inline constexpr int kAuditComment = 0;       // the bytes are the comment text
inline constexpr int kAuditData = 1;          // command (sent) or response bytes, time-stamped
inline constexpr int kAuditDigest = 2;        // the audit digest as 40 hex characters
inline constexpr int kAuditDigestSigned = 3;  // the 20-byte digest of a signed audit digest

inline constexpr char kAuditLogFileName[] = "Audit.log";

// Starts the audit log in `directory` with an empty audited list and has the request manager
// write a record before and after each exchange of an audited ordinal.
void audit_log_init(const std::string& directory);

// Stops the request manager's records, empties the list and forgets the directory.
void audit_log_final();

// Appends one record of `kind` with `length` bytes from `data` (a null `data` counts as no bytes).
// `sent` chooses the header of a kAuditData record. When the file cannot be opened (no directory,
// or before audit_log_init) "Open Audit log file error." is traced and nothing else happens.
void auditLog_write(int kind, UINT32 length, const BYTE* data, bool sent);

// Moves an existing Audit.log to "Audit<compact stamp>.log" in the same directory, so that the
// next record starts a new file. Nothing when there is no Audit.log.
void auditLog_rotate();

}  // namespace kesttcs
