// The service's key cache as `kesttcs-cli keys loaded` shows it: one line (or JSON object) per
// cached key with its TCS handle, where it is (a TPM slot, "swapped" or "not loaded"), its parent,
// its references and its UUID when registered, and the swap counters.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_service_state.h>

namespace kesttcs::cli {

// "0x%08x" of the slot while resident, else "swapped" or "not loaded".
std::string KeySlotText(const KESTTCS_KEY_CACHE_ENTRY& entry);

// A header line with the counts, a column title line, then one line per key in the service's
// order (newest first); "-" for no parent and for no UUID.
std::string KeyCacheText(const KESTTCS_KEY_CACHE& cache);

// {"swap_outs", "swap_ins", "keys": [{"tcs_handle", "tpm_slot", "state", "parent",
// "references", "uuid"}]}; "parent" and "uuid" are null when there is none.
nlohmann::ordered_json KeyCacheJson(const KESTTCS_KEY_CACHE& cache);

}  // namespace kesttcs::cli
