// The process entry's command and the report of a failed start, the same on every host.
#include <cstdio>

#include <kesttcs/tcs_results.h>

#include "service/host.h"
#include "service/startup.h"

namespace kesttcs::host {

EntryCommand EntryCommandOf(std::string_view tail) {
  if (tail == "--help" || tail == "-h") return EntryCommand::kHelp;
  if (tail == "-install") return EntryCommand::kInstall;
  if (tail == "-remove") return EntryCommand::kRemove;
  if (tail == "-debug") return EntryCommand::kDebug;
  return EntryCommand::kService;
}

std::string UsageText(const char* program) {
  return std::string("Usage: ") + program + " [-install | -remove | -debug]\n\n" + HostUsageText();
}

std::string StartupFailureLine(UINT32 code) {
  std::string line = StartupFailureText();
  if (!line.empty()) line += ": ";
  char text[64];
  if (IsTcsFamily(code)) {
    std::snprintf(text, sizeof(text), "0x%.8X (%s)", code, ResultName(code));
    return line + text;
  }
  std::snprintf(text, sizeof(text), "error %u", code);
  return line + text + " (" + SystemErrorText(code) + ")";
}

void PrintStartupFailure(UINT32 code) {
  if (code == 0) return;
  std::fprintf(stderr, "kesttcsd: %s\n", StartupFailureLine(code).c_str());
}

}  // namespace kesttcs::host
