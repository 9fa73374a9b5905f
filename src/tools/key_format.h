// Registered keys as kesttcs-cli reads and shows them: UUIDs in their usual text form, and the
// names of a key's usage and authorisation rule.
#pragma once

#include <optional>
#include <span>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

// The SRK's UUID, {00000000-0000-0000-0000-000000000001}.
inline constexpr TSS_UUID kSrkUuid = {0, 0, 0, 0, 0, {0, 0, 0, 0, 0, 1}};

bool SameUuid(const TSS_UUID& a, const TSS_UUID& b);

// "0a0b0c0d-0e0f-1011-1213-141516171819": ulTimeLow, usTimeMid, usTimeHigh, the two clock
// sequence bytes, the six node bytes.
std::string UuidText(const TSS_UUID& uuid);

// A UUID in that form (either case, braces allowed), or "srk" for the SRK; nothing otherwise.
std::optional<TSS_UUID> ParseUuid(const std::string& text);

// The keyUsage of a TPM_KEY blob (big-endian at offset 4) by name: "signing", "storage",
// "identity", "authchange", "bind", "legacy", "migrate", else its hex value; "unknown" when the
// blob is too short.
std::string KeyUsageName(std::span<const BYTE> keyBlob);

// The public modulus of a TPM_KEY or TPM_KEY12 blob (the pubKey's bytes), or nothing when the blob
// is too short for the sizes it states.
std::optional<std::span<const BYTE>> KeyModulus(std::span<const BYTE> keyBlob);

// authDataUsage by name: "never", "always", "private-use-only", else its hex value.
std::string AuthDataUsageName(BYTE authDataUsage);

}  // namespace kesttcs::cli
