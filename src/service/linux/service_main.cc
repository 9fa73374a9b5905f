// The service's main flow under systemd and in the foreground (-debug), with the stop signals taken
// by a thread of their own.
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "service/linux/host.h"
#include "service/linux/journal_sink.h"
#include "service/linux/logind_power.h"
#include "service/message_file.h"
#include "service/service_start.h"
#include "service/service_status.h"
#include "service/startup.h"

namespace kesttcs::host {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

// Takes SIGTERM and SIGINT for the whole process and runs `onStop` for the first of them on its
// own thread; later ones are ignored, as a service manager sends no second stop. The constructor
// blocks both signals in the calling thread, so it must run before any other thread is created.
// The destructor waits for a stop in progress to finish.
class StopSignalThread {
 public:
  explicit StopSignalThread(std::function<void()> onStop) : on_stop_(std::move(onStop)) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC);
    wake_fd_ = eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { Run(); });
  }
  ~StopSignalThread() {
    const uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof(one)) < 0) {
      // The thread cannot be woken; it still ends with the process.
      thread_.detach();
    } else {
      thread_.join();
    }
    close(signal_fd_);
    close(wake_fd_);
  }
  StopSignalThread(const StopSignalThread&) = delete;
  StopSignalThread& operator=(const StopSignalThread&) = delete;

 private:
  void Run() {
    bool stopped = false;
    for (;;) {
      pollfd fds[2] = {{signal_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
      if (poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[1].revents != 0) return;
      if (fds[0].revents == 0) continue;
      signalfd_siginfo info;
      if (read(signal_fd_, &info, sizeof(info)) != sizeof(info)) continue;
      if (!stopped) {
        stopped = true;
        on_stop_();
      }
    }
  }

  std::function<void()> on_stop_;
  int signal_fd_ = -1;
  int wake_fd_ = -1;
  std::thread thread_;
};

// Every client connection takes a descriptor; the soft limit (often 1024) would cap the service
// far below what it is configured to serve, so it is raised to the hard limit the service manager
// granted.
void RaiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Request and response buffers beyond 64 KiB get mappings of their own, which go back to the
// system when freed. Left to itself the allocator raises this threshold after the first such
// buffer is freed and then keeps what clients' large requests once took, far beyond the request
// budget, for the life of the process.
void ReturnLargeBuffers() { mallopt(M_MMAP_THRESHOLD, 64 * 1024); }

// Power events come from logind while the service runs (the source's mutex guards `power`).
void UseLogindPowerEvents() {
  static std::unique_ptr<LogindPower> power;
  SetPowerEventSource([] { power = LogindPower::Start(); }, [] { power.reset(); });
}

bool UnderJournal() {
  return std::getenv("INVOCATION_ID") != nullptr && access(kJournalSocket, F_OK) == 0;
}

}  // namespace

int ServiceMain() {
  RaiseOpenFileLimit();
  ReturnLargeBuffers();
  SetTraceSink(UnderJournal() ? JournalTraceSink() : StderrTraceSink());
  SetEventSink(SystemEventSink());
  WriteDebugLine("ServiceMain");
  SetServiceStatusSink(SdNotifyStatusSink());
  UseLogindPowerEvents();
  UINT32 serviceResult = 0;
  {
    StopSignalThread stopThread([] { ServiceControlHandler(kControlStop, 0, ServiceStop); });
    SendServiceStatus();
    ReportServiceStatus(kServiceStartPending, 0, 1000);
    serviceResult = ServiceStart();
    PrintStartupFailure(serviceResult);
  }
  ReportServiceStatus(kServiceStopped, serviceResult, 0);
  return ExitStatusFromServiceCode(serviceResult);
}

void CmdDebugService() {
  RaiseOpenFileLimit();
  ReturnLargeBuffers();
  SetTraceSink(StderrTraceSink());
  SetEventSink(SystemEventSink());
  StopSignalThread stopThread([] {
    std::printf(MessageText("StoppingServiceConsole", "Stopping %s.\n").c_str(),
                kServiceDisplayName);
    std::fflush(stdout);
    ServiceStop();
  });
  UseLogindPowerEvents();
  TcsTrace("CmdDebugService call serviceStart.", nullptr);
  PrintStartupFailure(ServiceStart());
}

}  // namespace kesttcs::host
