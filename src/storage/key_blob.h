// What persistent storage reads from and makes of TPM_KEY blobs, in one place: the key blob's
// structure is the marshalling layer's business, and storage reaches it only through here.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "tpm12/tpm_structures.h"

namespace kesttcs {

// Unmarshals `blob` as a TCPA_KEY into *key. False when it does not parse.
[[nodiscard]] bool ParseKeyBlob(std::span<const BYTE> blob, TPM_KEY* key);

// A key's public data as a record stores it: its TPM_STORE_PUBKEY (4-byte big-endian key length,
// then the modulus). Nothing when it is longer than `limit` bytes.
std::optional<std::vector<BYTE>> MarshalPublicData(const TPM_KEY& key, std::size_t limit);

// `key` marshalled as a TCPA_KEY; nothing when it is longer than `limit` bytes.
std::optional<std::vector<BYTE>> MarshalKeyBlob(const TPM_KEY& key, std::size_t limit);

// The two facts a TSS_KM_KEYINFO takes from a key blob: its version (the first 4 bytes) and its
// authDataUsage (the byte at offset 10). Zero when the blob is too short to hold them.
struct KeyBlobFacts {
  TSS_VERSION version{};
  BYTE authDataUsage = 0;
};
KeyBlobFacts ReadKeyBlobFacts(std::span<const BYTE> blob);

}  // namespace kesttcs
