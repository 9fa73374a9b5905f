// The server side of the service-state interface (wire form in rpc/service_state_wire.h): reads
// the managers' tables under their own locks and answers. It opens no context and sends nothing to
// the TPM.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "rpc/dcerpc/association.h"

namespace kesttcs::rpc {

// Serves one request of the interface (a dcerpc::InterfaceHandler): kNcaOpRangeError for an opnum
// it does not have, kRpcBadStubData for a request that carries stub data.
uint32_t DispatchServiceStateCall(const dcerpc::CallInfo& info, uint16_t opnum,
                                  std::span<const uint8_t> stub_in, std::vector<uint8_t>& stub_out);

}  // namespace kesttcs::rpc
