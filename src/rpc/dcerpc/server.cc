#include "rpc/dcerpc/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "rpc/dcerpc/socket_peer.h"

namespace kesttcs::dcerpc {

namespace {

// Read from a connection at once, on the worker's stack: about three whole fragments. Kept small,
// as every worker (up to max_calls of them) touches it.
constexpr size_t kReadChunk = 16 * 1024;
// A connection is not read while more than this many response bytes wait to be sent.
constexpr size_t kOutputHighWater = 64 * 1024;
// How long a worker that has answered a call waits on the same connection for the next request
// before handing the connection back to epoll. Clients tend to make calls in bursts; waiting on the
// connection saves the epoll round trip for each of them.
constexpr int kLingerMs = 20;
// A worker keeps at most this much response buffer between calls.
constexpr size_t kKeptStubCapacity = 64 * 1024;
constexpr timespec kHousekeepingInterval = {1, 0};

// A connection's idle clock (Connection::parked_since): the time in milliseconds at which it was
// handed back to epoll, or one of these.
constexpr int64_t kBusy = -1;    // a worker holds it
constexpr int64_t kReaped = -2;  // housekeeping found it idle: the next worker closes it

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Connections the open-file limit leaves room for.
size_t DescriptorRoom() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return SIZE_MAX;
  return limit.rlim_cur > kReservedDescriptors ? limit.rlim_cur - kReservedDescriptors : 1;
}

// Waits once on `cv`; the caller holds `mu` through a MutexLock.
void WaitOnce(std::condition_variable& cv, Mutex& mu) REQUIRES(mu) {
  std::unique_lock<std::mutex> lock(mu.native(), std::adopt_lock);
  cv.wait(lock);
  lock.release();
}

// One accepted connection. Registered in epoll with EPOLLONESHOT, so at most one worker holds it
// at a time: the one that took its last event, until it re-arms or closes it. The socket itself is
// blocking, but every socket call passes MSG_DONTWAIT; the lingering worker sleeps in poll.
struct Connection {
  Connection(int fd_in, const InterfaceRegistry& registry, PeerIdentity peer_in,
             std::string secondary_address, AssociationGroups& groups, RequestBudget& budget)
      : fd(fd_in),
        peer(peer_in),
        association(registry, peer_in, std::move(secondary_address), groups, budget) {}

  size_t pending_output() const { return output.size() - output_pos; }

  // Called by the worker that re-arms the connection, before it does, and by the worker that
  // takes the next event. The epoll hand-over already orders the two; this release/acquire pair
  // states that order in terms the memory model (and thread sanitizers) see.
  void Release() { handoff.fetch_add(1, std::memory_order_release); }
  void Acquire() const { static_cast<void>(handoff.load(std::memory_order_acquire)); }

  int fd;
  PeerIdentity peer;
  Association association;
  std::vector<uint8_t> output;
  size_t output_pos = 0;
  bool closing = false;  // protocol error: close once the output is sent
  std::atomic<uint32_t> handoff{0};
  // Read by housekeeping while no worker holds the connection; written by its worker.
  std::atomic<int64_t> parked_since{kBusy};
  std::atomic<uint32_t> assoc_group{0};
};

uint32_t RunHandler(const PendingCall& call, std::vector<uint8_t>& stub_out) {
  // Handlers report failures by status; an allocation failure or a stray exception must still
  // not take the server down.
  try {
    return (*call.handler)(call.info, call.opnum, call.stub, stub_out);
  } catch (const std::bad_alloc&) {
    return kNcaFaultRemoteNoMemory;
  } catch (...) {
    return kNcaFaultUnspecified;
  }
}

int ListenUnix(const std::string& path, std::optional<gid_t> group, int& error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    error = ENAMETOOLONG;
    return -1;
  }
  path.copy(addr.sun_path, path.size());
  std::error_code ec;
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty() && !std::filesystem::exists(parent, ec)) {
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
      error = errno;
      return -1;
    }
  }
  struct stat st {};
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      error = EEXIST;
      return -1;
    }
    unlink(path.c_str());
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = errno;
    return -1;
  }
  // No client may connect before the mode and group are right: listen() comes last.
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      chmod(path.c_str(), 0660) != 0 || (group && chown(path.c_str(), -1, *group) != 0) ||
      listen(fd, SOMAXCONN) != 0) {
    error = errno;
    close(fd);
    unlink(path.c_str());
    return -1;
  }
  return fd;
}

