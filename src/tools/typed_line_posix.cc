#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "tools/typed_line.h"

namespace kesttcs::cli {

std::optional<std::string> TypedLine(const std::string& prompt) {
  const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (tty < 0) return std::nullopt;
  termios saved{};
  const bool hide = tcgetattr(tty, &saved) == 0;
  if (hide) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(tty, TCSAFLUSH, &quiet);
  }
  static_cast<void>(write(tty, prompt.data(), prompt.size()));
  std::string line;
  char c = 0;
  while (read(tty, &c, 1) == 1 && c != '\n') line.push_back(c);
  if (hide) tcsetattr(tty, TCSAFLUSH, &saved);
  static_cast<void>(write(tty, "\n", 1));
  close(tty);
  return line;
}

}  // namespace kesttcs::cli
