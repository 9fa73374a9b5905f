#include "client/windows/endpoint.h"

namespace kesttcs::client {
namespace {

// `text` without the first of `prefixes` it starts with; nullopt when it starts with none.
std::optional<std::string_view> After(std::string_view text,
                                      std::initializer_list<std::string_view> prefixes) {
  for (std::string_view prefix : prefixes) {
    if (text.starts_with(prefix)) return text.substr(prefix.size());
  }
  return std::nullopt;
}

bool IsPort(std::string_view port) {
  if (port.empty() || port.size() > 5) return false;
  unsigned long n = 0;
  for (char c : port) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + static_cast<unsigned long>(c - '0');
  }
  return n > 0 && n < 65536;
}

}  // namespace

std::optional<RpcEndpoint> ParseEndpoint(std::string_view text) {
  std::optional<RpcEndpoint> parsed;
  if (auto name = After(text, {"ncalrpc:"})) {
    parsed = RpcEndpoint{"ncalrpc", "", std::string(*name)};
  } else if (auto pipe = After(text, {"np:", "ncacn_np:"})) {
    parsed = RpcEndpoint{"ncacn_np", "", std::string(*pipe)};
  } else if (auto tcp = After(text, {"tcp:", "ncacn_ip_tcp:"})) {
    const size_t colon = tcp->rfind(':');
    const std::string_view host =
        colon == std::string_view::npos ? "127.0.0.1" : tcp->substr(0, colon);
    const std::string_view port = colon == std::string_view::npos ? *tcp : tcp->substr(colon + 1);
    if (host.empty() || !IsPort(port)) return std::nullopt;
    parsed = RpcEndpoint{"ncacn_ip_tcp", std::string(host), std::string(port)};
  }
  if (!parsed || parsed->endpoint.empty()) return std::nullopt;
  return parsed;
}

}  // namespace kesttcs::client
