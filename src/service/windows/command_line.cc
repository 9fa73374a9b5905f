// The process entry's command line and usage text, and the system's error texts.
#include <windows.h>

#include <string>

#include "service/host.h"

namespace kesttcs::host {
namespace {

// The command line after the program name and the blanks that follow it, as a Windows program's
// entry receives it (the program name may be quoted).
std::string CommandTail(const char* line) {
  const char* p = line;
  if (*p == '"') {
    ++p;
    while (*p != '\0' && *p != '"') ++p;
    if (*p == '"') ++p;
  } else {
    while (*p != '\0' && *p != ' ' && *p != '\t') ++p;
  }
  while (*p == ' ' || *p == '\t') ++p;
  return p;
}

}  // namespace

EntryCommand ParseCommandLine(int /*argc*/, const char* const* /*argv*/) {
  return EntryCommandOf(CommandTail(GetCommandLineA()));
}

std::string HostUsageText() {
  return "KestTCS, the TSS 1.2 core services.\n"
         "\n"
         "  -install   register the service KestTCS with the service control manager and\n"
         "             start it\n"
         "  -remove    stop the service and remove it\n"
         "  -debug     serve on the console; Ctrl-C stops; traces go to the debugger output\n"
         "             when [LOG] needLog is on in tcs_cfg.ini\n"
         "  --help     this text\n"
         "\n"
         "The whole command line is compared exactly: anything else hands the process to the\n"
         "service control manager, which only works when it started the service.\n"
         "\n"
         "Home directory: the executable's directory; it holds tcs_cfg.ini, data\\, audit\\\n"
         "and log\\. The TPM is reached through tbs.dll, else tpmddl.dll.\n";
}

std::string SystemErrorText(UINT32 code) {
  char* text = nullptr;
  const DWORD length = FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string result = length != 0 ? std::string(text, length) : "error " + std::to_string(code);
  LocalFree(text);
  while (!result.empty() &&
         (result.back() == '\n' || result.back() == '\r' || result.back() == ' ')) {
    result.pop_back();
  }
  return result;
}

}  // namespace kesttcs::host
