#include <windows.h>

#include "tools/typed_line.h"

namespace kesttcs::cli {

std::optional<std::string> TypedLine(const std::string& prompt) {
  const HANDLE in = CreateFileA("CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                OPEN_EXISTING, 0, nullptr);
  if (in == INVALID_HANDLE_VALUE) return std::nullopt;
  const HANDLE out = CreateFileA("CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
  DWORD saved = 0;
  const bool hide = GetConsoleMode(in, &saved) != 0;
  if (hide) SetConsoleMode(in, saved & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
  DWORD n = 0;
  if (out != INVALID_HANDLE_VALUE) {
    WriteFile(out, prompt.data(), static_cast<DWORD>(prompt.size()), &n, nullptr);
  }
  std::string line;
  char c = 0;
  while (ReadFile(in, &c, 1, &n, nullptr) && n == 1 && c != '\n') {
    if (c != '\r') line.push_back(c);
  }
  if (hide) SetConsoleMode(in, saved);
  if (out != INVALID_HANDLE_VALUE) {
    WriteFile(out, "\r\n", 2, &n, nullptr);
    CloseHandle(out);
  }
  CloseHandle(in);
  return line;
}

}  // namespace kesttcs::cli
