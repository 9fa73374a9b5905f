// Decoding of the answers kesttcs-cli shows, and its argument checks; kept apart from the
// connection so that tests reach them without a service.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// Lower-case hex of `bytes`, no separators.
std::string HexString(std::span<const BYTE> bytes);

// A 20-byte digest from exactly 40 hex digits (either case); nothing for anything else.
std::optional<TPM_DIGEST> ParseDigest(const std::string& hex);

// A decimal number in [min, max]; nothing for anything else (signs, blanks, other digits).
std::optional<UINT32> ParseNumber(const std::string& text, UINT32 min, UINT32 max);

// A number as TPM handles and indices are written: decimal, or hex with "0x"; nothing for anything
// else.
std::optional<UINT32> ParseHandle(const std::string& text);

// A TPM ordinal named by its TPM name ("TPM_ORD_GetRandom", or without the "TPM_ORD_" prefix) or
// by its number (decimal, or hex with "0x"); nothing for anything else.
std::optional<UINT32> ParseOrdinal(const std::string& text);

// The TPM name of `ordinal`, or "0x%08X" for an ordinal without one.
std::string OrdinalName(UINT32 ordinal);

// The name of a result: the service's results, TPM codes passed through, and the client
// authorisation helper's own codes (KESTTCS_AUTH_E_*); "UNKNOWN" for anything else.
const char* ResultCodeName(TSS_RESULT code);

// The whole content of the file at `path`; nothing when it cannot be read.
std::optional<std::vector<BYTE>> ReadWholeFile(const std::string& path);

// Big-endian UINT32 from an answer of 1 to 4 bytes; nothing for another length.
std::optional<UINT32> BigEndianNumber(std::span<const BYTE> answer);

// "major.minor.revMajor.revMinor" from a TPM_CAP_VERSION_VAL answer (TPM_CAP_VERSION_INFO: tag,
// then the version at offset 2) or a TPM_CAP_VERSION answer (the 4-byte version); nothing when
// the answer is too short.
std::optional<std::string> VersionFromVersionInfo(std::span<const BYTE> answer);
std::optional<std::string> VersionFromVersion(std::span<const BYTE> answer);

// A 4-byte manufacturer identifier as text: printable characters kept, a trailing zero dropped,
// anything else as \xNN.
std::string ManufacturerText(std::span<const BYTE> answer);

// The service's power state as administrators read it: "running", "held for sleep", "resuming";
// "unknown" for any other value.
std::string PowerStateText(UINT32 state);
// A time in seconds since the epoch as UTC "YYYY-MM-DD HH:MM:SS UTC"; "never" for 0.
std::string RestartTimeText(UINT64 secondsSinceEpoch);

// Text of a UTF-16LE string (ASCII characters kept, others as '?').
std::string Utf16LeText(std::span<const BYTE> answer);

}  // namespace kesttcs::cli
