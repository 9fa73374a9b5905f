#include "rpc/dcerpc/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <new>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"

namespace kesttcs::dcerpc {

namespace {

constexpr size_t kReadChunk = 64 * 1024;
// A connection is not read while more than this many response bytes wait to be sent.
constexpr size_t kOutputHighWater = 64 * 1024;
constexpr int kMaxEvents = 256;

// Waits once on `cv`; the caller holds `mu` through a MutexLock.
void WaitOnce(std::condition_variable& cv, Mutex& mu) REQUIRES(mu) {
  std::unique_lock<std::mutex> lock(mu.native(), std::adopt_lock);
  cv.wait(lock);
  lock.release();
}

// Runs tasks on threads started on demand, at most `max_threads` of them, kept until Shutdown.
class WorkerPool {
 public:
  explicit WorkerPool(size_t max_threads) : max_threads_(max_threads) {}
  ~WorkerPool() { Shutdown(); }

  void Submit(std::function<void()> task) EXCLUDES(mu_) {
    MutexLock lock(mu_);
    tasks_.push_back(std::move(task));
    if (idle_ < tasks_.size() && threads_.size() < max_threads_) {
      threads_.emplace_back([this] { Run(); });
    }
    cv_.notify_one();
  }

  // Runs the tasks still queued, then joins every thread.
  void Shutdown() EXCLUDES(mu_) {
    std::vector<std::thread> threads;
    {
      MutexLock lock(mu_);
      stopping_ = true;
      threads.swap(threads_);
      cv_.notify_all();
    }
    for (std::thread& t : threads) t.join();
  }

 private:
  void Run() EXCLUDES(mu_) {
    MutexLock lock(mu_);
    for (;;) {
      if (!tasks_.empty()) {
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        mu_.Unlock();
        task();
        mu_.Lock();
        continue;
      }
      if (stopping_) return;
      ++idle_;
      WaitOnce(cv_, mu_);
      --idle_;
    }
  }

  const size_t max_threads_;
  Mutex mu_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> tasks_ GUARDED_BY(mu_);
  std::vector<std::thread> threads_ GUARDED_BY(mu_);
  size_t idle_ GUARDED_BY(mu_) = 0;
  bool stopping_ GUARDED_BY(mu_) = false;
};

// One accepted connection; touched only by the event-loop thread.
struct Connection {
  Connection(int fd_in, const InterfaceRegistry& registry, PeerIdentity peer_in,
             std::string secondary_address)
      : fd(fd_in),
        peer(peer_in),
        association(registry, peer_in, std::move(secondary_address),
                    static_cast<uint32_t>(0x10000 + peer_in.connection_id)) {}

  size_t pending_output() const { return output.size() - output_pos; }

  int fd;
  PeerIdentity peer;
  Association association;
  std::vector<uint8_t> output;
  size_t output_pos = 0;
  bool call_in_flight = false;
  bool peer_gone = false;  // removed from epoll; closed once its call finishes
  bool closing = false;    // protocol error: close once the output is sent
  uint32_t events = 0;     // the epoll interest set now registered
};

// A handler's result, handed from a worker back to the loop.
struct Completion {
  int fd;
  uint64_t connection_id;
  PendingCall call;
  uint32_t status;
  std::vector<uint8_t> stub_out;
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

  int Start(const ServerOptions& options) EXCLUDES(state_mu_);
  uint16_t tcp_port() const { return tcp_port_; }
  void Stop() EXCLUDES(state_mu_);
  void Wait() EXCLUDES(state_mu_);

 private:
  enum class State { kIdle, kRunning, kStopping, kStopped };

  void Loop();
  void Wake();
  void Accept(int listen_fd, Transport transport);
  void OnConnectionEvent(int fd, uint32_t events);
  // The functions below may close the connection. They return false when it is gone or waits
  // only for its call to finish; the caller must not touch it further then.
  bool ReadFrom(Connection& conn);
  bool Pump(Connection& conn);
  bool Flush(Connection& conn);
  bool PeerGone(Connection& conn);
  void UpdateEvents(Connection& conn);
  void CloseConnection(Connection& conn);
  void Dispatch(Connection& conn, PendingCall call);
  void ProcessCompletions() EXCLUDES(mu_);
  void BeginStop();

  // Set before Start, read-only while running.
  InterfaceRegistry registry_;
  ConnectionClosedCallback closed_callback_;
  ServerOptions options_;
  uint16_t tcp_port_ = 0;
  int epoll_fd_ = -1;
  int wake_fd_ = -1;
  int unix_fd_ = -1;
  int tcp_fd_ = -1;
  std::thread loop_;
  std::unique_ptr<WorkerPool> pool_;

  // Start/Stop/Wait state. Taken before mu_ when both are needed.
  Mutex state_mu_;
  std::condition_variable state_cv_;
  State state_ GUARDED_BY(state_mu_) = State::kIdle;

