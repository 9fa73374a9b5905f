#include "tools/cli_output.h"

#include <cstdio>

#include "tools/cli_format.h"

namespace kesttcs::cli {

using nlohmann::ordered_json;

std::string CodeText(TSS_RESULT code) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%.8X", code);
  return text;
}

int Output::Finish(int status) {
  if (json_) std::printf("%s\n", object_.dump(2).c_str());
  return status;
}

int Output::BadArgument(const std::string& message) {
  std::fprintf(stderr, "kesttcs-cli: bad argument: %s\n", message.c_str());
  if (json_)
    std::printf("%s\n", ordered_json{{"error", "bad argument: " + message}}.dump(2).c_str());
  return kExitBadArgument;
}

int Output::Unreachable(const std::string& endpoint, const std::string& reason) {
  const std::string message = "cannot reach KestTCS at " + endpoint + ": " + reason;
  std::fprintf(stderr, "kesttcs-cli: %s\n", message.c_str());
  if (json_) std::printf("%s\n", ordered_json{{"error", message}}.dump(2).c_str());
  return kExitFailure;
}

int Output::TcsError(const Failure& failure) {
  if (!failure.explanation.empty()) {
    std::fprintf(stderr, "kesttcs-cli: %s\n", failure.explanation.c_str());
  }
  std::fprintf(stderr, "kesttcs-cli: %s failed: %s (%s)\n", failure.operation.c_str(),
               CodeText(failure.code).c_str(), ResultCodeName(failure.code));
  if (json_) {
    ordered_json error = {{"error", failure.operation + " failed"},
                          {"code", CodeText(failure.code)},
                          {"name", ResultCodeName(failure.code)}};
    if (!failure.explanation.empty()) error["message"] = failure.explanation;
    std::printf("%s\n", error.dump(2).c_str());
  }
  return kExitFailure;
}

}  // namespace kesttcs::cli
