#include "rpc/dcerpc/socket_peer.h"

#include <grp.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace kesttcs::dcerpc {

namespace {

// A netlink socket that is closed on every path.
class NetlinkSocket {
 public:
  NetlinkSocket() : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~NetlinkSocket() {
    if (fd_ >= 0) close(fd_);
  }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

std::optional<uid_t> LoopbackTcpPeerUid(int fd) {
  sockaddr_in local{};
  sockaddr_in peer{};
  socklen_t local_len = sizeof(local);
  socklen_t peer_len = sizeof(peer);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) != 0 ||
      getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0 ||
      local.sin_family != AF_INET || peer.sin_family != AF_INET) {
    return std::nullopt;
  }
  NetlinkSocket netlink;
  if (netlink.fd() < 0) return std::nullopt;
  const timeval patience = {1, 0};
  setsockopt(netlink.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));

  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } query{};
  query.header.nlmsg_len = sizeof(query);
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.request.sdiag_family = AF_INET;
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = ~0u;
  // The client's end: it sends from the peer's address to ours.
  query.request.id.idiag_sport = peer.sin_port;
  query.request.id.idiag_dport = local.sin_port;
  query.request.id.idiag_src[0] = peer.sin_addr.s_addr;
  query.request.id.idiag_dst[0] = local.sin_addr.s_addr;
  query.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  query.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(netlink.fd(), &query, sizeof(query), 0, reinterpret_cast<sockaddr*>(&kernel),
             sizeof(kernel)) != static_cast<ssize_t>(sizeof(query))) {
    return std::nullopt;
  }
  std::array<char, 8192> answer;
  const ssize_t received = recv(netlink.fd(), answer.data(), answer.size(), 0);
  if (received < 0) return std::nullopt;
  const size_t length = static_cast<size_t>(received);
  // Each message: a header whose length covers it, then (for an answer) the socket's record.
  for (size_t at = 0; at + sizeof(nlmsghdr) <= length;) {
    nlmsghdr header;
    std::memcpy(&header, answer.data() + at, sizeof(header));
    if (header.nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)) || header.nlmsg_len > length - at ||
        header.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
      return std::nullopt;  // an error answer (no such socket), or one too short to read
    }
    inet_diag_msg info;
    std::memcpy(&info, answer.data() + at + NLMSG_HDRLEN, sizeof(info));
    if (info.id.idiag_sport == peer.sin_port && info.id.idiag_dport == local.sin_port) {
      return static_cast<uid_t>(info.idiag_uid);
    }
    at += NLMSG_ALIGN(header.nlmsg_len);
  }
  return std::nullopt;
}

bool MayUseSocket(uid_t uid, gid_t group) {
  if (uid == 0 || uid == geteuid()) return true;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> strings(16384);
  if (getpwuid_r(uid, &entry, strings.data(), strings.size(), &found) != 0 || found == nullptr) {
    return false;
  }
  if (entry.pw_gid == group) return true;
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
  }
  groups.resize(static_cast<size_t>(count));
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace kesttcs::dcerpc
