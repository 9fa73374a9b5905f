// A private D-Bus daemon standing in for the system bus, with python3-dbusmock's logind template
// on it: what kesttcsd meets on a machine with systemd-logind. The bus address goes to this
// process's DBUS_SYSTEM_BUS_ADDRESS, so a daemon spawned afterwards finds it as its system bus. The
// test drives logind's side through the mock's own interface: PrepareForSleep emitted, inhibitors
// listed.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "kesttcsd_process.h"
#include "temp_dir.h"

namespace kesttcs::testing {

inline constexpr char kPython[] = "/usr/bin/python3";
inline constexpr char kDbusDaemon[] = "/usr/bin/dbus-daemon";

inline bool LogindMockInstalled() {
  return ::access(kDbusDaemon, X_OK) == 0 &&
         std::system("/usr/bin/python3 -c 'import dbusmock' >/dev/null 2>&1") == 0;
}

class LogindBus {
 public:
  LogindBus() {
    const std::string socket = dir_.path() + "/system_bus_socket";
    bus_pid_ = Spawn(
        {kDbusDaemon, "--session", "--nofork", "--nopidfile", "--address=unix:path=" + socket}, {},
        dir_.path() + "/dbus.log");
    for (int i = 0; i < 1000 && !std::filesystem::exists(socket); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
    mock_pid_ = Spawn({kPython, "-m", "dbusmock", "--system", "--template", "logind"}, {},
                      dir_.path() + "/logind.log");
    // The bus daemon makes its socket a moment before it listens on it, and a connection it
    // refused stays dead: connect again until the mock answers.
    for (int i = 0; i < 1000 && !ready(); ++i) {
      if (bus_ != nullptr && sd_bus_is_open(bus_) <= 0) bus_ = sd_bus_flush_close_unref(bus_);
      if (bus_ == nullptr && sd_bus_open_system(&bus_) < 0) bus_ = nullptr;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~LogindBus() {
    sd_bus_flush_close_unref(bus_);
    for (pid_t pid : {mock_pid_, bus_pid_}) {
      if (pid > 0) {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
      }
    }
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  }
  LogindBus(const LogindBus&) = delete;
  LogindBus& operator=(const LogindBus&) = delete;

  bool ready() const { return bus_ != nullptr && const_cast<LogindBus*>(this)->Inhibitors() >= 0; }

  // The delay inhibitors KestTCS holds on sleep; -1 when logind cannot be asked.
  int Inhibitors() {
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int count = -1;
    if (sd_bus_call_method(bus_, "org.freedesktop.login1", "/org/freedesktop/login1",
                           "org.freedesktop.login1.Manager", "ListInhibitors", &error, &reply,
                           "") >= 0 &&
        sd_bus_message_enter_container(reply, 'a', "(ssssuu)") >= 0) {
      count = 0;
      const char *what, *who, *why, *mode;
      uint32_t uid, pid;
      while (sd_bus_message_read(reply, "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
        if (std::string(what) == "sleep" && std::string(who) == "KestTCS" &&
            std::string(mode) == "delay") {
          ++count;
        }
      }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return count;
  }

  // Waits (within a bound that only keeps a broken daemon from hanging the suite) until KestTCS
  // holds `count` inhibitors; false when it never does.
  bool AwaitInhibitors(int count) {
    for (int i = 0; i < 3000; ++i) {
      if (Inhibitors() == count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // logind's PrepareForSleep(sleeping) signal.
  bool PrepareForSleep(bool sleeping) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int r = sd_bus_call_method(bus_, "org.freedesktop.login1", "/org/freedesktop/login1",
                                     "org.freedesktop.DBus.Mock", "EmitSignal", &error, nullptr,
                                     "sssav", "org.freedesktop.login1.Manager", "PrepareForSleep",
                                     "b", 1, "b", sleeping ? 1 : 0);
    sd_bus_error_free(&error);
    return r >= 0;
  }

 private:
  TempDir dir_;
  pid_t bus_pid_ = -1;
  pid_t mock_pid_ = -1;
  sd_bus* bus_ = nullptr;
};

}  // namespace kesttcs::testing
