// kesttcsd.exe as a Windows service under Wine, driven through the service control manager: the
// console commands with their texts, the service's registration and event source, start, clients
// served over the service's endpoints (keyed and authorised commands on a key the Linux service
// made, over "\pipe\KestTCS"), stop with every shut-down step traced, and removal of a
// running service. The service and its driver library lie beside this program (the home); the
// trace lines of the service process land in the log file named on the command line (the Wine
// debug output of the prefix's service manager). Prints one line per check; the exit status is the
// number of failed checks.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr char kServiceName[] = "KestTCS";
constexpr char kDisplayName[] = "Trusted Platform Core Service (KESTRON)";
constexpr char kEventSourceKey[] =
    "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\KestTCS";

int failures = 0;

void Check(bool ok, const std::string& what, unsigned long detail = 0) {
  std::printf("%s %s (%lu)\n", ok ? "ok  " : "FAIL", what.c_str(), detail);
  std::fflush(stdout);
  if (!ok) ++failures;
}

std::string Home() {
  char path[MAX_PATH];
  const DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::string home(path, length);
  return home.substr(0, home.find_last_of('\\') + 1);
}

struct Run {
  DWORD status = ~0u;
  std::string output;
};

// Runs `program` beside this one with `tail` as its command line's tail and collects its stdout.
Run RunBeside(const char* program, const char* tail) {
  Run run;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  if (!CreatePipe(&read, &write, &inherit, 0)) return run;
  SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = write;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  const std::string path = Home() + program;
  std::string command = "\"" + path + "\"" + (*tail != '\0' ? std::string(" ") + tail : "");
  PROCESS_INFORMATION process{};
  const BOOL started = CreateProcessA(path.c_str(), command.data(), nullptr, nullptr, TRUE, 0,
                                      nullptr, nullptr, &startup, &process);
  CloseHandle(write);
  if (started) {
    char buffer[512];
    DWORD n = 0;
    while (ReadFile(read, buffer, sizeof buffer, &n, nullptr) && n > 0)
      run.output.append(buffer, n);
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &run.status);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
  }
  CloseHandle(read);
  // The console texts are written in text mode.
  for (size_t at; (at = run.output.find("\r\n")) != std::string::npos;) run.output.erase(at, 1);
  return run;
}

// Closes a service manager or service handle when it goes.
struct ScHandle {
  SC_HANDLE handle;
  explicit ScHandle(SC_HANDLE h) : handle(h) {}
  ~ScHandle() {
    if (handle != nullptr) CloseServiceHandle(handle);
  }
  ScHandle(const ScHandle&) = delete;
  ScHandle& operator=(const ScHandle&) = delete;
};

// The service just installed. In a fresh Wine prefix the service manager has been seen to answer
// "no such service" for a moment right after another process created it: a bounded retry.
SC_HANDLE OpenInstalledService(SC_HANDLE manager) {
  SC_HANDLE service = nullptr;
  for (int i = 0; i < 50 && service == nullptr; ++i) {
    service = OpenServiceA(manager, kServiceName, SERVICE_ALL_ACCESS);
    if (service == nullptr && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) Sleep(100);
  }
  return service;
}

// Waits (bounded) until the service reaches `state`; returns the last status read.
SERVICE_STATUS WaitForState(SC_HANDLE service, DWORD state) {
  SERVICE_STATUS status{};
  for (int i = 0; i < 600; ++i) {
    if (QueryServiceStatus(service, &status) && status.dwCurrentState == state) break;
    Sleep(100);
  }
  return status;
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// True when every one of `lines` occurs in `log`, in this order.
bool InOrder(const std::string& log, const std::vector<std::string>& lines, std::string* missing) {
  size_t at = 0;
  for (const std::string& line : lines) {
    const size_t found = log.find(line, at);
    if (found == std::string::npos) {
      *missing = line;
      return false;
    }
    at = found + line.size();
  }
  return true;
}

bool EventSourceRegistered(std::string* messageFile) {
  char value[MAX_PATH] = {};
  DWORD size = sizeof value;
  DWORD types = 0;
  DWORD typesSize = sizeof types;
  HKEY key = nullptr;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kEventSourceKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return false;
  }
  const bool ok = RegQueryValueExA(key, "EventMessageFile", nullptr, nullptr,
                                   reinterpret_cast<BYTE*>(value), &size) == ERROR_SUCCESS &&
                  RegQueryValueExA(key, "TypesSupported", nullptr, nullptr,
                                   reinterpret_cast<BYTE*>(&types), &typesSize) == ERROR_SUCCESS &&
                  types == 7;
  RegCloseKey(key);
  *messageFile = value;
  return ok;
}

