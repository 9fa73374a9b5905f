// Power events on Linux: systemd-logind over sd-bus stands in for the Windows power broadcasts.
// At start the service takes a delay inhibitor lock ("sleep", "KestTCS", "Hold TPM traffic across
// sleep", "delay") and subscribes to PrepareForSleep, both on a thread of its own that runs the
// bus's event loop:
//   PrepareForSleep(true)   a sleep query and the suspend (power events to the control handler);
//                           then the inhibitor goes, so logind lets the system sleep. Linux
//                           cannot refuse: a refused query (a TPM busy for the whole wait) is
//                           reported as an event and the sleep goes on.
//   PrepareForSleep(false)  the resume; then a new inhibitor is taken.
// The system bus is the one sd_bus_open_system finds (DBUS_SYSTEM_BUS_ADDRESS when set). Without
// one the service runs without power handling and says so once on stderr.
#pragma once

#include <memory>

namespace kesttcs::host {

class LogindPower {
 public:
  // Connects, subscribes and takes the inhibitor, then serves events until destroyed. Null (after
  // the one line) when there is no system bus or logind cannot be reached.
  static std::unique_ptr<LogindPower> Start();
  virtual ~LogindPower() = default;

 protected:
  LogindPower() = default;
};

}  // namespace kesttcs::host
