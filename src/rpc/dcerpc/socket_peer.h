// Who is at the other end of a connection, and whether that user may use the service's socket.
// Over loopback TCP no peer credentials travel with the connection; the kernel's socket
// diagnostics (NETLINK_SOCK_DIAG, inet_diag) tell which user owns the client's end, so that TCP
// clients can be held to the same rule as the mode and group of the Unix socket.
#pragma once

#include <sys/types.h>

#include <optional>

namespace kesttcs::dcerpc {

// The uid owning the client's socket of the accepted loopback TCP connection `fd` (the socket
// whose source is our peer's address and whose destination is our own); nullopt when the kernel
// does not know it or cannot be asked. Waits at most a second for the kernel's answer.
std::optional<uid_t> LoopbackTcpPeerUid(int fd);

// Whether `uid` may connect to a socket file of mode 0660 owned by this process's user and by
// `group`: root, this process's user, and the members of `group` (primary or supplementary).
bool MayUseSocket(uid_t uid, gid_t group);

}  // namespace kesttcs::dcerpc