int ListenTcp(uint16_t port, uint16_t& bound_port, int& error) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = errno;
    return -1;
  }
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(fd, SOMAXCONN) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    error = errno;
    close(fd);
    return -1;
  }
  bound_port = ntohs(addr.sin_port);
  return fd;
}

}  // namespace

std::string DefaultSocketPath() {
  if (const char* dir = std::getenv("RUNTIME_DIRECTORY"); dir && *dir) {
    std::string first(dir);
    return first.substr(0, first.find(':')) + "/KestTCS";
  }
  if (mkdir("/run/kesttcs", 0755) == 0 || errno == EEXIST) return "/run/kesttcs/KestTCS";
  if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir && *dir) {
    return std::string(dir) + "/KestTCS";
  }
  return "";
}

class Server::Impl {
 public:
  ~Impl() { Stop(); }

  bool RegisterInterface(const SyntaxId& iface, InterfaceHandler handler) EXCLUDES(state_mu_) {
    MutexLock lock(state_mu_);
    if (state_ != State::kIdle) return false;
    return registry_.emplace(iface, std::move(handler)).second;
  }

  void SetConnectionClosedCallback(ConnectionClosedCallback callback) EXCLUDES(state_mu_) {
    MutexLock lock(state_mu_);
    if (state_ == State::kIdle) closed_callback_ = std::move(callback);
  }

  void SetHoldsStateCallback(HoldsStateCallback callback) EXCLUDES(state_mu_) {
    MutexLock lock(state_mu_);
    if (state_ == State::kIdle) holds_state_ = std::move(callback);
  }

  int Start(const ServerOptions& options) EXCLUDES(state_mu_, mu_);
  uint16_t tcp_port() const { return tcp_port_; }
  void Stop() EXCLUDES(state_mu_, mu_);
  void Wait() EXCLUDES(state_mu_);

 private:
  enum class State { kIdle, kRunning, kStopping, kStopped };

  // A worker's life: wait in epoll for one event, handle it, repeat until Stop or until it has
  // been idle long enough to leave.
  void Work() EXCLUDES(mu_);
  // Adds a worker unless the server stops or max_calls workers exist. False when none was added.
  bool AddWorker() EXCLUDES(mu_);
  // Called before anything that may block (a handler, the closed callback): makes sure some
  // worker still waits for events, so that a slow call holds up only its own connection.
  void KeepOneWaiting() EXCLUDES(mu_);
  // An idle worker asks to leave: true (it is listed as finished) while more than kMinWorkers
  // exist and another worker waits.
  bool Retire() EXCLUDES(mu_);
  // The once-a-second chores: join workers that left, close idle connections, resume accepting.
  void Housekeeping() EXCLUDES(mu_);
  void JoinFinishedWorkers() EXCLUDES(mu_);
  void CloseIdleConnections() EXCLUDES(mu_);
  void Accept(int listen_fd, Transport transport, void* tag) EXCLUDES(mu_);
  // Who is at the other end of a new connection; nullopt when it may not be served.
  std::optional<PeerIdentity> Identify(int fd, Transport transport);
  // Re-arms the listeners after accepting paused for lack of descriptors.
  void ResumeAccepting();
  void Arm(int fd, void* tag, uint32_t events);
  // Handles an event of a connection this worker now holds: reads, runs the complete calls,
  // sends the answers, then re-arms or closes the connection.
  void Serve(Connection& conn, uint32_t events, std::vector<uint8_t>& stub_out) EXCLUDES(mu_);
  enum class Input { kData, kNone, kClosed };
  // Reads what the connection has into its association; with `wait`, waits up to kLingerMs for it.
  // kClosed: the stream ended or failed, and the connection was closed.
  Input Receive(Connection& conn, bool wait) EXCLUDES(mu_);
  // Sends queued output without blocking. False when the connection was closed (a send failed,
  // or it was closing and everything is sent); the caller must not touch it then.
  bool Flush(Connection& conn) EXCLUDES(mu_);
  void Rearm(Connection& conn) EXCLUDES(mu_);
  // Closes the connection and runs the closed callback on this thread.
  void CloseConnection(Connection& conn) EXCLUDES(mu_);

