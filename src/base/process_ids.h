// The identities of a local client as the service keeps them, the same on both hosts: a process
// id (a Linux pid_t, a Windows process id) and a user and group (Linux uid_t and gid_t; Windows
// has no numeric user, and its RPC callers are told apart by process or association group).
#pragma once

#include <cstdint>

namespace kesttcs {

using ProcessId = int32_t;
using UserId = uint32_t;
using GroupId = uint32_t;

}  // namespace kesttcs