// A value of the service's registry key as stored (a multi-string with its inner terminators).
std::string ServiceValue(const char* name) {
  char value[512] = {};
  DWORD size = sizeof value;
  if (RegGetValueA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Services\\KestTCS", name,
                   RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, value, &size) != ERROR_SUCCESS) {
    return {};
  }
  return std::string(value, size > 0 ? size - 1 : 0);
}

void CheckRegistration(SC_HANDLE service) {
  std::vector<BYTE> buffer(8192);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer.data());
  DWORD needed = 0;
  if (!QueryServiceConfigA(service, config, static_cast<DWORD>(buffer.size()), &needed)) {
    Check(false, "QueryServiceConfigA", GetLastError());
    return;
  }
  Check(config->dwServiceType == SERVICE_WIN32_OWN_PROCESS &&
            config->dwStartType == SERVICE_AUTO_START &&
            config->dwErrorControl == SERVICE_ERROR_NORMAL,
        "registered as its own process, started automatically, normal error control",
        config->dwStartType);
  Check(std::string(config->lpBinaryPathName) == Home() + "kesttcsd.exe",
        std::string("binary path ") + config->lpBinaryPathName);
  // Wine's service manager answers no dependencies; it stores them, with the group and the
  // account, in the service's registry key.
  const std::string group = ServiceValue("Group");
  const std::string dependencies = ServiceValue("DependOnService");
  Check(group == "PLUGPLAY" && dependencies == std::string("RPCSS\0", 6) &&
            ServiceValue("ObjectName") == "LocalSystem",
        "load-order group " + group + ", depends on " + dependencies.c_str() + ", LocalSystem");
  Check(std::string(config->lpDisplayName) == kDisplayName, "display name");
}