  // Set before Start, read-only while running.
  InterfaceRegistry registry_;
  ConnectionClosedCallback closed_callback_;
  HoldsStateCallback holds_state_;
  ServerOptions options_;
  size_t max_workers_ = 1;
  size_t max_connections_ = 0;
  gid_t socket_group_ = 0;
  uint16_t tcp_port_ = 0;
  int epoll_fd_ = -1;
  int stop_fd_ = -1;  // an eventfd, level-triggered in epoll: once written, every worker sees it
  int timer_fd_ = -1;
  int unix_fd_ = -1;
  int tcp_fd_ = -1;
  // What epoll reports for the stop eventfd, the timer and the listeners; connections report
  // themselves.
  char stop_tag_ = 0;
  char timer_tag_ = 0;
  char unix_tag_ = 0;
  char tcp_tag_ = 0;
  std::unique_ptr<RequestBudget> budget_;
  AssociationGroups groups_;

  // Start/Stop/Wait state. Taken before mu_ when both are needed.
  Mutex state_mu_;
  std::condition_variable state_cv_;
  State state_ GUARDED_BY(state_mu_) = State::kIdle;

  Mutex mu_ ACQUIRED_AFTER(state_mu_);
  std::unordered_map<std::thread::id, std::thread> workers_ GUARDED_BY(mu_);
  std::vector<std::thread> finished_ GUARDED_BY(mu_);  // workers that left, to be joined
  std::unordered_map<Connection*, std::unique_ptr<Connection>> connections_ GUARDED_BY(mu_);
  std::unordered_map<uid_t, size_t> user_connections_ GUARDED_BY(mu_);
  // Set under mu_, so that no worker is added once Stop has taken the list to join.
  std::atomic<bool> stopping_{false};
  std::atomic<bool> accept_paused_{false};
  std::atomic<size_t> waiting_{0};       // workers in (or about to enter) epoll_wait
  std::atomic<size_t> worker_count_{0};  // workers_.size(), readable without mu_
  std::atomic<uint64_t> next_connection_id_{1};
};

