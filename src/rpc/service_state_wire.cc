#include "rpc/service_state_wire.h"

#include "rpc/dcerpc/pdu.h"

namespace kesttcs::rpc {

dcerpc::SyntaxId ServiceStateInterfaceSyntax() {
  return {*dcerpc::Uuid::Parse("9ccb2d7d-6d71-404d-b4ee-bfa5d8e3884e"), 1, 0};
}

void WriteSessionTable(const KESTTCS_SESSION_TABLE& table, TSS_RESULT result,
                       dcerpc::NdrWriter& writer) {
  writer.WriteUint32(table.maxSessions);
  writer.WriteUint32(table.count);
  for (const KESTTCS_SESSION_INFO& session : table.sessions) {
    writer.WriteUint32(session.hContext);
    writer.WriteUint32(session.authHandle);
  }
  writer.WriteUint32(result);
}

bool ReadSessionTable(dcerpc::NdrReader& reader, KESTTCS_SESSION_TABLE* table, TSS_RESULT* result) {
  KESTTCS_SESSION_TABLE read{};
  uint32_t code = 0;
  bool ok = reader.ReadUint32(read.maxSessions) && reader.ReadUint32(read.count);
  for (KESTTCS_SESSION_INFO& session : read.sessions) {
    ok = ok && reader.ReadUint32(session.hContext) && reader.ReadUint32(session.authHandle);
  }
  ok = ok && reader.ReadUint32(code) && reader.remaining() == 0;
  if (!ok || read.count > KESTTCS_SESSION_TABLE_SIZE) return false;
  *table = read;
  *result = code;
  return true;
}

void WritePowerState(const KESTTCS_POWER_STATE& state, TSS_RESULT result,
                     dcerpc::NdrWriter& writer) {
  writer.WriteUint32(state.state);
  writer.WriteUint32(static_cast<uint32_t>(state.lastTpmRestart));
  writer.WriteUint32(static_cast<uint32_t>(state.lastTpmRestart >> 32));
  writer.WriteUint32(result);
}

bool ReadPowerState(dcerpc::NdrReader& reader, KESTTCS_POWER_STATE* state, TSS_RESULT* result) {
  uint32_t power = 0, low = 0, high = 0, code = 0;
  const bool ok = reader.ReadUint32(power) && reader.ReadUint32(low) && reader.ReadUint32(high) &&
                  reader.ReadUint32(code) && reader.remaining() == 0;
  if (!ok || power > KESTTCS_POWER_RESUMING) return false;
  state->state = power;
  state->lastTpmRestart = (uint64_t{high} << 32) | low;
  *result = code;
  return true;
}

}  // namespace kesttcs::rpc
