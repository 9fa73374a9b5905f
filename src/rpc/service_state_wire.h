// The wire form of the service-state interface: a second DCE/RPC interface on the service's
// endpoints through which administrators' tools read what the service holds. The server's handler
// (rpc/service_state.h) and the client library's reader both use what is written here.
//
// Opnum 0, the session table: no input; output maxSessions (UINT32), count (UINT32), then all 16
// entries as (hContext, authHandle) pairs of UINT32, those in use first in table order and the
// rest zero, then the result (TSS_RESULT).
// Opnum 1, the power state: no input; output state (UINT32), lastTpmRestart (UINT64 as two
// UINT32, low half first), then the result.
// Opnum 2, the key cache: no input; output swapOuts and swapIns (each UINT64 as two UINT32, low
// half first), count (UINT32), then `count` entries of 40 bytes each: tcsKeyHandle, state,
// tpmHandle, parentTcsHandle, refCount, registered (each UINT32), the UUID (ulTimeLow UINT32,
// usTimeMid and usTimeHigh UINT16, the two clock-sequence bytes and the six node bytes); then the
// result.
#pragma once

#include <cstdint>

#include <kesttcs/tcs_service_state.h>

#include "rpc/dcerpc/association.h"
#include "rpc/dcerpc/ndr.h"

namespace kesttcs::rpc {

inline constexpr uint16_t kGetSessionTableOpnum = 0;
inline constexpr uint16_t kGetPowerStateOpnum = 1;
inline constexpr uint16_t kGetKeyCacheOpnum = 2;

dcerpc::SyntaxId ServiceStateInterfaceSyntax();

// The session table and the result as they cross the wire. The reader fails on a count above the
// table's size.
void WriteSessionTable(const KESTTCS_SESSION_TABLE& table, TSS_RESULT result,
                       dcerpc::NdrWriter& writer);
[[nodiscard]] bool ReadSessionTable(dcerpc::NdrReader& reader, KESTTCS_SESSION_TABLE* table,
                                    TSS_RESULT* result);

// The power state and the result as they cross the wire. The reader fails on a state it does not
// know.
void WritePowerState(const KESTTCS_POWER_STATE& state, TSS_RESULT result,
                     dcerpc::NdrWriter& writer);
[[nodiscard]] bool ReadPowerState(dcerpc::NdrReader& reader, KESTTCS_POWER_STATE* state,
                                  TSS_RESULT* result);

// The key cache and the result as they cross the wire. The reader checks that the answer holds
// exactly `count` entries before it allocates them (with malloc, for KestTcs_FreeKeyCache), and
// fails on a state it does not know or a `registered` other than 0 or 1; on failure *cache is
// left as it was.
void WriteKeyCache(const KESTTCS_KEY_CACHE& cache, TSS_RESULT result, dcerpc::NdrWriter& writer);
[[nodiscard]] bool ReadKeyCache(dcerpc::NdrReader& reader, KESTTCS_KEY_CACHE* cache,
                                TSS_RESULT* result);

}  // namespace kesttcs::rpc
