// Test helper: a swtpm process with its state and Unix sockets in a fresh temporary directory
// (optionally seeded with the files of a saved state), started in the constructor and stopped
// (SIGTERM, then reaped) by Stop or the destructor.
#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "temp_dir.h"
#include "tpm/fd_io.h"

namespace kesttcs::testing {

inline bool SwtpmInstalled() { return ::system("command -v swtpm >/dev/null 2>&1") == 0; }

class SwtpmProcess {
 public:
  // startupClear: the TPM is started by swtpm itself; otherwise it waits for TPM_Startup.
  // tcpPorts: {data, ctrl} to listen on 127.0.0.1 instead of Unix sockets.
  // initialState: a directory whose files (a state saved from state_dir()) swtpm starts from.
  explicit SwtpmProcess(bool startupClear, std::pair<int, int> tcpPorts = {0, 0},
                        const std::filesystem::path& initialState = {}) {
    if (!initialState.empty()) {
      std::filesystem::copy(initialState, dir_.path(), std::filesystem::copy_options::recursive);
    }
    data_ = dir_.path() + "/data.sock";
    ctrl_ = dir_.path() + "/ctrl.sock";
    std::vector<std::string> args = {"swtpm", "socket", "--tpmstate", "dir=" + dir_.path()};
    if (tcpPorts.first != 0) {
      args.insert(
          args.end(),
          {"--server", "type=tcp,port=" + std::to_string(tcpPorts.first) + ",bindaddr=127.0.0.1",
           "--ctrl", "type=tcp,port=" + std::to_string(tcpPorts.second) + ",bindaddr=127.0.0.1"});
    } else {
      args.insert(args.end(),
                  {"--server", "type=unixio,path=" + data_, "--ctrl", "type=unixio,path=" + ctrl_});
    }
    args.insert(args.end(),
                {"--flags", startupClear ? "not-need-init,startup-clear" : "not-need-init"});
    pid_ = ::fork();
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execvp("swtpm", argv.data());
      ::_exit(127);
    }
    tcp_ = tcpPorts.first != 0;
    ports_ = tcpPorts;
  }
  ~SwtpmProcess() { Stop(); }
  // Ends swtpm (SIGTERM, then reaped); its state stays in state_dir() until destruction.
  void Stop() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
    }
  }
  SwtpmProcess(const SwtpmProcess&) = delete;
  SwtpmProcess& operator=(const SwtpmProcess&) = delete;

  // Waits (at most 10 s) until both sockets accept connections; false if swtpm died or never got
  // there.
  bool WaitReady() {
    for (int i = 0; i < 1000; ++i) {
      int status = 0;
      if (pid_ <= 0 || ::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      // A connection that closes at once is harmless to swtpm: it reads end-of-stream and
      // waits for the next one.
      std::string error;
      bool up = tcp_ ? ConnectTcp("127.0.0.1", ports_.first, &error).valid() &&
                           ConnectTcp("127.0.0.1", ports_.second, &error).valid()
                     : ConnectUnix(data_, &error).valid() && ConnectUnix(ctrl_, &error).valid();
      if (up) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  const std::string& state_dir() const { return dir_.path(); }
  const std::string& data_path() const { return data_; }
  const std::string& ctrl_path() const { return ctrl_; }
  std::string UnixConfig() const { return "swtpm:unix:" + data_ + "," + ctrl_; }

  // A loopback TCP port that nothing listens on right now.
  static int FreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
      port = ntohs(addr.sin_port);
    }
    ::close(fd);
    return port;
  }

 private:
  TempDir dir_;
  std::string data_;
  std::string ctrl_;
  pid_t pid_ = -1;
  bool tcp_ = false;
  std::pair<int, int> ports_;
};

}  // namespace kesttcs::testing