int Server::Impl::Start(const ServerOptions& options) {
  MutexLock lock(state_mu_);
  if (state_ != State::kIdle) return EALREADY;
  options_ = options;
  max_workers_ = options.max_calls == 0 ? 1 : options.max_calls;
  max_connections_ = std::min(options.max_connections, DescriptorRoom());
  socket_group_ = options.socket_group.value_or(getegid());
  budget_ = std::make_unique<RequestBudget>(options.request_memory);
  int error = 0;
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  stop_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  timer_fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  const itimerspec every_second = {kHousekeepingInterval, kHousekeepingInterval};
  if (epoll_fd_ < 0 || stop_fd_ < 0 || timer_fd_ < 0 ||
      timerfd_settime(timer_fd_, 0, &every_second, nullptr) != 0) {
    error = errno;
  }
  if (error == 0 && !options.unix_path.empty()) {
    unix_fd_ = ListenUnix(options.unix_path, options.socket_group, error);
  }
  if (error == 0 && options.tcp_port) tcp_fd_ = ListenTcp(*options.tcp_port, tcp_port_, error);
  const std::pair<int, void*> sources[] = {{stop_fd_, &stop_tag_},
                                           {timer_fd_, &timer_tag_},
                                           {unix_fd_, &unix_tag_},
                                           {tcp_fd_, &tcp_tag_}};
  for (auto [fd, tag] : sources) {
    epoll_event ev{};
    // The timer and a listener are handled by one worker at a time, which re-arms them after.
    ev.events = tag == &stop_tag_ ? EPOLLIN : EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = tag;
    if (error == 0 && fd >= 0 && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) error = errno;
  }
  stopping_ = false;
  if (error == 0 && !AddWorker()) error = EAGAIN;
  if (error != 0) {
    for (int* fd : {&epoll_fd_, &stop_fd_, &timer_fd_, &unix_fd_, &tcp_fd_}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
    if (!options.unix_path.empty() && error != EEXIST) unlink(options.unix_path.c_str());
    tcp_port_ = 0;
    return error;
  }
  state_ = State::kRunning;
  return 0;
}

void Server::Impl::Stop() {
  {
    MutexLock lock(state_mu_);
    if (state_ == State::kIdle || state_ == State::kStopped) return;
    if (state_ == State::kStopping) {
      while (state_ == State::kStopping) WaitOnce(state_cv_, state_mu_);
      return;
    }
    state_ = State::kStopping;
  }
  {
    MutexLock lock(mu_);
    stopping_ = true;
  }
  // Refuse new connections at once; the descriptors stay valid for a worker still accepting.
  for (int fd : {unix_fd_, tcp_fd_}) {
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
  }
  if (!options_.unix_path.empty()) unlink(options_.unix_path.c_str());
  uint64_t one = 1;
  ssize_t written = write(stop_fd_, &one, sizeof(one));
  static_cast<void>(written);  // a non-zero counter is all it takes
  // Workers finish the calls they run, close those connections and leave; one that waits for a
  // connection's next request is woken by the end of its input.
  std::vector<std::thread> workers;
  {
    MutexLock lock(mu_);
    workers.swap(finished_);
    for (auto& [id, worker] : workers_) workers.push_back(std::move(worker));
    workers_.clear();
    for (const auto& [conn, owned] : connections_) shutdown(conn->fd, SHUT_RD);
  }
  for (std::thread& worker : workers) worker.join();
  // What is left waited idle in epoll: send what is queued (best effort) and close it.
  for (;;) {
    Connection* conn = nullptr;
    {
      MutexLock lock(mu_);
      if (connections_.empty()) break;
      conn = connections_.begin()->first;
    }
    if (Flush(*conn)) CloseConnection(*conn);
  }
  for (int* fd : {&epoll_fd_, &stop_fd_, &timer_fd_, &unix_fd_, &tcp_fd_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  MutexLock lock(state_mu_);
  state_ = State::kStopped;
  state_cv_.notify_all();
}

void Server::Impl::Wait() {
  MutexLock lock(state_mu_);
  while (state_ == State::kRunning || state_ == State::kStopping) WaitOnce(state_cv_, state_mu_);
}

bool Server::Impl::AddWorker() {
  MutexLock lock(mu_);
  if (stopping_ || workers_.size() >= max_workers_) return false;
  try {
    std::thread worker([this] { Work(); });
    const std::thread::id id = worker.get_id();
    workers_.emplace(id, std::move(worker));
  } catch (const std::system_error&) {
    return false;  // out of threads: the workers there are serve everything, only later
  }
  worker_count_.store(workers_.size(), std::memory_order_relaxed);
  return true;
}

void Server::Impl::KeepOneWaiting() {
  if (waiting_.load(std::memory_order_relaxed) == 0) static_cast<void>(AddWorker());
}

bool Server::Impl::Retire() {
  MutexLock lock(mu_);
  if (stopping_ || workers_.size() <= kMinWorkers ||
      waiting_.load(std::memory_order_relaxed) == 0) {
    return false;
  }
  const auto self = workers_.find(std::this_thread::get_id());
  if (self == workers_.end()) return false;
  finished_.push_back(std::move(self->second));
  workers_.erase(self);
  worker_count_.store(workers_.size(), std::memory_order_relaxed);
  return true;
}

void Server::Impl::Work() {
  std::vector<uint8_t> stub_out;  // reused from call to call
  const int idle_ms = static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(kWorkerIdleExit).count());
  for (;;) {
    epoll_event event{};
    waiting_.fetch_add(1, std::memory_order_relaxed);
    int n = epoll_wait(epoll_fd_, &event, 1, idle_ms);
    waiting_.fetch_sub(1, std::memory_order_relaxed);
    if (n < 0 && errno != EINTR) return;
    if (n == 0 && Retire()) return;
    if (n <= 0) continue;
    void* tag = event.data.ptr;
    if (tag == &stop_tag_) return;
    if (tag == &timer_tag_) {
      uint64_t expirations = 0;
      static_cast<void>(read(timer_fd_, &expirations, sizeof(expirations)));
      Housekeeping();
      Arm(timer_fd_, &timer_tag_, EPOLLIN | EPOLLONESHOT);
    } else if (tag == &unix_tag_) {
      Accept(unix_fd_, Transport::kUnixStream, tag);
    } else if (tag == &tcp_tag_) {
      Accept(tcp_fd_, Transport::kTcp, tag);
    } else {
      Serve(*static_cast<Connection*>(tag), event.events, stub_out);
    }
  }
}

void Server::Impl::Housekeeping() {
  JoinFinishedWorkers();
  if (options_.idle_timeout.count() > 0) CloseIdleConnections();
  ResumeAccepting();
}

void Server::Impl::JoinFinishedWorkers() {
  std::vector<std::thread> finished;
  {
    MutexLock lock(mu_);
    finished.swap(finished_);
  }
  // Each has left its loop already; joining waits only for its last instructions.
  for (std::thread& worker : finished) worker.join();
}

void Server::Impl::CloseIdleConnections() {
  const int64_t now = NowMs();
  const int64_t timeout_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(options_.idle_timeout).count();
  MutexLock lock(mu_);
  for (const auto& [conn, owned] : connections_) {
    int64_t since = conn->parked_since.load(std::memory_order_acquire);
    if (since < 0 || now - since < timeout_ms) continue;
    PeerIdentity peer = conn->peer;
    peer.assoc_group_id = conn->assoc_group.load(std::memory_order_relaxed);
    if (holds_state_ && holds_state_(peer)) continue;
    // Claimed only while still parked: a worker that took the connection meanwhile keeps it.
    // Shutting the socket down wakes a worker for it, which then closes it (the descriptor stays
    // valid: only the worker holding a connection closes it, and this one is held by none).
    if (conn->parked_since.compare_exchange_strong(since, kReaped, std::memory_order_acq_rel)) {
      shutdown(conn->fd, SHUT_RDWR);
    }
  }
}

void Server::Impl::Arm(int fd, void* tag, uint32_t events) {
  epoll_event ev{};
  ev.events = events;
  ev.data.ptr = tag;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev);
}

void Server::Impl::ResumeAccepting() {
  if (stopping_ || !accept_paused_.exchange(false)) return;
  // A listener that was not paused may be armed twice this way; accepting is safe on two workers.
  for (auto [fd, tag] : {std::pair<int, void*>{unix_fd_, &unix_tag_}, {tcp_fd_, &tcp_tag_}}) {
    if (fd >= 0) Arm(fd, tag, EPOLLIN | EPOLLONESHOT);
  }
}

std::optional<PeerIdentity> Server::Impl::Identify(int fd, Transport transport) {
  PeerIdentity peer;
  peer.connection_id = next_connection_id_.fetch_add(1, std::memory_order_relaxed);
  peer.transport = transport;
  if (transport == Transport::kUnixStream) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return std::nullopt;
    peer.has_credentials = true;
    peer.pid = cred.pid;
    peer.uid = cred.uid;
    peer.gid = cred.gid;
    return peer;
  }
  // The Unix socket's mode and group decide who may connect there; TCP follows the same rule.
  std::optional<uid_t> uid = LoopbackTcpPeerUid(fd);
  if (!uid || !MayUseSocket(*uid, socket_group_)) return std::nullopt;
  peer.uid = *uid;
  return peer;
}

