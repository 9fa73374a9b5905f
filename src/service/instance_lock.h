// One service per home and per socket. Two services on one home would drive the same TPM state and
// key storage; two on one socket path would take the socket from each other (the second one
// replaces the first one's socket, and removes it when it stops). Each therefore holds an
// exclusive lock file for as long as its process lives: one in the home's data directory and one
// beside the socket. The lock files stay in place after the process ends; only the lock goes.
#pragma once

#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Takes the exclusive lock of `path` (created when missing, mode 0644) and writes this process's
// id into it; the lock is held until the process ends. Taking a lock this process already holds
// succeeds. Returns 0; when another process holds it EBUSY (on Windows
// ERROR_SERVICE_ALREADY_RUNNING); or the system's error code for the file that could not be opened.
// On failure `*why` says what happened, naming the holder's process id when known.
[[nodiscard]] UINT32 LockInstance(const std::string& path, std::string* why);

// The host's part of LockInstance (linux/instance_lock.cc, windows/instance_lock.cc): opens and
// locks `path`, writes the process id, and keeps the file open for the process's life. Same
// results as LockInstance; called at most once per path.
[[nodiscard]] UINT32 HoldInstanceLock(const std::string& path, std::string* why);

}  // namespace kesttcs