// A service whose start fails, here for want of a TPM driver (Wine's own tbs.dll finds no TPM):
// stopped with the failure as its service-specific exit code, the reason in the event log (which
// Wine writes to its debug output), and removed without a stop.
void CheckFailedStart(SC_HANDLE manager, const std::string& log) {
  const std::string bare = Home() + "nodriver\\";
  CreateDirectoryA(bare.c_str(), nullptr);
  CopyFileA((Home() + "kesttcsd.exe").c_str(), (bare + "kesttcsd.exe").c_str(), FALSE);
  const Run install = RunBeside("nodriver\\kesttcsd.exe", "-install");
  Check(install.output == std::string(kDisplayName) + " installed.\n",
        "-install of a service that has no TPM driver");
  const ScHandle service(OpenInstalledService(manager));
  const SERVICE_STATUS status = WaitForState(service.handle, SERVICE_STOPPED);
  Check(status.dwCurrentState == SERVICE_STOPPED && status.dwWin32ExitCode == 1066 &&
            (status.dwServiceSpecificExitCode >> 16) == 0xE028,
        "its start fails: stopped with a TCS result as the service-specific exit code",
        status.dwServiceSpecificExitCode);
  char eventCall[64];
  std::snprintf(eventCall, sizeof eventCall, ",0x0001,0x0000,0x%08lx,",
                status.dwServiceSpecificExitCode);
  const std::string text = ReadText(log);
  Check(text.find(eventCall) != std::string::npos,
        std::string("an error event under the failure's code (ReportEventW ...") + eventCall + ")");
  Check(text.find("KestTcs_startup Fail! TPM access: ") != std::string::npos,
        "its text names the failed step and the reason");
  const Run remove = RunBeside("kesttcsd.exe", "-remove");
  Check(remove.output == std::string(kDisplayName) + " removed.\n",
        "-remove of the stopped service prints no stop: \"" +
            remove.output.substr(0, remove.output.find('\n')) + "\"");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s SERVICE_LOG\n", argv[0]);
    return 2;
  }
  const std::string log = argv[1];
  // The service does not inherit this process's environment: its driver library finds the swtpm
  // in a file beside it.
  if (const char* port = std::getenv("KESTTCS_SWTPM_PORT")) {
    std::ofstream(Home() + "swtpm_port.txt") << port << "\n";
  }

  const Run upper = RunBeside("kesttcsd.exe", "-INSTALL");
  Check(upper.status != 0 && upper.output.empty(),
        "-INSTALL is not a command: the service dispatcher refuses a console start, silently",
        upper.status);

  const Run install = RunBeside("kesttcsd.exe", "-install");
  Check(install.status == 0 && install.output == std::string(kDisplayName) + " installed.\n",
        "-install prints \"" + install.output.substr(0, install.output.find('\n')) + "\"");
  std::string messageFile;
  const bool registered = EventSourceRegistered(&messageFile);
  Check(registered && messageFile == Home() + "KestEvent.dll",
        "event source KestTCS registered with " + messageFile);

  const ScHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  ScHandle service(OpenInstalledService(manager.handle));
  Check(service.handle != nullptr, "the service manager knows KestTCS", GetLastError());
  if (service.handle == nullptr) return failures;
  CheckRegistration(service.handle);

  SERVICE_STATUS status = WaitForState(service.handle, SERVICE_RUNNING);
  Check(status.dwCurrentState == SERVICE_RUNNING && status.dwControlsAccepted == 0x45,
        "-install started it: running, accepting stop, shut-down and power events",
        status.dwCurrentState);
  const Run client = RunBeside("rpc_test_client.exe", "");
  std::fputs(client.output.c_str(), stdout);
  Check(client.status == 0, "a client is served by the running service", client.status);
  const std::string keyFiles = "\"" + Home() + "key.blob\" \"" + Home() + "key.phrase\"";
  const Run keyed = RunBeside("keyed_client.exe", keyFiles.c_str());
  std::fputs(keyed.output.c_str(), stdout);
  Check(keyed.status == 0, "keyed and authorised commands over \\pipe\\KestTCS", keyed.status);

  Check(ControlService(service.handle, SERVICE_CONTROL_STOP, &status) != 0, "stop control sent",
        GetLastError());
  status = WaitForState(service.handle, SERVICE_STOPPED);
  Check(status.dwCurrentState == SERVICE_STOPPED && status.dwWin32ExitCode == 0,
        "stopped with exit code 0", status.dwWin32ExitCode);
  std::string missing;
  const bool traced = InOrder(
      ReadText(log),
      {"ServiceMain", "TCS:TCS service Starting:startup tpm ok.",
       "TCS:TCS service Starting:call RpcServerListen ok.", "TCS:TCS service start end.",
       "TCS:TCS service Stoping ...", "TCS:TCS service Stoping:call RpcMgmtStopServerListening ok.",
       "TCS:TCS service Stoping:call RpcServerUnregisterIf ok.",
       "TCS:TCS service Stoping:call shutdown tpm...", "TCS:kesttcs_shutdown:closeDiskCache",
       "TCS:kesttcs_shutdown:ReleaseOwnCtrl", "TCS:kesttcs_shutdown:auth_mgr_final",
       "TCS:kesttcs_shutdown:req_mgr_final", "TCS:kesttcs_shutdown:event_log_final",
       "TCS:TCS service Stoping:call shutdown tpm ok.", "TCS:ServiceStop:Ok!"},
      &missing);
  Check(traced, "start and every shut-down step traced in order" +
                    (missing.empty() ? "" : "; missing \"" + missing + "\""));

  Check(StartServiceA(service.handle, 0, nullptr) != 0, "started again", GetLastError());
  status = WaitForState(service.handle, SERVICE_RUNNING);
  Check(status.dwCurrentState == SERVICE_RUNNING, "running again", status.dwCurrentState);
  // Deletion completes once no handle is open.
  CloseServiceHandle(service.handle);
  service.handle = nullptr;
  const Run remove = RunBeside("kesttcsd.exe", "-remove");
  const std::string stopping = std::string("Stopping ") + kDisplayName + ".";
  const std::string removed =
      std::string("\n") + kDisplayName + " stopped.\n" + kDisplayName + " removed.\n";
  Check(remove.status == 0 && remove.output.rfind(stopping, 0) == 0 &&
            remove.output.size() >= removed.size() &&
            remove.output.compare(remove.output.size() - removed.size(), removed.size(), removed) ==
                0,
        "-remove of the running service prints its stop and removal");
  Check(!EventSourceRegistered(&messageFile), "event source removed");
  const ScHandle gone(OpenServiceA(manager.handle, kServiceName, SERVICE_ALL_ACCESS));
  Check(gone.handle == nullptr && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST,
        "the service manager no longer knows KestTCS", GetLastError());

  const Run again = RunBeside("kesttcsd.exe", "-remove");
  Check(
      again.output.rfind("OpenService failed - ", 0) == 0,
      "-remove of a removed service: \"" + again.output.substr(0, again.output.find('\n')) + "\"");

  CheckFailedStart(manager.handle, log);
  return failures;
}