void Server::Impl::Accept(int listen_fd, Transport transport, void* tag) {
  for (;;) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && errno == EINTR) continue;
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
      // Out of descriptors or memory: retrying at once would spin. The listener stays disarmed
      // until a connection closes or the next housekeeping event; clients wait in the backlog.
      accept_paused_ = true;
      return;
    }
    if (fd < 0) break;  // EAGAIN, or a connection that failed before it was accepted
    std::optional<PeerIdentity> peer;
    if (!stopping_) peer = Identify(fd, transport);
    if (!peer) {
      close(fd);
      continue;
    }
    std::string secondary = options_.unix_path;
    if (transport == Transport::kTcp) {
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      secondary = std::to_string(tcp_port_);
    }
    auto owned =
        std::make_unique<Connection>(fd, registry_, *peer, std::move(secondary), groups_, *budget_);
    Connection* conn = owned.get();
    {
      MutexLock lock(mu_);
      size_t& of_user = user_connections_[peer->uid];
      if (connections_.size() >= max_connections_ || of_user >= options_.max_connections_per_user) {
        if (of_user == 0) user_connections_.erase(peer->uid);
        owned.reset();
        close(fd);
        continue;
      }
      ++of_user;
      connections_.emplace(conn, std::move(owned));
    }
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    ev.data.ptr = conn;
    conn->parked_since.store(NowMs(), std::memory_order_relaxed);
    conn->Release();
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) CloseConnection(*conn);
  }
  if (stopping_) return;
  Arm(listen_fd, tag, EPOLLIN | EPOLLONESHOT);
}