  // Hand-over from workers and Stop to the loop thread.
  Mutex mu_ ACQUIRED_AFTER(state_mu_);
  std::vector<Completion> completions_ GUARDED_BY(mu_);
  bool stop_requested_ GUARDED_BY(mu_) = false;

  // Event-loop thread only.
  std::unordered_map<int, std::unique_ptr<Connection>> connections_;
  uint64_t next_connection_id_ = 1;
  size_t calls_in_flight_ = 0;
  bool stopping_ = false;
};

int Server::Impl::Start(const ServerOptions& options) {
  MutexLock lock(state_mu_);
  if (state_ != State::kIdle) return EALREADY;
  options_ = options;
  int error = 0;
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (epoll_fd_ < 0 || wake_fd_ < 0) error = errno;
  if (error == 0 && !options.unix_path.empty()) {
    unix_fd_ = ListenUnix(options.unix_path, options.socket_group, error);
  }
  if (error == 0 && options.tcp_port) tcp_fd_ = ListenTcp(*options.tcp_port, tcp_port_, error);
  for (int fd : {wake_fd_, unix_fd_, tcp_fd_}) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (error == 0 && fd >= 0 && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) error = errno;
  }
  if (error != 0) {
    for (int* fd : {&epoll_fd_, &wake_fd_, &unix_fd_, &tcp_fd_}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
    if (!options.unix_path.empty() && error != EEXIST) unlink(options.unix_path.c_str());
    tcp_port_ = 0;
    return error;
  }
  pool_ = std::make_unique<WorkerPool>(options.max_calls == 0 ? 1 : options.max_calls);
  stopping_ = false;
  {
    MutexLock hand_over(mu_);
    stop_requested_ = false;
  }
  state_ = State::kRunning;
  loop_ = std::thread([this] { Loop(); });
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
    MutexLock hand_over(mu_);
    stop_requested_ = true;
  }
  Wake();
  loop_.join();
  pool_->Shutdown();
  pool_.reset();
  close(epoll_fd_);
  close(wake_fd_);
  epoll_fd_ = wake_fd_ = -1;
  MutexLock lock(state_mu_);
  state_ = State::kStopped;
  state_cv_.notify_all();
}

void Server::Impl::Wait() {
  MutexLock lock(state_mu_);
  while (state_ == State::kRunning || state_ == State::kStopping) WaitOnce(state_cv_, state_mu_);
}

void Server::Impl::Wake() {
  uint64_t one = 1;
  ssize_t written = write(wake_fd_, &one, sizeof(one));
  (void)written;  // a full counter already wakes the loop
}

void Server::Impl::Loop() {
  epoll_event events[kMaxEvents];
  while (!stopping_ || calls_in_flight_ > 0) {
    int n = epoll_wait(epoll_fd_, events, kMaxEvents, -1);
    if (n < 0 && errno != EINTR) break;
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == wake_fd_) {
        uint64_t count = 0;
        ssize_t got = read(wake_fd_, &count, sizeof(count));
        (void)got;
        ProcessCompletions();
      } else if (fd == unix_fd_ && unix_fd_ >= 0) {
        Accept(fd, Transport::kUnixStream);
      } else if (fd == tcp_fd_ && tcp_fd_ >= 0) {
        Accept(fd, Transport::kTcp);
      } else {
        OnConnectionEvent(fd, events[i].events);
      }
    }
  }
  // Every call has finished: close what is left.
  while (!connections_.empty()) CloseConnection(*connections_.begin()->second);
}

void Server::Impl::BeginStop() {
  stopping_ = true;
  for (int* fd : {&unix_fd_, &tcp_fd_}) {
    if (*fd < 0) continue;
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, *fd, nullptr);
    close(*fd);
    *fd = -1;
  }
  if (!options_.unix_path.empty()) unlink(options_.unix_path.c_str());
  std::vector<Connection*> idle;
  for (auto& [fd, conn] : connections_) {
    if (!conn->call_in_flight) idle.push_back(conn.get());
  }
  for (Connection* conn : idle) {
    if (Flush(*conn)) CloseConnection(*conn);  // best effort: answers already queued
  }
}

void Server::Impl::Accept(int listen_fd, Transport transport) {
  for (;;) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;  // EAGAIN, or a transient error such as EMFILE
    if (connections_.size() >= options_.max_connections) {
      close(fd);
      continue;
    }
    PeerIdentity peer;
    peer.connection_id = next_connection_id_++;
    peer.transport = transport;
    std::string secondary = options_.unix_path;
    if (transport == Transport::kUnixStream) {
      ucred cred{};
      socklen_t len = sizeof(cred);
      if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
        peer.has_credentials = true;
        peer.pid = cred.pid;
        peer.uid = cred.uid;
        peer.gid = cred.gid;
      }
    } else {
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      secondary = std::to_string(tcp_port_);
    }
    auto conn = std::make_unique<Connection>(fd, registry_, peer, std::move(secondary));
    epoll_event ev{};
    ev.events = conn->events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = fd;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      close(fd);
      continue;
    }
    connections_.emplace(fd, std::move(conn));
  }
}

