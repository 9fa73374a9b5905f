// KestTcs_GetSessionTable: one call of the service-state interface on a connection of its own.
#include <kesttcs/tcs_service_state.h>

#include <vector>

#include <kesttcs/tcs_results.h>

#include "client/connection.h"
#include "rpc/service_state_wire.h"

extern "C" TSS_RESULT KestTcs_GetSessionTable(KESTTCS_SESSION_TABLE* table) {
  using namespace kesttcs;
  if (table == nullptr) return TCS_E_BAD_PARAMETER;
  dcerpc::Client connection;
  const std::string endpoint = client::ProcessEndpoint();
  uint32_t status =
      client::OpenConnection(connection, endpoint.c_str(), rpc::ServiceStateInterfaceSyntax());
  std::vector<uint8_t> response;
  dcerpc::ByteOrder order = dcerpc::ByteOrder::kLittle;
  if (status == dcerpc::kRpcOk) {
    status = connection.Call(rpc::kGetSessionTableOpnum, {}, response, &order);
  }
  connection.Close();
  client::SetLastRpcStatus(status);
  if (status != dcerpc::kRpcOk) return TCS_E_COMM_FAILURE;
  dcerpc::NdrReader reader(response, order);
  TSS_RESULT result = TSS_SUCCESS;
  if (!rpc::ReadSessionTable(reader, table, &result)) {
    client::SetLastRpcStatus(dcerpc::kRpcProtocolError);
    return TCS_E_COMM_FAILURE;
  }
  return result;
}
