#include "service/linux/logind_power.h"
#include "service/message_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "base/logging.h"
#include "service/power_events.h"
#include "service/service_start.h"
#include "service/service_status.h"

namespace kesttcs::host {
namespace {

constexpr char kLogind[] = "org.freedesktop.login1";
constexpr char kLogindPath[] = "/org/freedesktop/login1";
constexpr char kLogindManager[] = "org.freedesktop.login1.Manager";
// The event reported when a busy TPM would have refused the sleep (information, power category).
constexpr UINT32 kSleepRefusedEvent = 0x40000050;

void PrintNoPowerHandling(const char* why) {
  std::fprintf(
      stderr,
      MessageText("PowerHandlingOff", "kesttcsd: no system bus (%s): power handling is off\n")
          .c_str(),
      why);
}

class SdBusLogindPower final : public LogindPower {
 public:
  // Takes ownership of `bus`.
  explicit SdBusLogindPower(sd_bus* bus) : bus_(bus), wake_fd_(eventfd(0, EFD_CLOEXEC)) {}
  ~SdBusLogindPower() override {
    const uint64_t one = 1;
    if (thread_.joinable()) {
      if (write(wake_fd_, &one, sizeof(one)) != sizeof(one)) {
        // The thread cannot be woken: it keeps the bus until the process ends.
        thread_.detach();
        return;
      }
      thread_.join();
    }
    ReleaseInhibitor();
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
    close(wake_fd_);
  }

  // Subscribes and takes the first inhibitor; false (with the reason in `why`) when either fails.
  bool Subscribe(const char** why) {
    const int r = sd_bus_match_signal(bus_, &slot_, kLogind, kLogindPath, kLogindManager,
                                      "PrepareForSleep", &SdBusLogindPower::OnSignal, this);
    if (r < 0) {
      *why = std::strerror(-r);
      return false;
    }
    if (!TakeInhibitor(why)) return false;
    thread_ = std::thread([this] { Run(); });
    return true;
  }

 private:
  bool TakeInhibitor(const char** why) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r =
        sd_bus_call_method(bus_, kLogind, kLogindPath, kLogindManager, "Inhibit", &error, &reply,
                           "ssss", "sleep", "KestTCS", "Hold TPM traffic across sleep", "delay");
    int fd = -1;
    if (r >= 0) r = sd_bus_message_read(reply, "h", &fd);
    // The descriptor belongs to the message; keep a copy of our own.
    if (r >= 0) inhibitor_fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (r < 0 || inhibitor_fd_ < 0) {
      static thread_local char text[256];
      std::snprintf(text, sizeof(text), "Inhibit: %s",
                    error.message != nullptr ? error.message : std::strerror(r < 0 ? -r : errno));
      *why = text;
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    TcsTracef("logind inhibitor fd=%d", inhibitor_fd_);
    return inhibitor_fd_ >= 0;
  }

  void ReleaseInhibitor() {
    if (inhibitor_fd_ >= 0) close(inhibitor_fd_);
    inhibitor_fd_ = -1;
  }

  static int OnSignal(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    int sleeping = 0;
    if (sd_bus_message_read(message, "b", &sleeping) < 0) return 0;
    static_cast<SdBusLogindPower*>(userdata)->OnPrepareForSleep(sleeping != 0);
    return 0;
  }

  void OnPrepareForSleep(bool sleeping) {
    if (sleeping) {
      if (PowerEvent(PBT_APMQUERYSUSPEND) != 0) {
        const std::string text =
            MessageText("SleepRefusedEvent", "the TPM stayed busy; sleeping without holding it");
        const char* strings[] = {text.c_str()};
        ReportServiceEvent(kSleepRefusedEvent, 0, 1, strings);
      }
      static_cast<void>(PowerEvent(PBT_APMSUSPEND));
      ReleaseInhibitor();
    } else {
      static_cast<void>(PowerEvent(PBT_APMRESUMEAUTOMATIC));
      const char* why = nullptr;
      if (inhibitor_fd_ < 0 && !TakeInhibitor(&why)) TcsTrace(why, nullptr);
    }
  }

  static UINT32 PowerEvent(UINT32 eventType) {
    return ServiceControlHandler(kControlPowerEvent, eventType, ServiceStop);
  }

  void Run() {
    for (;;) {
      int r;
      while ((r = sd_bus_process(bus_, nullptr)) > 0) {
      }
      if (r < 0) {
        TcsTracef("logind: bus lost (%s)", std::strerror(-r));
        return;
      }
      uint64_t usec = UINT64_MAX;
      sd_bus_get_timeout(bus_, &usec);
      int timeoutMs = -1;
      if (usec != UINT64_MAX) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const uint64_t nowUsec = uint64_t(now.tv_sec) * 1000000 + uint64_t(now.tv_nsec) / 1000;
        timeoutMs = usec > nowUsec ? int((usec - nowUsec + 999) / 1000) : 0;
      }
      pollfd fds[2] = {{sd_bus_get_fd(bus_), short(sd_bus_get_events(bus_)), 0},
                       {wake_fd_, POLLIN, 0}};
      if (poll(fds, 2, timeoutMs) < 0 && errno != EINTR) return;
      if (fds[1].revents != 0) return;
    }
  }

  sd_bus* bus_;
  sd_bus_slot* slot_ = nullptr;
  int wake_fd_;
  int inhibitor_fd_ = -1;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<LogindPower> LogindPower::Start() {
  sd_bus* bus = nullptr;
  if (const int r = sd_bus_open_system(&bus); r < 0) {
    PrintNoPowerHandling(std::strerror(-r));
    return nullptr;
  }
  InstallPowerEventRouting();
  auto power = std::make_unique<SdBusLogindPower>(bus);
  const char* why = nullptr;
  if (!power->Subscribe(&why)) {
    PrintNoPowerHandling(why);
    return nullptr;
  }
  return power;
}

}  // namespace kesttcs::host
