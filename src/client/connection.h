// How the client library reaches the service: the endpoint rules and the calling thread's last
// RPC status, shared by the TCS proxies and the service-state reader.
#pragma once

#include <cstdint>
#include <string>

#include "rpc/dcerpc/association.h"
#include "rpc/dcerpc/client.h"

namespace kesttcs::client {

// Connects `client` to `endpoint` (a socket path, "unix:PATH" or "tcp:127.0.0.1:PORT"; null or
// empty: $KESTTCS_ENDPOINT, else the default socket) and binds `syntax`. The RPC status.
uint32_t OpenConnection(dcerpc::Client& client, const char* endpoint,
                        const dcerpc::SyntaxId& syntax);

// The endpoint Tcs_Connect named (empty when it was not called or named none).
std::string ProcessEndpoint();

// Sets what Tcs_LastRpcStatus tells the calling thread.
void SetLastRpcStatus(uint32_t status);

}  // namespace kesttcs::client