void Server::Impl::Serve(Connection& conn, uint32_t events, std::vector<uint8_t>& stub_out) {
  conn.Acquire();
  if (conn.parked_since.exchange(kBusy, std::memory_order_acq_rel) == kReaped ||
      (events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP))) {
    CloseConnection(conn);
    return;
  }
  if ((events & EPOLLOUT) && !Flush(conn)) return;
  if ((events & EPOLLIN) && Receive(conn, false) == Input::kClosed) return;
  for (;;) {
    // One call at a time: each answer is sent before the next request is looked at.
    while (!stopping_ && !conn.closing && conn.pending_output() < kOutputHighWater) {
      PendingCall call;
      Association::Step step = conn.association.Next(conn.output, call);
      if (step == Association::Step::kClose) conn.closing = true;
      if (step != Association::Step::kCall) break;
      KeepOneWaiting();
      stub_out.clear();
      uint32_t status = RunHandler(call, stub_out);
      conn.association.Complete(call, status, stub_out, conn.output);
      if (stub_out.capacity() > kKeptStubCapacity) std::vector<uint8_t>().swap(stub_out);
      if (!Flush(conn)) return;
    }
    if (!Flush(conn)) return;
    if (stopping_) {
      CloseConnection(conn);
      return;
    }
    // Wait here for the next request only while that cannot starve other connections of workers,
    // while the client reads its answers, and not for the rest of a request begun (a client that
    // trickles its bytes must not keep a worker).
    if (conn.pending_output() > 0 || conn.association.buffered() > 0 ||
        conn.association.mid_request() ||
        worker_count_.load(std::memory_order_relaxed) >= max_workers_) {
      break;
    }
    KeepOneWaiting();
    Input input = Receive(conn, true);
    if (input == Input::kClosed) return;
    if (input == Input::kNone) break;
  }
  Rearm(conn);
}
Server::Impl::Input Server::Impl::Receive(Connection& conn, bool wait) {
  // A thread asleep in recv on a socket is also woken each time the peer reads what this side sent
  // (both wake-ups share the socket's wait queue): a second wake-up per call, and a second trip
  // across CPUs when client and service run on different ones. poll sleeps until input arrives.
  if (wait) {
    pollfd input{conn.fd, POLLIN | POLLRDHUP, 0};
    int ready;
    do {
      ready = poll(&input, 1, kLingerMs);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) return Input::kNone;
  }
  uint8_t buffer[kReadChunk];
  for (;;) {
    ssize_t n = recv(conn.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n > 0) {
      conn.association.Feed({buffer, static_cast<size_t>(n)});
      return Input::kData;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Input::kNone;
    CloseConnection(conn);
    return Input::kClosed;
  }
}

bool Server::Impl::Flush(Connection& conn) {
  while (conn.pending_output() > 0) {
    ssize_t n = send(conn.fd, conn.output.data() + conn.output_pos, conn.pending_output(),
                     MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (n < 0) {
      CloseConnection(conn);
      return false;
    }
    conn.output_pos += static_cast<size_t>(n);
  }
  conn.output.clear();
  conn.output_pos = 0;
  if (conn.closing) {
    CloseConnection(conn);
    return false;
  }
  return true;
}

void Server::Impl::Rearm(Connection& conn) {
  epoll_event ev{};
  // A client that stops reading its answers stops being read.
  ev.events = EPOLLRDHUP | EPOLLONESHOT;
  if (!conn.closing && conn.pending_output() < kOutputHighWater) ev.events |= EPOLLIN;
  if (conn.pending_output() > 0) ev.events |= EPOLLOUT;
  ev.data.ptr = &conn;
  const int fd = conn.fd;
  // Removed and added again rather than modified: thread sanitizers see an add, not a modify, as
  // publishing the connection to the worker that takes its next event. Re-arming is rare enough
  // (a busy connection stays with its worker) for the extra call not to matter.
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  conn.assoc_group.store(conn.association.peer().assoc_group_id, std::memory_order_relaxed);
  conn.parked_since.store(NowMs(), std::memory_order_release);
  conn.Release();
  // From here on another worker may hold the connection, unless re-arming failed.
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) CloseConnection(conn);
}

void Server::Impl::CloseConnection(Connection& conn) {
  const PeerIdentity peer = conn.association.peer();
  const int fd = conn.fd;
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  {
    // Stop and housekeeping may shut the socket down while it is listed.
    MutexLock lock(mu_);
    connections_.erase(&conn);
    const auto of_user = user_connections_.find(peer.uid);
    if (of_user != user_connections_.end() && --of_user->second == 0) {
      user_connections_.erase(of_user);
    }
  }
  close(fd);
  ResumeAccepting();
  if (closed_callback_) {
    KeepOneWaiting();
    closed_callback_(peer);
  }
}

Server::Server() : impl_(std::make_unique<Impl>()) {}
Server::~Server() = default;

bool Server::RegisterInterface(const SyntaxId& iface, InterfaceHandler handler) {
  return impl_->RegisterInterface(iface, std::move(handler));
}

void Server::SetConnectionClosedCallback(ConnectionClosedCallback callback) {
  impl_->SetConnectionClosedCallback(std::move(callback));
}

void Server::SetHoldsStateCallback(HoldsStateCallback callback) {
  impl_->SetHoldsStateCallback(std::move(callback));
}

int Server::Start(const ServerOptions& options) { return impl_->Start(options); }
uint16_t Server::tcp_port() const { return impl_->tcp_port(); }
void Server::Stop() { impl_->Stop(); }
void Server::Wait() { impl_->Wait(); }

}  // namespace kesttcs::dcerpc
