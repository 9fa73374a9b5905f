#include "rpc/service_state.h"

#include <kesttcs/tcs_results.h>

#include "keys/auth_mgr.h"
#include "rpc/dcerpc/pdu.h"
#include "rpc/service_state_wire.h"
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

}  // namespace

uint32_t DispatchServiceStateCall(const dcerpc::CallInfo& /*info*/, uint16_t opnum,
                                  std::span<const uint8_t> stub_in,
                                  std::vector<uint8_t>& stub_out) {
  if (opnum != kGetSessionTableOpnum && opnum != kGetPowerStateOpnum) {
    return dcerpc::kNcaOpRangeError;
  }
  if (!stub_in.empty()) return dcerpc::kRpcBadStubData;
  dcerpc::NdrWriter writer(stub_out);
  if (opnum == kGetSessionTableOpnum) {
    WriteSessionTable(SessionTable(), TSS_SUCCESS, writer);
  } else {
    WritePowerState(PowerStateNow(), TSS_SUCCESS, writer);
  }
  return 0;
}

}  // namespace kesttcs::rpc
