// How the Windows client library reads an endpoint text (the parser is plain C++, so it is checked
// here rather than under Wine).
#include <gtest/gtest.h>

#include "client/windows/endpoint.h"

namespace kesttcs::client {
namespace {

void ExpectEndpoint(std::string_view text, const char* protseq, const char* network,
                    const char* endpoint) {
  const std::optional<RpcEndpoint> parsed = ParseEndpoint(text);
  ASSERT_TRUE(parsed.has_value()) << text;
  EXPECT_EQ(parsed->protseq, protseq) << text;
  EXPECT_EQ(parsed->network, network) << text;
  EXPECT_EQ(parsed->endpoint, endpoint) << text;
}

TEST(WindowsEndpoint, NamesEachProtocolSequence) {
  ExpectEndpoint(kDefaultWindowsEndpoint, "ncalrpc", "", "KestTCS");
  ExpectEndpoint("np:\\pipe\\KestTCS", "ncacn_np", "", "\\pipe\\KestTCS");
  ExpectEndpoint("ncacn_np:\\pipe\\Other", "ncacn_np", "", "\\pipe\\Other");
  ExpectEndpoint("tcp:30003", "ncacn_ip_tcp", "127.0.0.1", "30003");
  ExpectEndpoint("tcp:10.0.0.5:65535", "ncacn_ip_tcp", "10.0.0.5", "65535");
  ExpectEndpoint("ncacn_ip_tcp:host.example:1", "ncacn_ip_tcp", "host.example", "1");
}

TEST(WindowsEndpoint, RefusesWhatNoProtocolSequenceTakes) {
  for (std::string_view text : {"", "KestTCS", "/run/kesttcs/KestTCS", "unix:/tmp/KestTCS",
                                "ncalrpc:", "np:", "tcp:", "tcp:0", "tcp:65536", "tcp:123456",
                                "tcp:host:", "tcp::30003", "tcp:30x3"}) {
    EXPECT_FALSE(ParseEndpoint(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace kesttcs::client
