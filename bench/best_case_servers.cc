#include "best_case_servers.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <libtpms/tpm_library.h>

#include <array>
#include <cstdio>
#include <thread>

#include "tpm/tpm_bytes.h"
#include "tpm/tpm_lock.h"
#include "tpm12/marshal.h"

namespace kesttcs::bench {
namespace {

sockaddr_un Address(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
  return addr;
}

// Reads one blob framed by its paramSize into `blob`; its length, or 0 at the end of the input.
size_t ReadBlob(int fd, std::span<BYTE> blob) {
  if (!ReadFull(fd, blob.data(), kTpmHeaderSize)) return 0;
  const UINT32 size = PeekUINT32(blob, 2);
  if (size < kTpmHeaderSize || size > blob.size()) return 0;
  return ReadFull(fd, blob.data() + kTpmHeaderSize, size - kTpmHeaderSize) ? size : 0;
}

// Runs one command on the TPM and writes its answer; false when the connection is done.
bool ServeOne(int fd) {
  static unsigned char* response = nullptr;  // grown by libtpms, reused by every call
  static uint32_t capacity = 0;
  std::array<BYTE, kTpmBlobSize> command;
  const size_t size = ReadBlob(fd, command);
  uint32_t length = 0;
  return size > 0 &&
         TPMLIB_Process(&response, &length, &capacity, command.data(),
                        static_cast<uint32_t>(size)) == 0 &&
         ::write(fd, response, length) == static_cast<ssize_t>(length);
}

void SingleThreaded(int listener) {
  for (;;) {
    const int fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    {
      TpmLockGuard tpm(0);
      while (ServeOne(fd)) {
      }
    }
    ::close(fd);
  }
}

void Epoll(int listener) {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event ev{EPOLLIN, {.fd = listener}};
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &ev);
  size_t clients = 0;
  std::array<epoll_event, 16> events;
  for (;;) {
    // Wait for the first client without the TPM lock, then hold it until the last one leaves.
    const int first = ::epoll_wait(epoll, events.data(), 1, -1);
    if (first < 0) continue;
    TpmLockGuard tpm(0);
    do {
      const int n = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == listener) {
          const int client = ::accept(listener, nullptr, nullptr);
          ev = {EPOLLIN, {.fd = client}};
          if (client >= 0 && ::epoll_ctl(epoll, EPOLL_CTL_ADD, client, &ev) == 0) ++clients;
        } else if (!ServeOne(fd)) {
          ::epoll_ctl(epoll, EPOLL_CTL_DEL, fd, nullptr);
          ::close(fd);
          --clients;
        }
      }
    } while (clients > 0);
  }
}

}  // namespace

bool ReadFull(int fd, void* data, size_t n) {
  auto* p = static_cast<BYTE*>(data);
  while (n > 0) {
    const ssize_t got = ::read(fd, p, n);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

bool StartBestCaseServer(BestCaseForm form, const std::string& socket_path) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un addr = Address(socket_path);
  if (listener < 0 ||
      ::bind(listener, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::listen(listener, 64) != 0) {
    return false;
  }
  std::thread(form == BestCaseForm::kSingleThreaded ? SingleThreaded : Epoll, listener).detach();
  return true;
}

BestCaseClient::BestCaseClient(const std::string& socket_path)
    : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un addr = Address(socket_path);
  if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

BestCaseClient::~BestCaseClient() {
  if (fd_ >= 0) ::close(fd_);
}

bool BestCaseClient::Exchange(std::span<const BYTE> command, std::span<BYTE> answer) {
  return ::write(fd_, command.data(), command.size()) == static_cast<ssize_t>(command.size()) &&
         ReadBlob(fd_, answer) > 0;
}

}  // namespace kesttcs::bench
