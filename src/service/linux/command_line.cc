// The process entry's command line and usage text, and the system's error texts.
#include <cstring>
#include <string>

#include "service/linux/host.h"

namespace kesttcs::host {

EntryCommand ParseCommandLine(int argc, const char* const* argv) {
  std::string tail;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) tail += ' ';
    tail += argv[i];
  }
  return EntryCommandOf(tail);
}

std::string HostUsageText() {
  return "KestTCS, the TSS 1.2 core services daemon.\n"
         "\n"
         "  -install   write and enable the systemd unit KestTCS.service, then start it\n"
         "  -remove    stop and disable the service, then delete its unit\n"
         "  -debug     serve in the foreground; Ctrl-C stops; traces on stderr when\n"
         "             [LOG] needLog is on in tcs_cfg.ini\n"
         "  --help     this text\n"
         "\n"
         "The whole command line is compared exactly: anything else runs the service as\n"
         "systemd starts it (status through NOTIFY_SOCKET, SIGTERM stops).\n"
         "\n"
         "Home directory: $KESTTCS_HOME, else the executable's directory; it holds\n"
         "tcs_cfg.ini, data/, audit/, log/ and tpm/ (the embedded TPM's state).\n";
}

std::string SystemErrorText(UINT32 code) { return std::strerror(static_cast<int>(code)); }

}  // namespace kesttcs::host
