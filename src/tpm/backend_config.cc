#include "tpm/backend_config.h"

#include <charconv>

namespace kesttcs {
namespace {

using Kind = TpmBackendSpec::Kind;

constexpr const char* kAcceptedForms =
    "expected auto, libtpms[:DIR], swtpm:tcp:HOST:PORT[:CTRLPORT], swtpm:unix:DATA[,CTRL], "
    "device:PATH or tddl:PATH";

bool ParsePort(std::string_view text, int* port) {
  int value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 1 || value > 65535) {
    return false;
  }
  *port = value;
  return true;
}

std::optional<TpmBackendSpec> Refuse(std::string_view config, const std::string& why,
                                     std::string* error) {
  *error = "bad TPM backend \"" + std::string(config) + "\": " + why + "; " + kAcceptedForms;
  return std::nullopt;
}

std::optional<TpmBackendSpec> ParseSwtpm(std::string_view config, std::string_view rest,
                                         std::string* error) {
  TpmBackendSpec spec;
  if (rest.starts_with("unix:")) {
    std::string_view paths = rest.substr(5);
    size_t comma = paths.find(',');
    spec.kind = Kind::kSwtpmUnix;
    spec.path = paths.substr(0, comma);
    spec.ctrlPath = comma == std::string_view::npos ? spec.path + ".ctrl"
                                                    : std::string(paths.substr(comma + 1));
    if (spec.path.empty() || spec.ctrlPath.empty())
      return Refuse(config, "empty socket path", error);
    return spec;
  }
  if (rest.starts_with("tcp:")) {
    std::string_view address = rest.substr(4);
    spec.kind = Kind::kSwtpmTcp;
    if (address.starts_with('[')) {  // [IPv6 address]
      size_t close = address.find(']');
      if (close == std::string_view::npos) return Refuse(config, "unclosed '['", error);
      spec.path = address.substr(1, close - 1);
      address = address.substr(close + 1);
    } else {
      size_t colon = address.find(':');
      spec.path = address.substr(0, colon);
      address = colon == std::string_view::npos ? std::string_view() : address.substr(colon);
    }
    if (spec.path.empty()) return Refuse(config, "missing host", error);
    if (!address.starts_with(':')) return Refuse(config, "missing port", error);
    address.remove_prefix(1);
    size_t colon = address.find(':');
    if (!ParsePort(address.substr(0, colon), &spec.port)) return Refuse(config, "bad port", error);
    spec.ctrlPort = spec.port + 1;
    if (colon != std::string_view::npos) {
      if (!ParsePort(address.substr(colon + 1), &spec.ctrlPort)) {
        return Refuse(config, "bad control port", error);
      }
    } else if (spec.ctrlPort > 65535) {
      return Refuse(config, "no control port above 65535", error);
    }
    return spec;
  }
  return Refuse(config, "swtpm needs tcp: or unix:", error);
}

// "PREFIX:VALUE" with a non-empty value.
std::optional<TpmBackendSpec> WithPath(std::string_view config, size_t prefixSize, Kind kind,
                                       const char* what, std::string* error) {
  if (config.size() == prefixSize) return Refuse(config, std::string("empty ") + what, error);
  TpmBackendSpec spec;
  spec.kind = kind;
  spec.path = config.substr(prefixSize);
  return spec;
}

}  // namespace

std::optional<TpmBackendSpec> ParseTpmBackendConfig(std::string_view config, std::string* error) {
  if (config == "auto") return TpmBackendSpec{};
  if (config == "libtpms") {
    TpmBackendSpec spec;
    spec.kind = Kind::kLibtpms;
    return spec;
  }
  if (config.starts_with("libtpms:")) {
    return WithPath(config, 8, Kind::kLibtpms, "state directory", error);
  }
  if (config.starts_with("swtpm:")) return ParseSwtpm(config, config.substr(6), error);
  if (config.starts_with("device:")) {
    return WithPath(config, 7, Kind::kDevice, "device path", error);
  }
  if (config.starts_with("tddl:")) return WithPath(config, 5, Kind::kTddl, "library path", error);
  return Refuse(config, "unknown kind", error);
}

}  // namespace kesttcs
