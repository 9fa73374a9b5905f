#include "reliability.h"

#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace kesttcs::reliability {

Daemon::Daemon(const DaemonOptions& options) {
  // Other users reach the socket (whose own mode and group then decide).
  fs::permissions(dir_.path(), fs::perms(0755));
  home_ = dir_.path() / "home";
  fs::create_directory(home_);
  socket_ = dir_.path() / "KestTCS";
  if (options.tcp) tcp_port_ = FreeTcpPort();
  WriteFile(home_ / "tcs_cfg.ini",
            "[TPM]\nbackend=" + options.tpm + "\n[RPC]\nsocket=" + socket_.string() +
                "\ntcp_port=" + std::to_string(tcp_port_) + "\n" + options.rpc_keys);
  notify_ = std::make_unique<NotifySocket>(dir_.path() / "notify");
  arguments_ = options.arguments;
  open_files_ = options.open_files;
  Start();
}

std::chrono::steady_clock::duration Daemon::Start() {
  std::vector<std::string> argv = {kDaemon};
  argv.insert(argv.end(), arguments_.begin(), arguments_.end());
  std::vector<std::string> env = Environment(home_);
  env.push_back("NOTIFY_SOCKET=" + notify_->path().string());
  const auto start = std::chrono::steady_clock::now();
  process_ = std::make_unique<Process>(argv, env, dir_.path(), std::nullopt, open_files_);
  if (arguments_.empty()) {
    const std::vector<std::string> startup = notify_->Until("READY=1");
    EXPECT_TRUE(!startup.empty() && startup.back() == "READY=1\nSTATUS=Running")
        << ReadFile(dir_.path() / "stderr.txt");
  } else {
    WaitFor([this] { return fs::exists(socket_); }, kPatience);
  }
  return std::chrono::steady_clock::now() - start;
}

Daemon::~Daemon() { Stop(); }

RunResult Daemon::Stop() {
  if (!process_) return {};
  process_->Signal(SIGTERM);
  RunResult result = process_->Wait();
  process_.reset();
  return result;
}

std::vector<std::string> Daemon::Environment(const fs::path& home) const {
  return {"KESTTCS_HOME=" + home.string(), "RUNTIME_DIRECTORY=" + dir_.path().string()};
}

namespace {

std::string ProcFile(pid_t pid, const char* name) {
  return ReadFile(fs::path("/proc") / std::to_string(pid) / name);
}

long StatusField(pid_t pid, const std::string& field) {
  std::stringstream status(ProcFile(pid, "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
  }
  return -1;
}

}  // namespace

double Daemon::CpuSeconds() const {
  const std::string stat = ProcFile(pid(), "stat");
  // Fields after the command name (which may hold blanks) start behind its closing parenthesis;
  // utime and stime are fields 14 and 15, the 12th and 13th after it.
  std::stringstream rest(stat.substr(stat.rfind(')') + 2));
  std::string field;
  for (int i = 0; i < 11; ++i) rest >> field;
  long utime = 0;
  long stime = 0;
  rest >> utime >> stime;
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long Daemon::Threads() const { return StatusField(pid(), "Threads"); }
long Daemon::ResidentKiB() const { return StatusField(pid(), "VmRSS"); }

uint16_t FreeTcpPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

int ConnectUnix(const fs::path& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.string().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

int ConnectTcp(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

bool ClosedByServer(int fd, std::chrono::milliseconds patience) {
  char buffer[4096];
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) != 1) continue;
    if (recv(fd, buffer, sizeof(buffer), 0) <= 0) return true;
  }
  return false;
}

bool CanActAsOtherUsers() {
  return geteuid() == 0 && getpwnam("nobody") != nullptr && getgrnam("tss") != nullptr;
}

uid_t NobodyUid() { return getpwnam("nobody")->pw_uid; }
gid_t NobodyGid() { return getpwnam("nobody")->pw_gid; }
gid_t TssGid() { return getgrnam("tss")->gr_gid; }

int RunAs(uid_t uid, gid_t gid, const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(126);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return done();
}

}  // namespace kesttcs::reliability
