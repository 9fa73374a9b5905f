// Where the Windows client library finds the service: an endpoint text as the RPC runtime's
// protocol sequence, network address and endpoint.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kesttcs::client {

// The service's local endpoint when nothing else is said.
inline constexpr char kDefaultWindowsEndpoint[] = "ncalrpc:KestTCS";

struct RpcEndpoint {
  std::string protseq;
  std::string network;  // empty: this machine
  std::string endpoint;
};

// "ncalrpc:NAME", "np:\pipe\NAME" (also "ncacn_np:..."), "tcp:HOST:PORT" or "tcp:PORT" (also
// "ncacn_ip_tcp:..."); nullopt for anything else or an empty name.
std::optional<RpcEndpoint> ParseEndpoint(std::string_view text);

}  // namespace kesttcs::client
