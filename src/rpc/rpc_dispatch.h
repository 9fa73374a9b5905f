// The server side of the TCS interface (rpc::TcsInterfaceSyntax()): the handler the DCE/RPC server
// calls for each request (unmarshal, ownership check, entry frame, marshal, release of the
// output blocks). rpc_service.h brings it up; tests call the handler directly.
//
// Output memory contract: every output block an internal function allocates with getSomeMemory is
// marshalled into the response and then released from its context's memory table
// (ctx_ReleaseMemory), because the client receives its own copy. Tcsi_FreeMemory over RPC thus
// finds nothing of those blocks left to free; it still validates the caller's context and answers
// as designed (0, or 0xE02820C1), and the client library frees its own copy locally.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "rpc/dcerpc/association.h"

namespace kesttcs {

// Serves one request of the TCS interface (the InterfaceHandler of dcerpc::Server): 0 with the
// response stub in `stub_out`, kNcaOpRangeError for an opnum of 126 or more, kRpcBadStubData for a
// stub that does not unmarshal (no handler runs then). Opnums 123 to 125 answer TCS_E_NOTIMPL
// without reading their stub.
uint32_t DispatchTcsCall(const dcerpc::CallInfo& info, uint16_t opnum,
                         std::span<const uint8_t> stub_in, std::vector<uint8_t>& stub_out);

// The TCP port the running server listens on, 0 when none (rpc_service.h's server).
uint16_t RpcServerTcpPort();

}  // namespace kesttcs
