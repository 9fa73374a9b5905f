#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/endpoint_probe.h"

namespace kesttcs::cli {

const char kDefaultEndpoint[] = "/run/kesttcs/KestTCS";

// Why a Unix socket path does not answer, or empty when it accepts a connection.
std::string EndpointProblem(const std::string& endpoint) {
  std::string path = endpoint;
  if (path.rfind("unix:", 0) == 0) path = path.substr(5);
  if (path.rfind("tcp:", 0) == 0) return {};  // left to the library
  sockaddr_un addr{};
  if (path.size() >= sizeof(addr.sun_path)) return "socket path too long";
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::strerror(errno);
  std::string problem;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    problem = std::strerror(errno);
  }
  close(fd);
  return problem;
}

}  // namespace kesttcs::cli
