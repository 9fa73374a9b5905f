// KestTcs_GetSessionTable, KestTcs_GetPowerState and KestTcs_GetKeyCache: each one call of the
// service-state interface on a connection of its own.
#include <kesttcs/tcs_service_state.h>

#include <cstdlib>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "client/connection.h"
#include "rpc/service_state_wire.h"

namespace {

// Calls `opnum` and hands its answer to `read`; the call's result, or TCS_E_COMM_FAILURE when the
// service cannot be reached or the answer does not read.
template <class Read>
TSS_RESULT CallServiceState(uint16_t opnum, Read read) {
  using namespace kesttcs;
  dcerpc::Client connection;
  const std::string endpoint = client::ProcessEndpoint();
  uint32_t status =
      client::OpenConnection(connection, endpoint.c_str(), rpc::ServiceStateInterfaceSyntax());
  std::vector<uint8_t> response;
  dcerpc::ByteOrder order = dcerpc::ByteOrder::kLittle;
  if (status == dcerpc::kRpcOk) status = connection.Call(opnum, {}, response, &order);
  connection.Close();
  client::SetLastRpcStatus(status);
  if (status != dcerpc::kRpcOk) return TCS_E_COMM_FAILURE;
  dcerpc::NdrReader reader(response, order);
  TSS_RESULT result = TSS_SUCCESS;
  if (!read(reader, &result)) {
    client::SetLastRpcStatus(dcerpc::kRpcProtocolError);
    return TCS_E_COMM_FAILURE;
  }
  return result;
}

}  // namespace

extern "C" TSS_RESULT KestTcs_GetSessionTable(KESTTCS_SESSION_TABLE* table) {
  using namespace kesttcs;
  if (table == nullptr) return TCS_E_BAD_PARAMETER;
  return CallServiceState(rpc::kGetSessionTableOpnum,
                          [table](dcerpc::NdrReader& reader, TSS_RESULT* result) {
                            return rpc::ReadSessionTable(reader, table, result);
                          });
}

extern "C" TSS_RESULT KestTcs_GetPowerState(KESTTCS_POWER_STATE* state) {
  using namespace kesttcs;
  if (state == nullptr) return TCS_E_BAD_PARAMETER;
  return CallServiceState(rpc::kGetPowerStateOpnum,
                          [state](dcerpc::NdrReader& reader, TSS_RESULT* result) {
                            return rpc::ReadPowerState(reader, state, result);
                          });
}

extern "C" TSS_RESULT KestTcs_GetKeyCache(KESTTCS_KEY_CACHE* cache) {
  using namespace kesttcs;
  if (cache == nullptr) return TCS_E_BAD_PARAMETER;
  *cache = {};
  return CallServiceState(rpc::kGetKeyCacheOpnum,
                          [cache](dcerpc::NdrReader& reader, TSS_RESULT* result) {
                            return rpc::ReadKeyCache(reader, cache, result);
                          });
}

extern "C" void KestTcs_FreeKeyCache(KESTTCS_KEY_CACHE* cache) {
  if (cache == nullptr) return;
  std::free(cache->entries);
  *cache = {};
}
