// -install and -remove: the service's systemd unit, written and removed with the console texts the
// service manager commands print.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/logging.h"
#include "service/host_paths.h"
#include "service/linux/host.h"
#include "service/message_file.h"
#include "service/service_status.h"

extern char** environ;

namespace kesttcs::host {
namespace {

constexpr char kUnitName[] = "KestTCS.service";
constexpr char kDefaultHome[] = "/var/lib/kesttcs";

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return (value != nullptr && *value != '\0') ? value : fallback;
}

std::string UnitDirectory() { return EnvOr("KESTTCS_SYSTEMD_DIR", "/etc/systemd/system"); }
std::string UnitPath() { return UnitDirectory() + "/" + kUnitName; }
std::string Systemctl() { return EnvOr("KESTTCS_SYSTEMCTL", "systemctl"); }
std::string SystemdRuntime() { return EnvOr("KESTTCS_SYSTEMD_RUNTIME", "/run/systemd/system"); }

// The failure of the last step, as the console texts show it.
struct SystemError {
  unsigned code = 0;
  std::string text;
};

SystemError FromErrno(int error, const std::string& what) {
  return {static_cast<unsigned>(error), what + ": " + std::strerror(error)};
}

// "<text> (0x<code>)", the shape of every system error text on the console.
std::string ErrorText(const SystemError& error) {
  char code[24];
  std::snprintf(code, sizeof(code), " (0x%x)", error.code);
  return error.text + code;
}

struct ProgramResult {
  int status = -1;  // exit status; -1 when it could not be started or was killed by a signal
  std::string output;
  SystemError error;
};

// Runs systemctl with `args`, collecting its standard output.
ProgramResult RunSystemctl(const std::vector<std::string>& args) {
  ProgramResult result;
  const std::string program = Systemctl();
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    result.error = FromErrno(errno, "pipe");
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  pid_t pid = 0;
  const int rc = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (rc != 0) {
    close(pipeFds[0]);
    result.error = FromErrno(rc, "cannot run " + program);
    return result;
  }
  char buffer[512];
  for (;;) {
    const ssize_t n = read(pipeFds[0], buffer, sizeof(buffer));
    if (n > 0) {
      result.output.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (result.status != 0) {
    std::string command = "systemctl";
    for (const std::string& a : args) command += " " + a;
    result.error = {static_cast<unsigned>(result.status < 0 ? 0xFF : result.status),
                    command + " failed with status " + std::to_string(result.status)};
  }
  return result;
}

// Runs systemctl; true when it exited 0, otherwise `*error` says why.
bool Systemctl(const std::vector<std::string>& args, SystemError* error) {
  ProgramResult r = RunSystemctl(args);
  if (r.status == 0) return true;
  *error = r.error;
  return false;
}

// The unit's active state ("active", "deactivating", "inactive", "failed", ...).
std::string ActiveState() {
  std::string state = RunSystemctl({"is-active", kUnitName}).output;
  while (!state.empty() && (state.back() == '\n' || state.back() == ' ')) state.pop_back();
  return state;
}

// The service manager counterpart: systemd must be running.
bool SystemdRunning(SystemError* error) {
  struct stat st;
  if (stat(SystemdRuntime().c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  *error = {ENOENT, "systemd is not running (" + SystemdRuntime() + " is missing)"};
  return false;
}

// Quotes a value for a unit file line: backslashes and quotes escaped, '%' doubled (specifiers).
std::string UnitQuoted(const std::string& value) {
  std::string quoted = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c == '%') quoted += '%';
    quoted += c;
  }
  return quoted + "\"";
}

bool WriteNewFile(const std::string& path, const std::string& text, SystemError* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = FromErrno(errno, path);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = FromErrno(errno, path);
      close(fd);
      unlink(path.c_str());
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (close(fd) != 0) {
    *error = FromErrno(errno, path);
    unlink(path.c_str());
    return false;
  }
  return true;
}

// The service manager's "create service": the unit is written, systemd reloads it and enables it.
// On failure nothing stays behind.
bool CreateService(const std::string& executable, SystemError* error) {
  const char* home = std::getenv("KESTTCS_HOME");
  if (!WriteNewFile(UnitPath(), SystemdUnitText(executable, home != nullptr ? home : ""), error)) {
    return false;
  }
  if (Systemctl({"daemon-reload"}, error) && Systemctl({"enable", kUnitName}, error)) return true;
  unlink(UnitPath().c_str());
  SystemError ignored;
  Systemctl({"daemon-reload"}, &ignored);
  return false;
}

// The service manager's "delete service": disabled, unit deleted, systemd reloaded.
bool DeleteService(SystemError* error) {
  if (!Systemctl({"disable", kUnitName}, error)) return false;
  if (unlink(UnitPath().c_str()) != 0) {
    *error = FromErrno(errno, UnitPath());
    return false;
  }
  return Systemctl({"daemon-reload"}, error);
}

void SleepOneSecond() { std::this_thread::sleep_for(std::chrono::seconds(1)); }

}  // namespace

std::string SystemdUnitText(const std::string& executable, const std::string& home) {
  std::string unit;
  unit += "[Unit]\n";
  unit += "Description=" + std::string(kServiceDisplayName) + "\n";
  unit += "Documentation=man:kesttcsd(8)\n";
  unit += "\n[Service]\n";
  unit += "Type=notify\n";
  unit += "ExecStart=" + UnitQuoted(executable) + "\n";
  unit +=
      "Environment=" + UnitQuoted("KESTTCS_HOME=" + (home.empty() ? kDefaultHome : home)) + "\n";
  if (home.empty()) unit += "StateDirectory=kesttcs\nStateDirectoryMode=0700\n";
  unit += "RuntimeDirectory=kesttcs\n";
  unit += "RuntimeDirectoryMode=0755\n";
  unit += "TimeoutStartSec=90\n";
  unit += "TimeoutStopSec=30\n";
  // Room for the default max_connections and everything else the service opens.
  unit += "LimitNOFILE=8192\n";
  unit += "\n[Install]\n";
  unit += "WantedBy=multi-user.target\n";
  return unit;
}

void CmdInstallService() {
  const std::string path = ExecutablePath();
  if (path.empty()) {
    std::printf(MessageText("UnableToInstall", "Unable to install %s - %s\n").c_str(),
                kServiceDisplayName, ErrorText(FromErrno(errno, "/proc/self/exe")).c_str());
    TcsTrace("Unable to install", nullptr);
    return;
  }

  SystemError error;
  if (!SystemdRunning(&error)) {
    std::printf(MessageText("OpenSCManagerFailed", "OpenSCManager failed - %s\n").c_str(),
                ErrorText(error).c_str());
    TcsTrace("OpenSCManager Failed", nullptr);
    return;
  }
  if (!CreateService(path, &error)) {
    std::printf(MessageText("CreateServiceFailed", "CreateService failed - %s\n").c_str(),
                ErrorText(error).c_str());
    TcsTrace("CreateService KestTCS Failed", nullptr);
    return;
  }
  std::printf(MessageText("ServiceInstalled", "%s installed.\n").c_str(), kServiceDisplayName);
  std::fflush(stdout);
  Systemctl({"start", kUnitName}, &error);
}

void CmdRemoveService() {
  SystemError error;
  if (!SystemdRunning(&error)) {
    std::printf(MessageText("OpenSCManagerFailed", "OpenSCManager failed - %s\n").c_str(),
                ErrorText(error).c_str());
    TcsTrace("OpenSCManager failed", nullptr);
    return;
  }
  struct stat st;
  if (stat(UnitPath().c_str(), &st) != 0) {
    std::printf(MessageText("OpenServiceFailed", "OpenService failed - %s\n").c_str(),
                ErrorText(FromErrno(errno, UnitPath())).c_str());
    TcsTrace("OpenService KestTCS Failed", nullptr);
    return;
  }

  // Like a stop control, the stop request only succeeds on a service that runs.
  if (ActiveState() == "active" && Systemctl({"stop", "--no-block", kUnitName}, &error)) {
    std::printf(MessageText("StoppingService", "Stopping %s.").c_str(), kServiceDisplayName);
    std::fflush(stdout);
    SleepOneSecond();
    std::string state = ActiveState();
    while (state == "deactivating") {
      std::printf(".");
      std::fflush(stdout);
      SleepOneSecond();
      state = ActiveState();
    }
    if (state == "inactive" || state == "failed") {
      std::printf(MessageText("ServiceStopped", "\n%s stopped.\n").c_str(), kServiceDisplayName);
    } else {
      std::printf(MessageText("ServiceFailedToStop", "\n%s failed to stop.\n").c_str(),
                  kServiceDisplayName);
      TcsTrace("KestTCS failed to stop.", nullptr);
    }
  }

  if (DeleteService(&error)) {
    std::printf(MessageText("ServiceRemoved", "%s removed.\n").c_str(), kServiceDisplayName);
  } else {
    std::printf(MessageText("DeleteServiceFailed", "DeleteService failed - %s\n").c_str(),
                ErrorText(error).c_str());
    TcsTrace("DeleteService KestTCS Failed", nullptr);
  }
}

}  // namespace kesttcs::host