void Server::Impl::OnConnectionEvent(int fd, uint32_t events) {
  auto it = connections_.find(fd);
  if (it == connections_.end()) return;
  Connection& conn = *it->second;
  if ((events & EPOLLIN) && (conn.events & EPOLLIN) && !ReadFrom(conn)) return;
  // Input held back while the output was full may hold whole requests.
  if ((events & EPOLLOUT) && (!Flush(conn) || !Pump(conn))) return;
  if (events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) PeerGone(conn);
}

bool Server::Impl::ReadFrom(Connection& conn) {
  uint8_t buffer[kReadChunk];
  ssize_t n = recv(conn.fd, buffer, sizeof(buffer), 0);
  if (n == 0) return PeerGone(conn);
  if (n < 0) {
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? true : PeerGone(conn);
  }
  conn.association.Feed({buffer, static_cast<size_t>(n)});
  return Pump(conn);
}

bool Server::Impl::Pump(Connection& conn) {
  while (!conn.call_in_flight && !conn.closing && conn.pending_output() < kOutputHighWater) {
    PendingCall call;
    Association::Step step = conn.association.Next(conn.output, call);
    if (step == Association::Step::kCall) {
      Dispatch(conn, std::move(call));
    } else {
      if (step == Association::Step::kClose) conn.closing = true;
      break;
    }
  }
  return Flush(conn);
}

void Server::Impl::Dispatch(Connection& conn, PendingCall call) {
  conn.call_in_flight = true;
  ++calls_in_flight_;
  pool_->Submit(
      [this, fd = conn.fd, id = conn.peer.connection_id, call = std::move(call)]() mutable {
        std::vector<uint8_t> stub_out;
        uint32_t status = RunHandler(call, stub_out);
        {
          MutexLock lock(mu_);
          completions_.push_back({fd, id, std::move(call), status, std::move(stub_out)});
        }
        Wake();
      });
}

void Server::Impl::ProcessCompletions() {
  std::vector<Completion> done;
  bool stop = false;
  {
    MutexLock lock(mu_);
    done.swap(completions_);
    stop = stop_requested_;
  }
  for (Completion& c : done) {
    auto it = connections_.find(c.fd);
    if (it == connections_.end() || it->second->peer.connection_id != c.connection_id) continue;
    Connection& conn = *it->second;
    conn.call_in_flight = false;
    --calls_in_flight_;
    if (conn.peer_gone) {
      CloseConnection(conn);
      continue;
    }
    conn.association.Complete(c.call, c.status, c.stub_out, conn.output);
    if (stopping_) {
      if (Flush(conn)) CloseConnection(conn);
    } else {
      Pump(conn);
    }
  }
  if (stop && !stopping_) BeginStop();
}

bool Server::Impl::Flush(Connection& conn) {
  while (conn.pending_output() > 0) {
    ssize_t n = send(conn.fd, conn.output.data() + conn.output_pos, conn.pending_output(),
                     MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) break;
      conn.output.clear();
      conn.output_pos = 0;
      return PeerGone(conn);
    }
    conn.output_pos += static_cast<size_t>(n);
  }
  if (conn.pending_output() == 0) {
    conn.output.clear();
    conn.output_pos = 0;
    if (conn.closing) {
      CloseConnection(conn);
      return false;
    }
  }
  UpdateEvents(conn);
  return true;
}

bool Server::Impl::PeerGone(Connection& conn) {
  if (conn.call_in_flight) {
    conn.peer_gone = true;
    epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, conn.fd, nullptr);
    conn.events = 0;
    return false;
  }
  CloseConnection(conn);
  return false;
}

void Server::Impl::UpdateEvents(Connection& conn) {
  if (conn.peer_gone) return;
  uint32_t want = EPOLLRDHUP;
  if (!conn.call_in_flight && !conn.closing && conn.pending_output() < kOutputHighWater) {
    want |= EPOLLIN;
  }
  if (conn.pending_output() > 0) want |= EPOLLOUT;
  if (want == conn.events) return;
  epoll_event ev{};
  ev.events = want;
  ev.data.fd = conn.fd;
  epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, conn.fd, &ev);
  conn.events = want;
}

void Server::Impl::CloseConnection(Connection& conn) {
  int fd = conn.fd;
  PeerIdentity peer = conn.peer;
  if (!conn.peer_gone) epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  close(fd);
  connections_.erase(fd);  // destroys conn
  if (closed_callback_) {
    pool_->Submit([callback = &closed_callback_, peer] { (*callback)(peer); });
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

int Server::Start(const ServerOptions& options) { return impl_->Start(options); }
uint16_t Server::tcp_port() const { return impl_->tcp_port(); }
void Server::Stop() { impl_->Stop(); }
void Server::Wait() { impl_->Wait(); }

}  // namespace kesttcs::dcerpc
