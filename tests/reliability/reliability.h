// The reliability suite's harness: the real kesttcsd started as systemd would (its own home,
// configuration and notify socket, the embedded TPM unless told otherwise), what the kernel says
// about the process (CPU time, threads, resident memory), and raw connections to its endpoints.
#pragma once

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon_process.h"

namespace kesttcs::reliability {

using namespace daemon_process;

// How a test wants its daemon.
struct DaemonOptions {
  std::string tpm = "libtpms";         // the [TPM] backend
  std::string rpc_keys;                // extra lines of the [RPC] section
  bool tcp = false;                    // also listen on a loopback TCP port
  std::optional<rlim_t> open_files;    // the daemon's open-file limit, soft and hard
  std::vector<std::string> arguments;  // empty: service mode
};

// A running kesttcsd; stopped with SIGTERM when the object goes.
class Daemon {
 public:
  explicit Daemon(const DaemonOptions& options = {});
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Stops the daemon (SIGTERM) and returns how it ended.
  RunResult Stop();
  // Starts it again on the same home after a Stop; the time until it was ready (READY=1 in
  // service mode, the socket there with arguments).
  std::chrono::steady_clock::duration Start();

  pid_t pid() const { return process_ ? process_->pid() : -1; }
  const fs::path& home() const { return home_; }
  const fs::path& socket() const { return socket_; }
  uint16_t tcp_port() const { return tcp_port_; }
  // Environment (no notify socket: a full one would block the sender) and directory for starting
  // another instance beside this one.
  std::vector<std::string> Environment(const fs::path& home) const;
  const fs::path& directory() const { return dir_.path(); }

  // From /proc: user plus system CPU seconds, threads, resident memory in KiB.
  double CpuSeconds() const;
  long Threads() const;
  long ResidentKiB() const;

 private:
  TempDir dir_;
  fs::path home_;
  fs::path socket_;
  uint16_t tcp_port_ = 0;
  std::unique_ptr<NotifySocket> notify_;
  std::vector<std::string> arguments_;
  std::optional<rlim_t> open_files_;
  std::unique_ptr<Process> process_;
};

// A loopback TCP port nobody listens on right now.
uint16_t FreeTcpPort();

// A connected socket (blocking), or -1.
int ConnectUnix(const fs::path& path);
int ConnectTcp(uint16_t port);

// True when the server closes `fd` within `patience` (what it sends meanwhile is read and dropped).
bool ClosedByServer(int fd, std::chrono::milliseconds patience = std::chrono::seconds(10));

// Whether this test can act as another user: it runs as root, and the user "nobody" and the
// socket's default group "tss" exist.
bool CanActAsOtherUsers();

// The uid and gid of "nobody", and the gid of the socket's group "tss".
uid_t NobodyUid();
gid_t NobodyGid();
gid_t TssGid();

// Runs `body` in a child process as `uid` with group `gid` (and no other groups); returns its exit
// status (-1 when it did not exit normally). The child must not return to the test framework.
int RunAs(uid_t uid, gid_t gid, const std::function<int()>& body);

// Waits until `done` holds or `patience` runs out; returns `done()` at the end.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds patience);

}  // namespace kesttcs::reliability
