// A line typed at the terminal with echo off, with a source per platform.
#pragma once

#include <optional>
#include <string>

namespace kesttcs::cli {

// Shows `prompt` and reads one line typed at the terminal without echoing it; nothing when there
// is no terminal.
std::optional<std::string> TypedLine(const std::string& prompt);

}  // namespace kesttcs::cli
