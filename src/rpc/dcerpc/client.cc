#include "rpc/dcerpc/client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kesttcs::dcerpc {

uint32_t Client::ConnectUnix(const std::string& path, std::chrono::milliseconds timeout) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
    Close();
    return kRpcServerUnavailable;
  }
  path.copy(addr.sun_path, path.size());
  return ConnectTo(AF_UNIX, &addr, sizeof(addr), timeout);
}

uint32_t Client::ConnectTcp(uint16_t port, std::chrono::milliseconds timeout) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ConnectTo(AF_INET, &addr, sizeof(addr), timeout);
}

uint32_t Client::ConnectTo(int domain, const void* addr, size_t addr_len,
                           std::chrono::milliseconds timeout) {
  MutexLock lock(mu_);
  CloseLocked();
  int fd = socket(domain, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return kRpcServerUnavailable;
  int rc = connect(fd, static_cast<const sockaddr*>(addr), static_cast<socklen_t>(addr_len));
  if (rc != 0 && (errno == EINPROGRESS || errno == EAGAIN)) {
    pollfd p{fd, POLLOUT, 0};
    int error = 0;
    socklen_t len = sizeof(error);
    if (poll(&p, 1, static_cast<int>(timeout.count())) == 1 &&
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) == 0 && error == 0) {
      rc = 0;
    }
  }
  // Calls block without a time limit from here on.
  if (rc != 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
    close(fd);
    return kRpcServerUnavailable;
  }
  if (domain == AF_INET) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  }
  fd_ = fd;
  in_.resize(kInputBuffer);
  return kRpcOk;
}

void Client::Close() {
  MutexLock lock(mu_);
  CloseLocked();
}

void Client::CloseLocked() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  bound_ = false;
  in_begin_ = in_end_ = 0;
}

bool Client::connected() const {
  MutexLock lock(mu_);
  return fd_ >= 0;
}

uint16_t Client::bind_nak_reason() const {
  MutexLock lock(mu_);
  return nak_reason_;
}

bool Client::SendAll(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      CloseLocked();
      return false;
    }
    bytes = bytes.subspan(static_cast<size_t>(n));
  }
  return true;
}

bool Client::Fill(size_t n) {
  if (in_begin_ + n > in_.size()) {
    std::copy(in_.begin() + static_cast<std::ptrdiff_t>(in_begin_),
              in_.begin() + static_cast<std::ptrdiff_t>(in_end_), in_.begin());
    in_end_ -= in_begin_;
    in_begin_ = 0;
  }
  while (in_end_ - in_begin_ < n) {
    // Sleeps in poll, not in recv: a thread asleep in recv is also woken when the service reads the
    // request (both wake-ups share the socket's wait queue), a second wake-up for every call.
    pollfd input{fd_, POLLIN, 0};
    if (poll(&input, 1, -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    // Asks for all the room there is, so that a whole answer usually arrives in one recv.
    ssize_t got = recv(fd_, in_.data() + in_end_, in_.size() - in_end_, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (got <= 0) return false;
    in_end_ += static_cast<size_t>(got);
  }
  return true;
}

uint32_t Client::ReadFragment(std::span<const uint8_t>& fragment, PduHeader& header) {
  if (!Fill(kHeaderSize)) {
    CloseLocked();
    return kRpcCallFailed;
  }
  std::optional<PduHeader> parsed =
      ParseHeader(std::span<const uint8_t>(in_.data() + in_begin_, kHeaderSize));
  if (!parsed || parsed->frag_length > kMaxFragmentSize) {
    CloseLocked();
    return kRpcProtocolError;
  }
  header = *parsed;
  if (!Fill(header.frag_length)) {
    CloseLocked();
    return kRpcCallFailed;
  }
  fragment = std::span<const uint8_t>(in_.data() + in_begin_, header.frag_length);
  in_begin_ += header.frag_length;
  return kRpcOk;
}

uint32_t Client::Bind(const SyntaxId& iface) {
  MutexLock lock(mu_);
  if (fd_ < 0) return kRpcCallFailed;
  // The answer's call id is not checked, here or for a request: a connection carries one call at
  // a time and is closed after any failure, so whatever comes back answers the call just sent.
  // Wine's RPC server puts call id 1 into every PDU it sends.
  uint32_t call_id = next_call_id_++;
  BindPdu bind{kMaxFragmentSize, kMaxFragmentSize, 0, {{context_id_, iface, {NdrSyntax()}}}};
  if (!SendAll(EncodeBind(PduType::kBind, call_id, bind))) return kRpcCallFailed;
  std::span<const uint8_t> fragment;
  PduHeader header;
  if (uint32_t status = ReadFragment(fragment, header); status != kRpcOk) return status;
  if (header.type == PduType::kBindNak) {
    std::optional<uint16_t> reason = ParseBindNak(header, fragment);
    nak_reason_ = reason.value_or(0);
    return reason ? kRpcUnknownInterface : kRpcProtocolError;
  }
  std::optional<BindAckPdu> ack;
  if (header.type == PduType::kBindAck) ack = ParseBindAck(header, fragment);
  if (!ack || ack->results.size() != 1) {
    CloseLocked();
    return kRpcProtocolError;
  }
  if (ack->results[0].result != kResultAcceptance) return kRpcUnknownInterface;
  // The server's receive size limits what we send; ours limits what it sends.
  max_xmit_ = std::clamp(ack->max_recv_frag, kMinFragmentSize, kMaxFragmentSize);
  bound_ = true;
  return kRpcOk;
}

uint32_t Client::Call(uint16_t opnum, std::span<const uint8_t> stub_in,
                      std::vector<uint8_t>& stub_out, ByteOrder* byte_order) {
  MutexLock lock(mu_);
  stub_out.clear();
  if (fd_ < 0) return kRpcCallFailed;
  if (!bound_) return kRpcNotBound;
  uint32_t call_id = next_call_id_++;
  request_.clear();
  EncodeRequestFragments(call_id, context_id_, opnum, std::nullopt, stub_in, max_xmit_, request_);
  if (!SendAll(request_)) return kRpcCallFailed;

  std::span<const uint8_t> fragment;
  bool first = true;
  for (;;) {
    PduHeader header;
    if (uint32_t status = ReadFragment(fragment, header); status != kRpcOk) {
      stub_out.clear();
      return status;
    }
    // A server about to go away says so between calls; the answer to this call still comes.
    if (header.type == PduType::kShutdown) continue;
    bool expected_type = header.type == PduType::kResponse || header.type == PduType::kFault;
    bool in_order = first == ((header.flags & kPfcFirstFrag) != 0);
    std::optional<ResponsePdu> response;
    if (expected_type && in_order) {
      response = ParseResponse(header, fragment);
    }
    if (!response || response->stub.size() > kMaxResponseStub - stub_out.size()) {
      stub_out.clear();
      CloseLocked();
      return kRpcProtocolError;
    }
    if (header.type == PduType::kFault) {
      stub_out.clear();
      return response->status != 0 ? response->status : kRpcCallFailed;
    }
    if (first && byte_order) *byte_order = header.byte_order();
    first = false;
    stub_out.insert(stub_out.end(), response->stub.begin(), response->stub.end());
    if (header.flags & kPfcLastFrag) return kRpcOk;
  }
}

}  // namespace kesttcs::dcerpc
