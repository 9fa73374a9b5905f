// -install and -remove with the service control manager, and the service's event source.
#include <cstdio>
#include <string>

#include "service/host_paths.h"
#include "service/message_file.h"
#include "service/service_status.h"
#include "service/windows/host.h"

namespace kesttcs::host {
namespace {

constexpr char kEventLogKeyFormat[] = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\%s\\%s";
// The message file the event source names, beside the executable.
constexpr char kMessageFile[] = "KestEvent.dll";
constexpr DWORD kServiceAllAccess = SERVICE_ALL_ACCESS;
constexpr DWORD kCreateAccess = SERVICE_ALL_ACCESS | GENERIC_EXECUTE;
constexpr DWORD kPollMs = 1000;

std::string EventSourceKey() {
  char key[256];
  std::snprintf(key, sizeof(key), kEventLogKeyFormat, "Application", kServiceName);
  return key;
}

// Closes a service manager or service handle when it goes.
class ScHandle {
 public:
  explicit ScHandle(SC_HANDLE handle) : handle_(handle) {}
  ~ScHandle() {
    if (handle_ != nullptr) CloseServiceHandle(handle_);
  }
  ScHandle(const ScHandle&) = delete;
  ScHandle& operator=(const ScHandle&) = delete;
  SC_HANDLE get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  SC_HANDLE handle_;
};

// The system's text for GetLastError() and its code, "text (0x5)", when it fits `size` bytes with
// room to spare (callers pass 256); otherwise an empty string.
std::string GetLastErrorText(size_t size = 256) {
  char* text = nullptr;
  const DWORD length = FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ARGUMENT_ARRAY,
      nullptr, GetLastError(), LANG_NEUTRAL, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string result;
  if (length >= 2 && size >= length + 14) {
    // The system's text ends with a line end, which the code follows instead.
    char buffer[512];
    std::snprintf(buffer, sizeof(buffer), "%.*s (0x%lx)", static_cast<int>(length - 2), text,
                  GetLastError());
    result = buffer;
  }
  if (text != nullptr) LocalFree(text);
  return result;
}

// The event source "KestTCS" of the Application log, with `messageFile` as its event and category
// message file; false at the first value it cannot write.
bool AddEventSource(const std::string& messageFile, DWORD categoryCount) {
  HKEY key = nullptr;
  if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, EventSourceKey().c_str(), 0, nullptr,
                      REG_OPTION_NON_VOLATILE, KEY_WRITE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS) {
    return false;
  }
  const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
  const auto* file = reinterpret_cast<const BYTE*>(messageFile.c_str());
  const DWORD fileSize = static_cast<DWORD>(messageFile.size() + 1);
  const bool ok =
      RegSetValueExA(key, "EventMessageFile", 0, REG_EXPAND_SZ, file, fileSize) == ERROR_SUCCESS &&
      RegSetValueExA(key, "TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types),
                     sizeof(types)) == ERROR_SUCCESS &&
      RegSetValueExA(key, "CategoryMessageFile", 0, REG_EXPAND_SZ, file, fileSize) ==
          ERROR_SUCCESS &&
      RegSetValueExA(key, "CategoryCount", 0, REG_DWORD,
                     reinterpret_cast<const BYTE*>(&categoryCount),
                     sizeof(categoryCount)) == ERROR_SUCCESS;
  RegCloseKey(key);
  return ok;
}

// True when the event source's key was deleted.
bool RemoveEventSource() {
  return RegDeleteKeyA(HKEY_LOCAL_MACHINE, EventSourceKey().c_str()) == ERROR_SUCCESS;
}

// Prints `format` with the last error's text and traces `trace`.
void Fail(const char* key, const char* format, const char* trace) {
  // Read before anything else can change the last error.
  const std::string error = GetLastErrorText();
  std::printf(MessageText(key, format).c_str(), error.c_str());
  TcsTrace(trace, nullptr);
}

}  // namespace

void CmdInstallService() {
  const std::string path = ExecutablePath();
  if (path.empty()) {
    const std::string error = GetLastErrorText();
    std::printf(MessageText("UnableToInstall", "Unable to install %s - %s\n").c_str(),
                kServiceDisplayName, error.c_str());
    TcsTrace("Unable to install", nullptr);
    return;
  }
  static_cast<void>(AddEventSource(path.substr(0, path.find_last_of('\\') + 1) + kMessageFile, 0));
  const ScHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) {
    Fail("OpenSCManagerFailed", "OpenSCManager failed - %s\n", "OpenSCManager Failed");
    return;
  }
  // One dependency, the RPC service; the list ends with an empty name.
  static constexpr char kDependencies[] = "RPCSS\0";
  const ScHandle service(CreateServiceA(manager.get(), kServiceName, kServiceDisplayName,
                                        kCreateAccess, SERVICE_WIN32_OWN_PROCESS,
                                        SERVICE_AUTO_START, SERVICE_ERROR_NORMAL, path.c_str(),
                                        "PLUGPLAY", nullptr, kDependencies, nullptr, nullptr));
  if (!service) {
    Fail("CreateServiceFailed", "CreateService failed - %s\n", "CreateService KestTCS Failed");
    return;
  }
  std::printf(MessageText("ServiceInstalled", "%s installed.\n").c_str(), kServiceDisplayName);
  StartServiceA(service.get(), 0, nullptr);
}

void CmdRemoveService() {
  const ScHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) {
    Fail("OpenSCManagerFailed", "OpenSCManager failed - %s\n", "OpenSCManager failed");
    return;
  }
  const ScHandle service(OpenServiceA(manager.get(), kServiceName, kServiceAllAccess));
  if (!service) {
    Fail("OpenServiceFailed", "OpenService failed - %s\n", "OpenService KestTCS Failed");
    return;
  }
  SERVICE_STATUS status{};
  if (ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
    std::printf(MessageText("StoppingService", "Stopping %s.").c_str(), kServiceDisplayName);
    std::fflush(stdout);
    Sleep(kPollMs);
    while (QueryServiceStatus(service.get(), &status) &&
           status.dwCurrentState == SERVICE_STOP_PENDING) {
      std::printf(".");
      std::fflush(stdout);
      Sleep(kPollMs);
    }
    if (status.dwCurrentState != SERVICE_STOPPED) {
      std::printf(MessageText("ServiceFailedToStop", "\n%s failed to stop.\n").c_str(),
                  kServiceDisplayName);
      TcsTrace("KestTCS failed to stop.", nullptr);
    } else {
      std::printf(MessageText("ServiceStopped", "\n%s stopped.\n").c_str(), kServiceDisplayName);
    }
  }
  if (DeleteService(service.get())) {
    std::printf(MessageText("ServiceRemoved", "%s removed.\n").c_str(), kServiceDisplayName);
  } else {
    Fail("DeleteServiceFailed", "DeleteService failed - %s\n", "DeleteService KestTCS Failed");
  }
  static_cast<void>(RemoveEventSource());
}

}  // namespace kesttcs::host
