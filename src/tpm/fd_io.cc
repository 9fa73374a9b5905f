#include "tpm/fd_io.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tpm/tpm_backend.h"
#include "tpm/tpm_bytes.h"

namespace kesttcs {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) Reset(other.Release());
  return *this;
}

int UniqueFd::Release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::Reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

bool WriteAll(int fd, std::span<const BYTE> data) {
  // On a socket whose peer has gone, send() reports EPIPE where write() would raise SIGPIPE.
  bool socket = true;
  while (!data.empty()) {
    ssize_t n = socket ? ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) : -1;
    if (n < 0 && errno == ENOTSOCK) socket = false;
    if (!socket) n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data = data.subspan(static_cast<size_t>(n));
  }
  return true;
}

bool ReadExact(int fd, std::span<BYTE> data) {
  while (!data.empty()) {
    ssize_t n = ::read(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data = data.subspan(static_cast<size_t>(n));
  }
  return true;
}

TSS_RESULT ReadTpmResponse(int fd, std::span<BYTE> out, UINT32* outLen) {
  *outLen = 0;
  if (out.size() < kTpmHeaderSize) return kDriverInsufficientBuffer;
  if (!ReadExact(fd, out.first(kTpmHeaderSize))) return kDriverIoError;
  UINT32 paramSize = PeekUINT32(out, 2);
  if (paramSize < kTpmHeaderSize || paramSize > out.size()) return kDriverInsufficientBuffer;
  if (!ReadExact(fd, out.subspan(kTpmHeaderSize, paramSize - kTpmHeaderSize))) {
    return kDriverIoError;
  }
  *outLen = paramSize;
  return TSS_SUCCESS;
}

UniqueFd ConnectUnix(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    *error = "socket path too long: " + path;
    return UniqueFd();
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid() ||
      ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    *error = "cannot connect to " + path + ": " + std::strerror(errno);
    return UniqueFd();
  }
  return fd;
}

UniqueFd ConnectTcp(const std::string& host, int port, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  std::string service = std::to_string(port);
  int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
  if (rc != 0) {
    *error = "cannot resolve " + host + ": " + ::gai_strerror(rc);
    return UniqueFd();
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> guard(list, &::freeaddrinfo);
  for (addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    UniqueFd fd(::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
    if (fd.valid() && ::connect(fd.get(), ai->ai_addr, ai->ai_addrlen) == 0) return fd;
  }
  *error = "cannot connect to " + host + ":" + service + ": " + std::strerror(errno);
  return UniqueFd();
}

}  // namespace kesttcs
