// The DCE/RPC server: listens on a Unix stream socket and optionally on 127.0.0.1 TCP, runs the
// connection-oriented protocol for every connection, and runs complete requests through the
// registered interface handlers.
//
// Threads: a pool of workers that all wait in one epoll set, each taking one event at a time.
// Connections are registered one-shot, so a connection belongs to the worker that took its event:
// that worker reads the request, runs the handler inline and sends the response from the same
// thread, with no hand-over between threads on the way. It then waits up to 20 ms (in poll, which
// wakes for input only) on the same connection for the next request (clients tend to call in
// bursts) and serves that too, before handing the connection back to epoll. A connection therefore
// runs one call at a time (clients send the next request after the response). Before a handler, the
// closed callback or such a wait, the worker makes sure another worker still waits in epoll,
// starting a new one when none does, up to max_calls; none waits on a connection once there are
// max_calls of them. So a slow call holds up only its own connection, and calls beyond max_calls
// wait for a worker to come free. A worker that has had nothing to do for kWorkerIdleExit leaves,
// as long as kMinWorkers stay and another one waits. Once a second, a housekeeping event (run by
// whichever worker takes it) joins the workers that left, closes idle connections and resumes
// accepting.
//
// Limits (ServerOptions): max_connections open connections, lowered to what the open-file limit
// leaves room for; max_connections_per_user of one user; a connection beyond either is accepted
// and closed at once. When the process runs out of descriptors anyway, accepting pauses until a
// connection closes or the next housekeeping event, instead of retrying at once. Over TCP only
// the users who may open the Unix socket (root, this process's user, members of its group) are
// served. Fragments up to kMaxFragmentSize (5840 bytes), request stubs up to kMaxRequestStub
// (1 MiB, larger ones get a fault), and request_memory bytes of requests for all connections
// together (RequestBudget). A client that stops reading its responses stops being read once
// 64 KiB of answers wait for it. A connection idle for idle_timeout whose client holds no state
// (the holds-state callback says) is closed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "rpc/dcerpc/association.h"

namespace kesttcs::dcerpc {

// Where the service's socket lives by default: "$RUNTIME_DIRECTORY/KestTCS", else
// "/run/kesttcs/KestTCS" when /run/kesttcs exists or can be created, else
// "$XDG_RUNTIME_DIR/KestTCS". An empty result means none of them is usable.
std::string DefaultSocketPath();

struct ServerOptions {
  // Unix stream socket path; empty for none. A stale socket at the path is replaced; the parent
  // directory is created (0755) when missing. The socket gets mode 0660.
  std::string unix_path;
  // Group owning the socket; unset keeps the process's group.
  std::optional<gid_t> socket_group;
  // TCP port on 127.0.0.1; unset for no TCP listener, 0 for any free port (see tcp_port()).
  std::optional<uint16_t> tcp_port;
  // Calls served at once (worker threads at most).
  size_t max_calls = 1000;
  // Open connections at most, and of one user (the peer's uid) at most.
  size_t max_connections = 4096;
  size_t max_connections_per_user = 1024;
  // A connection on which nothing arrives for this long is closed unless its client holds state;
  // zero keeps idle connections open.
  std::chrono::seconds idle_timeout{60};
  // Request bytes held for all connections together.
  size_t request_memory = 32 * 1024 * 1024;
};

// Workers never go below this many once started, and one idle for kWorkerIdleExit leaves.
inline constexpr size_t kMinWorkers = 4;
inline constexpr std::chrono::seconds kWorkerIdleExit{5};
// Descriptors kept free of connections for everything else the process opens.
inline constexpr size_t kReservedDescriptors = 64;

// Called once a connection has closed and its call (if any) has finished: on the worker that
// closed it, or for connections still open at Stop on the thread calling Stop.
using ConnectionClosedCallback = std::function<void(const PeerIdentity& peer)>;

// Asked (with the server's connection list locked, so it must not call back into the server)
// whether the client of an idle connection holds state that closing the connection would end;
// such a connection is kept.
using HoldsStateCallback = std::function<bool(const PeerIdentity& peer)>;

class Server {
 public:
  Server();
  ~Server();  // stops the server if it runs
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Registers an interface before Start. Returns false when it is already registered or the
  // server runs.
  [[nodiscard]] bool RegisterInterface(const SyntaxId& iface, InterfaceHandler handler);
  // Sets the callback for closed connections before Start.
  void SetConnectionClosedCallback(ConnectionClosedCallback callback);
  // Sets the idle-connection callback before Start (without one, idle connections all close).
  void SetHoldsStateCallback(HoldsStateCallback callback);

  // Opens the listeners and starts serving. Returns 0, or the errno of the socket call that
  // failed (nothing is left open then). Fails with EALREADY when already started.
  [[nodiscard]] int Start(const ServerOptions& options);
  // The bound TCP port (useful with tcp_port = 0); 0 without a TCP listener.
  uint16_t tcp_port() const;
  // Stops listening (the Unix socket file is removed), stops reading requests, lets calls in
  // flight finish, closes every connection (each one's closed callback runs), and joins all
  // threads. Safe to call more than once and from any thread but a handler or the closed callback.
  void Stop();
  // Blocks until Stop has finished (returns at once when the server is not running).
  void Wait();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kesttcs::dcerpc
