#include "rpc/service_state.h"

#include <kesttcs/tcs_results.h>

#include <cstring>

#include "keys/auth_mgr.h"
#include "keys/mem_cache_snapshot.h"
#include "rpc/dcerpc/pdu.h"
#include "rpc/service_state_wire.h"
#include "storage/persistent_storage.h"
#include "tpm/power_state.h"
#include "tpm/tpm_cmds.h"

namespace kesttcs::rpc {
namespace {

KESTTCS_SESSION_TABLE SessionTable() {
  const AuthTableSnapshot snapshot = auth_mgr_snapshot();
  KESTTCS_SESSION_TABLE table{};
  table.maxSessions = snapshot.maxSessions < 0 ? 0 : static_cast<UINT32>(snapshot.maxSessions);
  for (const auth_session& entry : snapshot.entries) {
    if (entry.inUse == 0) continue;
    table.sessions[table.count++] = {entry.hContext, entry.authHandle};
  }
  return table;
}

KESTTCS_POWER_STATE PowerStateNow() {
  return {static_cast<UINT32>(CurrentPowerState()), LastTpmStartupTime()};
}

bool IsNullUuid(const TSS_UUID& uuid) {
  static constexpr TSS_UUID kNull{};
  return std::memcmp(&uuid, &kNull, sizeof uuid) == 0;
}

UINT32 KeyState(const KeyCacheRow& row) {
  if (row.inTpm && row.tpmHandle != kNoTpmHandle) return KESTTCS_KEY_RESIDENT;
  return row.contextSaved && row.tpmHandle != kNoTpmHandle ? KESTTCS_KEY_SWAPPED
                                                           : KESTTCS_KEY_UNLOADED;
}

// One row as the tools see it. Storage is asked after the cache mutex is released (storage comes
// before the cache); a key registered after it was loaded is found by its public key, and one the
// cache itself names (the SRK built from the TPM) keeps the cache's UUID.
KESTTCS_KEY_CACHE_ENTRY KeyCacheEntry(const KeyCacheRow& row) {
  KESTTCS_KEY_CACHE_ENTRY entry{};
  entry.tcsKeyHandle = row.tcsKeyHandle;
  entry.state = KeyState(row);
  entry.tpmHandle = entry.state == KESTTCS_KEY_RESIDENT ? row.tpmHandle : KESTTCS_NO_SLOT;
  entry.parentTcsHandle = row.parentTcsHandle;
  entry.refCount = row.refCount < 0 ? 0 : static_cast<UINT32>(row.refCount);
  const std::optional<TSS_UUID> stored = getUUIDByPub(row.modulus);
  if (stored || !IsNullUuid(row.uuid)) {
    entry.registered = 1;
    entry.uuid = stored.value_or(row.uuid);
  }
  return entry;
}

void WriteKeyCacheNow(dcerpc::NdrWriter& writer) {
  const std::vector<KeyCacheRow> rows = mem_cache_snapshot();
  std::vector<KESTTCS_KEY_CACHE_ENTRY> entries;
  entries.reserve(rows.size());
  for (const KeyCacheRow& row : rows) entries.push_back(KeyCacheEntry(row));
  const KeySwapCounts swaps = keySwapCounts();
  const KESTTCS_KEY_CACHE cache{swaps.swapOuts, swaps.swapIns, static_cast<UINT32>(entries.size()),
                                entries.data()};
  WriteKeyCache(cache, TSS_SUCCESS, writer);
}

}  // namespace

uint32_t DispatchServiceStateCall(const dcerpc::CallInfo& /*info*/, uint16_t opnum,
                                  std::span<const uint8_t> stub_in,
                                  std::vector<uint8_t>& stub_out) {
  if (opnum != kGetSessionTableOpnum && opnum != kGetPowerStateOpnum &&
      opnum != kGetKeyCacheOpnum) {
    return dcerpc::kNcaOpRangeError;
  }
  if (!stub_in.empty()) return dcerpc::kRpcBadStubData;
  dcerpc::NdrWriter writer(stub_out);
  if (opnum == kGetSessionTableOpnum) {
    WriteSessionTable(SessionTable(), TSS_SUCCESS, writer);
  } else if (opnum == kGetPowerStateOpnum) {
    WritePowerState(PowerStateNow(), TSS_SUCCESS, writer);
  } else {
    WriteKeyCacheNow(writer);
  }
  return 0;
}

}  // namespace kesttcs::rpc
