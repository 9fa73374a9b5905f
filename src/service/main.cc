// kesttcsd: the process entry. The command line picks installation, removal, the foreground debug
// mode, or (anything else) the service itself.
#include <cstdio>

#include "service/host.h"
#include "service/service_status.h"

int main(int argc, char** argv) {
  using kesttcs::host::EntryCommand;
  switch (kesttcs::host::ParseCommandLine(argc, argv)) {
    case EntryCommand::kHelp:
      std::fputs(kesttcs::host::UsageText(argv[0]).c_str(), stdout);
      return 0;
    case EntryCommand::kInstall:
      kesttcs::host::CmdInstallService();
      return 0;
    case EntryCommand::kRemove:
      kesttcs::host::CmdRemoveService();
      return 0;
    case EntryCommand::kDebug:
      kesttcs::SetDebugMode(true);
      kesttcs::host::CmdDebugService();
      return 0;
    case EntryCommand::kService:
      break;
  }
  return kesttcs::host::ServiceMain();
}
