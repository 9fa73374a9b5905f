// Test helper: the real kesttcsd (-debug) on the embedded TPM in a home of its own, started,
// stopped and killed by its process id; and a TPM 1.2 state with an owner (owner and SRK secrets
// well known), made once per test binary by swtpm_setup and converted to the embedded TPM's file.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_client.h>

#include "swtpm_process.h"

extern char** environ;

namespace kesttcs::testing {

namespace fs = std::filesystem;

inline const std::string kKesttcsd = std::string(KESTTCS_BINARY_DIR) + "/src/service/kesttcsd";
inline const std::string kKesttcsCli = std::string(KESTTCS_BINARY_DIR) + "/src/tools/kesttcs-cli";

// Starts argv with `env` ahead of this process's environment, stdout and stderr appended to `log`.
// The process id, or -1.
inline pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                   const fs::path& log) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

// The exit status of `pid` once it ends; -1 when it ended by a signal.
inline int WaitForExit(pid_t pid) {
  int status = 0;
  if (pid <= 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Runs kesttcs-cli with `args` against the service at `socket`, its stdout and stderr going to
// the file `log` (replaced): the exit status and what it wrote.
inline std::pair<int, std::string> RunKesttcsCli(const std::vector<std::string>& args,
                                                 const std::string& socket, const fs::path& log) {
  std::vector<std::string> argv = {kKesttcsCli, "--endpoint", socket};
  argv.insert(argv.end(), args.begin(), args.end());
  fs::remove(log);
  const int status = WaitForExit(Spawn(argv, {}, log));
  std::ifstream in(log, std::ios::binary);
  return {status, std::string(std::istreambuf_iterator<char>(in), {})};
}

// Tcsip_CreateEndorsementKeyPair with a 2048-bit RSA key: a fresh swtpm has no endorsement key.
inline void CreateEndorsementKey(TCS_CONTEXT_HANDLE h) {
  TPM_NONCE antiReplay{};
  UINT32 ekSize = 0;
  BYTE* ek = nullptr;
  TPM_DIGEST checksum{};
  BYTE keyParms[] = {0, 0, 0, 1, 0, 3, 0, 1, 0, 0, 0, 12, 0, 0, 8, 0, 0, 0, 0, 2, 0, 0, 0, 0};
  ASSERT_EQ(Tcsip_CreateEndorsementKeyPair(h, antiReplay, sizeof keyParms, keyParms, &ekSize, &ek,
                                           &checksum),
            0u);
  Tcs_FreeBuffer(ek);
}

// The permanent state ("00.permall") of a TPM 1.2 with an owner; empty when it cannot be made.
inline std::string OwnedTpmState() {
  static const TempDir dir;
  static const std::string state = [] {
    const fs::path log = fs::path(dir.path()) / "swtpm_setup.log";
    const pid_t setup =
        Spawn({"/usr/bin/swtpm_setup", "--tpmstate", dir.path(), "--take-ownership",
               "--owner-well-known", "--srk-well-known", "--createek", "--overwrite"},
              {}, log);
    if (WaitForExit(setup) != 0) return std::string();
    // swtpm keeps the state behind a 16-byte header of its own.
    std::ifstream in(fs::path(dir.path()) / "tpm-00.permall", std::ios::binary);
    in.seekg(16);
    const fs::path out = fs::path(dir.path()) / "00.permall";
    std::ofstream(out, std::ios::binary) << in.rdbuf();
    return out.string();
  }();
  return state;
}

class KesttcsdProcess {
 public:
  // Writes `home`'s tcs_cfg.ini (the TPM `backend`, by default the embedded one; the socket in the
  // home); with `owned` the embedded TPM starts from OwnedTpmState().
  KesttcsdProcess(const fs::path& home, bool owned, const std::string& backend = "libtpms")
      : home_(home) {
    fs::create_directories(home / "tpm");
    std::ofstream(home / "tcs_cfg.ini")
        << "[LOG]\nneedLog=0\n[TPM]\nbackend=" << backend << "\n[RPC]\nsocket=" << socket() << "\n";
    if (owned) fs::copy_file(OwnedTpmState(), home / "tpm" / "00.permall");
  }
  ~KesttcsdProcess() { Kill(); }
  KesttcsdProcess(const KesttcsdProcess&) = delete;
  KesttcsdProcess& operator=(const KesttcsdProcess&) = delete;

  std::string socket() const { return (home_ / "KestTCS").string(); }
  pid_t pid() const { return pid_; }

  // Starts the daemon and connects this process's client connection to it once it answers.
  // False when it does not answer (within a generous bound that only keeps a broken daemon from
  // hanging the suite).
  bool Start() {
    pid_ = Spawn({kKesttcsd, "-debug"}, {"KESTTCS_HOME=" + home_.string()}, home_ / "kesttcsd.log");
    if (pid_ <= 0) return false;
    for (int i = 0; i < 6000; ++i) {
      if (Tcs_Connect(socket().c_str()) == 0) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {  // start-up failed: see kesttcsd.log
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // SIGTERM and the exit status (-1 when it did not exit by itself).
  int Stop() { return End(SIGTERM); }
  // SIGKILL, as a crash or power cut ends a process.
  void Kill() { End(SIGKILL); }

 private:
  int End(int signal) {
    if (pid_ <= 0) return -1;
    Tcs_Disconnect();
    kill(pid_, signal);
    const int status = WaitForExit(pid_);
    pid_ = -1;
    return status;
  }

  fs::path home_;
  pid_t pid_ = -1;
};

}  // namespace kesttcs::testing
