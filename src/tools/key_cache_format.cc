#include "tools/key_cache_format.h"

#include <cinttypes>
#include <cstdio>

#include "tools/key_format.h"

namespace kesttcs::cli {
namespace {

constexpr TCS_KEY_HANDLE kNoParent = 0xFFFFFFFF;

std::string HandleText(UINT32 handle) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", handle);
  return text;
}

const char* StateName(UINT32 state) {
  switch (state) {
    case KESTTCS_KEY_RESIDENT:
      return "resident";
    case KESTTCS_KEY_SWAPPED:
      return "swapped";
    default:
      return "unloaded";
  }
}

}  // namespace

std::string KeySlotText(const KESTTCS_KEY_CACHE_ENTRY& entry) {
  if (entry.state == KESTTCS_KEY_RESIDENT) return HandleText(entry.tpmHandle);
  return entry.state == KESTTCS_KEY_SWAPPED ? "swapped" : "not loaded";
}

std::string KeyCacheText(const KESTTCS_KEY_CACHE& cache) {
  char line[160];
  std::snprintf(line, sizeof(line),
                "%u keys cached; %" PRIu64 " swapped out and %" PRIu64
                " swapped in since the service started\n",
                cache.count, cache.swapOuts, cache.swapIns);
  std::string text = line;
  std::snprintf(line, sizeof(line), "%-12s %-12s %-12s %4s  %s\n", "TCS handle", "TPM slot",
                "parent", "refs", "UUID");
  text += line;
  for (UINT32 i = 0; i < cache.count; ++i) {
    const KESTTCS_KEY_CACHE_ENTRY& e = cache.entries[i];
    const std::string parent = e.parentTcsHandle == kNoParent ? "-" : HandleText(e.parentTcsHandle);
    const std::string uuid = e.registered ? UuidText(e.uuid) : "-";
    std::snprintf(line, sizeof(line), "%-12s %-12s %-12s %4u  %s\n",
                  HandleText(e.tcsKeyHandle).c_str(), KeySlotText(e).c_str(), parent.c_str(),
                  e.refCount, uuid.c_str());
    text += line;
  }
  return text;
}

nlohmann::ordered_json KeyCacheJson(const KESTTCS_KEY_CACHE& cache) {
  nlohmann::ordered_json keys = nlohmann::ordered_json::array();
  for (UINT32 i = 0; i < cache.count; ++i) {
    const KESTTCS_KEY_CACHE_ENTRY& e = cache.entries[i];
    keys.push_back({{"tcs_handle", HandleText(e.tcsKeyHandle)},
                    {"tpm_slot", KeySlotText(e)},
                    {"state", StateName(e.state)},
                    {"parent", e.parentTcsHandle == kNoParent
                                   ? nlohmann::ordered_json()
                                   : nlohmann::ordered_json(HandleText(e.parentTcsHandle))},
                    {"references", e.refCount},
                    {"uuid", e.registered ? nlohmann::ordered_json(UuidText(e.uuid))
                                          : nlohmann::ordered_json()}});
  }
  return {{"swap_outs", cache.swapOuts}, {"swap_ins", cache.swapIns}, {"keys", keys}};
}

}  // namespace kesttcs::cli
