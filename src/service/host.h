// The process entry's commands, which every host implements its own way: linux/ with systemd,
// windows/ with the Windows service control manager.
#pragma once

#include <string>
#include <string_view>

#include <kesttcs/tcs_types.h>

namespace kesttcs::host {

// What the process entry does with its command line.
enum class EntryCommand { kHelp, kInstall, kRemove, kDebug, kService };

// The command of a command-line tail (everything after the program name), compared exactly (case
// matters) with "-install", "-remove" and "-debug"; "--help" and "-h" alone ask for the usage text;
// anything else (an empty tail, extra words, other case) runs the service.
EntryCommand EntryCommandOf(std::string_view tail);

// The command of this process's command line: on Linux the arguments after the program name
// joined with single blanks, on Windows the command line's tail as the system keeps it.
EntryCommand ParseCommandLine(int argc, const char* const* argv);

// The usage text printed for --help: the command line, then the host's HostUsageText().
std::string UsageText(const char* program);
std::string HostUsageText();

// Runs the service as the service manager starts it and reports stopped with ServiceStart's result.
// Returns the process exit status. On Linux it must be called before any other thread exists, so
// that every thread inherits the blocked stop signals.
int ServiceMain();

// -debug: serves in the foreground with status reports off; Ctrl-C prints
// "Stopping <display name>.\n" and stops the service. A start-up failure is also printed on
// stderr. Returns when the service has ended.
void CmdDebugService();

// -install and -remove: register and remove the service with the service manager, printing the
// console texts on stdout and tracing each failure.
void CmdInstallService();
void CmdRemoveService();

// A failed start's step, the reason it gave, and its code: "TPM access: <reason>: 0xE028200F
// (TCS_E_...)" for a TCS result code, "directories: error 13 (<system text>)" for the host's error
// codes.
std::string StartupFailureLine(UINT32 code);

// Prints "kesttcsd: " and StartupFailureLine(code) on stderr; nothing for 0.
void PrintStartupFailure(UINT32 code);

// The system's text for an error code of the host (errno; a Win32 error on Windows).
std::string SystemErrorText(UINT32 code);

}  // namespace kesttcs::host
