// The TPM backend a configuration string names, parsed without touching anything: the service's
// configuration reader checks the setting with it, and CreateTpmBackend builds the backend from it,
// so both accept exactly the same strings.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kesttcs {

struct TpmBackendSpec {
  enum class Kind { kAuto, kLibtpms, kSwtpmUnix, kSwtpmTcp, kDevice, kTddl };
  Kind kind = Kind::kAuto;
  // libtpms: the state directory (empty: <home>/tpm); swtpm:unix: the data socket; swtpm:tcp: the
  // host; device: the device path; tddl: the library path.
  std::string path;
  std::string ctrlPath;  // swtpm:unix: the control socket
  int port = 0;          // swtpm:tcp: the data port
  int ctrlPort = 0;      // swtpm:tcp: the control port
};

// The accepted forms:
//   auto                            device:/dev/tpm0 when that path exists, else libtpms
//   libtpms[:DIR]                   embedded TPM 1.2, state in DIR (default <home>/tpm)
//   swtpm:tcp:HOST:PORT[:CTRLPORT]  swtpm data socket; control socket on CTRLPORT (PORT+1)
//   swtpm:unix:DATA[,CTRL]          swtpm Unix sockets; control on CTRL (DATA + ".ctrl")
//   device:PATH                     kernel TPM 1.2 character device
//   tddl:PATH                       a TPM Device Driver Library
// Returns the parsed string, or nullopt with *error quoting the string, saying what is wrong and
// listing the accepted forms.
std::optional<TpmBackendSpec> ParseTpmBackendConfig(std::string_view config, std::string* error);

}  // namespace kesttcs
