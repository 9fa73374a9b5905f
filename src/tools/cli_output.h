// How kesttcs-cli answers: human text, or one JSON object with --json, and the exit status.
//
// Exit status: 0 success; 1 the service cannot be reached or answered with an error; 2 a bad
// argument. `keys check` adds its own (keys_commands.h).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include <kesttcs/tcs_types.h>

namespace kesttcs::cli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitBadArgument = 2;

// "0x%.8X".
std::string CodeText(TSS_RESULT code);

// A failed step of a command: what was called and what came back.
struct Failure {
  std::string operation;
  TSS_RESULT code;
  // What it means for the user, when the code alone would not tell; shown before the code.
  std::string explanation{};
};

class Output {
 public:
  explicit Output(bool json) : json_(json) {}
  bool json() const { return json_; }
  // The JSON object the command fills; printed by Finish.
  nlohmann::ordered_json& object() { return object_; }

  // Prints the JSON object (with --json) and returns `status`.
  int Finish(int status = 0);
  int BadArgument(const std::string& message);
  int Unreachable(const std::string& endpoint, const std::string& reason);
  int TcsError(const Failure& failure);

 private:
  bool json_;
  nlohmann::ordered_json object_ = nlohmann::ordered_json::object();
};

}  // namespace kesttcs::cli
