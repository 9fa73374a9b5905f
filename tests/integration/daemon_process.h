// Running the real kesttcsd (and other programs) as child processes in a temporary directory: the
// processes, their output, the notify socket systemd would offer, and reading their traces.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace kesttcs::daemon_process {

namespace fs = std::filesystem;

inline const std::string kDaemon = std::string(KESTTCS_BINARY_DIR) + "/src/service/kesttcsd";
inline const std::string kCli = std::string(KESTTCS_BINARY_DIR) + "/src/tools/kesttcs-cli";

// Generous upper bounds that only keep a broken daemon from hanging the suite.
inline constexpr auto kPatience = std::chrono::seconds(120);

inline std::string ReadFile(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void WriteFile(const fs::path& path, const std::string& text,
                      fs::perms perms = fs::perms(0644)) {
  std::ofstream(path) << text;
  fs::permissions(path, perms);
}

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream s(text);
  for (std::string line; std::getline(s, line);) lines.push_back(line);
  return lines;
}

// Trace lines ("TCS:...") in the order they were written.
inline std::vector<std::string> TraceLines(const std::string& text) {
  std::vector<std::string> traces;
  for (const std::string& line : Lines(text)) {
    if (line.rfind("TCS:", 0) == 0) traces.push_back(line);
  }
  return traces;
}

// Position of `line` in `lines`, or -1.
inline long IndexOf(const std::vector<std::string>& lines, const std::string& line) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == line) return static_cast<long>(i);
  }
  return -1;
}

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "kesttcs-service-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ec;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path_, ec);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// The datagram socket systemd would listen on.
class NotifySocket {
 public:
  explicit NotifySocket(const fs::path& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << strerror(errno);
    // The daemon may run as another user in the failure cases.
    chmod(path.c_str(), 0777);
  }
  ~NotifySocket() { close(fd_); }
  const fs::path& path() const { return path_; }

  // The next message, or nothing when none came in time.
  std::optional<std::string> Next() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0) {
      return std::nullopt;
    }
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n < 0) return std::nullopt;
    return std::string(buffer, static_cast<size_t>(n));
  }
  // Messages up to and including the first that contains `marker` (all that came, if none did).
  std::vector<std::string> Until(const std::string& marker) {
    std::vector<std::string> messages;
    while (std::optional<std::string> m = Next()) {
      messages.push_back(*m);
      if (m->find(marker) != std::string::npos) break;
    }
    return messages;
  }
  // Messages still queued, without waiting.
  std::vector<std::string> Drain() {
    std::vector<std::string> messages;
    char buffer[4096];
    for (;;) {
      const ssize_t n = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (n < 0) break;
      messages.emplace_back(buffer, static_cast<size_t>(n));
    }
    return messages;
  }

 private:
  fs::path path_;
  int fd_ = -1;
};

struct RunResult {
  int exitStatus = -1;  // -1 when killed by a signal or not finished
  std::string out;
  std::string err;
};

// A child process with its own environment; stdout and stderr go to files in `dir`.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::vector<std::string>& env,
          const fs::path& dir, std::optional<std::pair<uid_t, gid_t>> runAs = std::nullopt,
          std::optional<rlim_t> openFileLimit = std::nullopt)
      : out_(dir / "stdout.txt"), err_(dir / "stderr.txt") {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> environment = env;
    environment.push_back("PATH=/usr/bin:/bin");
    std::vector<char*> envp;
    for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const int outFd = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    const int errFd = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(outFd, STDOUT_FILENO);
      dup2(errFd, STDERR_FILENO);
      const rlimit files = {openFileLimit.value_or(0), openFileLimit.value_or(0)};
      if (openFileLimit && setrlimit(RLIMIT_NOFILE, &files) != 0) _exit(125);
      if (runAs &&
          (setgroups(0, nullptr) != 0 || setgid(runAs->second) != 0 || setuid(runAs->first) != 0)) {
        _exit(126);
      }
      execve(args[0], args.data(), envp.data());
      _exit(127);
    }
    close(outFd);
    close(errFd);
  }
  ~Process() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Signals the process while it runs (never anything else: kill(-1) would reach every process).
  void Signal(int sig) {
    if (pid_ > 0) kill(pid_, sig);
  }
  pid_t pid() const { return pid_; }

  // Waits for the end (killing the process when it takes beyond all patience).
  RunResult Wait() {
    RunResult result;
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    pid_t done = 0;
    while ((done = waitpid(pid_, &status, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (done == 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    if (done > 0 && WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    result.out = ReadFile(out_);
    result.err = ReadFile(err_);
    return result;
  }

 private:
  pid_t pid_ = -1;
  fs::path out_;
  fs::path err_;
};

inline RunResult RunProgram(const std::vector<std::string>& argv,
                            const std::vector<std::string>& env, const fs::path& dir) {
  Process p(argv, env, dir);
  return p.Wait();
}

}  // namespace kesttcs::daemon_process
