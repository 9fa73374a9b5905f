// The service's endpoint as the command line names it, with a source per platform.
#pragma once

#include <string>

namespace kesttcs::cli {

// The endpoint when nothing else is said: the service's socket on Linux, its local RPC endpoint on
// Windows.
extern const char kDefaultEndpoint[];

// Why `endpoint` does not answer (a system error text), or empty when it may: on Windows the RPC
// runtime tells only at the first call.
std::string EndpointProblem(const std::string& endpoint);

}  // namespace kesttcs::cli
