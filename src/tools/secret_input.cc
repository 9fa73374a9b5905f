#include "tools/secret_input.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include <kesttcs/tcs_auth.h>

namespace kesttcs::cli {
namespace {

void DropLineEnd(std::string& text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
}

// One line typed at the controlling terminal with echo off; nothing when there is no terminal.
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

std::optional<TPM_SECRET> FromPhrase(std::string phrase) {
  TPM_SECRET secret{};
  const TSS_RESULT r = KestAuth_SecretFromPassword(reinterpret_cast<const BYTE*>(phrase.data()),
                                                   static_cast<UINT32>(phrase.size()), &secret);
  std::fill(phrase.begin(), phrase.end(), '\0');
  if (r != 0) return std::nullopt;
  return secret;
}

}  // namespace

std::optional<TPM_SECRET> ReadSecret(const std::string& source, const std::string& prompt,
                                     bool confirm, std::string* problem) {
  if (source.empty()) {
    TPM_SECRET secret{};
    KestAuth_WellKnownSecret(&secret);
    return secret;
  }
  if (source == "-") {
    std::optional<std::string> phrase = TypedLine(prompt + ": ");
    if (!phrase) {
      *problem = "no terminal to ask for the " + prompt + " on";
      return std::nullopt;
    }
    if (confirm && TypedLine(prompt + " again: ") != phrase) {
      *problem = "the two entries of the " + prompt + " differ";
      return std::nullopt;
    }
    return FromPhrase(std::move(*phrase));
  }
  std::ifstream file(source, std::ios::binary);
  if (!file) {
    *problem = "cannot read " + source + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string phrase{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  DropLineEnd(phrase);
  return FromPhrase(std::move(phrase));
}

bool ReadObjectAndOwnerSecrets(const std::string& objectSource, const std::string& objectPrompt,
                               bool newObject, const std::string& ownerSource, TPM_SECRET* object,
                               TPM_SECRET* owner, std::string* problem) {
  std::optional<TPM_SECRET> objectSecret =
      ReadSecret(objectSource, objectPrompt, newObject, problem);
  if (!objectSecret) return false;
  std::optional<TPM_SECRET> ownerSecret = ReadSecret(ownerSource, "owner secret", false, problem);
  if (!ownerSecret) return false;
  *object = *objectSecret;
  *owner = *ownerSecret;
  return true;
}

}  // namespace kesttcs::cli
