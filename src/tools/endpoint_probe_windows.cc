#include "tools/endpoint_probe.h"

namespace kesttcs::cli {

const char kDefaultEndpoint[] = "ncalrpc:KestTCS";

std::string EndpointProblem(const std::string&) { return {}; }

}  // namespace kesttcs::cli
