#include "rpc/service_state_wire.h"

#include <cstdlib>

#include "rpc/dcerpc/pdu.h"

namespace kesttcs::rpc {
namespace {

constexpr size_t kKeyCacheEntryBytes = 40;

void WriteUint64(uint64_t value, dcerpc::NdrWriter& writer) {
  writer.WriteUint32(static_cast<uint32_t>(value));
  writer.WriteUint32(static_cast<uint32_t>(value >> 32));
}

bool ReadUint64(dcerpc::NdrReader& reader, uint64_t* value) {
  uint32_t low = 0, high = 0;
  if (!reader.ReadUint32(low) || !reader.ReadUint32(high)) return false;
  *value = (uint64_t{high} << 32) | low;
  return true;
}

void WriteUuid(const TSS_UUID& uuid, dcerpc::NdrWriter& writer) {
  writer.WriteUint32(uuid.ulTimeLow);
  writer.WriteUint16(uuid.usTimeMid);
  writer.WriteUint16(uuid.usTimeHigh);
  writer.WriteUint8(uuid.bClockSeqHigh);
  writer.WriteUint8(uuid.bClockSeqLow);
  for (BYTE b : uuid.rgbNode) writer.WriteUint8(b);
}

bool ReadUuid(dcerpc::NdrReader& reader, TSS_UUID* uuid) {
  bool ok = reader.ReadUint32(uuid->ulTimeLow) && reader.ReadUint16(uuid->usTimeMid) &&
            reader.ReadUint16(uuid->usTimeHigh) && reader.ReadUint8(uuid->bClockSeqHigh) &&
            reader.ReadUint8(uuid->bClockSeqLow);
  for (BYTE& b : uuid->rgbNode) ok = ok && reader.ReadUint8(b);
  return ok;
}

bool ReadKeyCacheEntry(dcerpc::NdrReader& reader, KESTTCS_KEY_CACHE_ENTRY* entry) {
  uint32_t registered = 0;
  const bool ok = reader.ReadUint32(entry->tcsKeyHandle) && reader.ReadUint32(entry->state) &&
                  reader.ReadUint32(entry->tpmHandle) &&
                  reader.ReadUint32(entry->parentTcsHandle) && reader.ReadUint32(entry->refCount) &&
                  reader.ReadUint32(registered) && ReadUuid(reader, &entry->uuid);
  entry->registered = static_cast<TSS_BOOL>(registered);
  return ok && entry->state <= KESTTCS_KEY_UNLOADED && registered <= 1;
}

}  // namespace

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

void WriteKeyCache(const KESTTCS_KEY_CACHE& cache, TSS_RESULT result, dcerpc::NdrWriter& writer) {
  WriteUint64(cache.swapOuts, writer);
  WriteUint64(cache.swapIns, writer);
  writer.WriteUint32(cache.count);
  for (UINT32 i = 0; i < cache.count; ++i) {
    const KESTTCS_KEY_CACHE_ENTRY& e = cache.entries[i];
    for (uint32_t field : {e.tcsKeyHandle, e.state, e.tpmHandle, e.parentTcsHandle, e.refCount,
                           uint32_t{e.registered}}) {
      writer.WriteUint32(field);
    }
    WriteUuid(e.uuid, writer);
  }
  writer.WriteUint32(result);
}

bool ReadKeyCache(dcerpc::NdrReader& reader, KESTTCS_KEY_CACHE* cache, TSS_RESULT* result) {
  KESTTCS_KEY_CACHE read{};
  if (!ReadUint64(reader, &read.swapOuts) || !ReadUint64(reader, &read.swapIns) ||
      !reader.ReadUint32(read.count)) {
    return false;
  }
  // Exactly the entries and the result, checked before anything is allocated.
  if (reader.remaining() % kKeyCacheEntryBytes != sizeof(uint32_t) ||
      reader.remaining() / kKeyCacheEntryBytes != read.count) {
    return false;
  }
  if (read.count != 0) {
    read.entries = static_cast<KESTTCS_KEY_CACHE_ENTRY*>(
        std::calloc(read.count, sizeof(KESTTCS_KEY_CACHE_ENTRY)));
    if (read.entries == nullptr) return false;
  }
  bool ok = true;
  for (UINT32 i = 0; ok && i < read.count; ++i) ok = ReadKeyCacheEntry(reader, &read.entries[i]);
  uint32_t code = 0;
  ok = ok && reader.ReadUint32(code) && reader.remaining() == 0;
  if (!ok) {
    std::free(read.entries);
    return false;
  }
  *cache = read;
  *result = code;
  return true;
}

}  // namespace kesttcs::rpc
