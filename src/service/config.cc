// Reads "tcs_cfg.ini" with the host's profile reader and applies each key's default and value
// rules.
#include "service/config.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "base/logging.h"
#include "service/profile_file.h"
#include "tpm/backend_config.h"

namespace kesttcs {
namespace {

// Longest Unix socket path (sun_path holds 108 bytes with the terminator).
constexpr std::size_t kMaxSocketPath = 107;
constexpr std::size_t kMaxGroupName = 32;
// needLog is read into a 100-byte buffer, so longer values are cut before they are interpreted.
constexpr std::size_t kNeedLogBuffer = 100;

std::string Lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return out;
}

// The profile's values by lower-cased (section, key): profile names match case-insensitively.
using Profile = std::map<std::pair<std::string, std::string>, std::string>;

Profile FoldNames(const ProfileFile& file) {
  Profile profile;
  for (const auto& [section, values] : file.sections) {
    for (const auto& [key, value] : values)
      profile.emplace(std::make_pair(Lower(section), Lower(key)), value);
  }
  return profile;
}

void WarnBadValue(const char* section, const char* key, const std::string& value,
                  const char* used) {
  const std::string text = std::string("tcs_cfg.ini: bad value \"") + value + "\" for [" + section +
                           "] " + key + "; the default \"" + used + "\" is used";
  const char* strings[] = {text.c_str()};
  ReportServiceEvent(kEventBadConfigValue, 0, 1, strings);
}

// The leading decimal integer of `s` (optional sign), saturated to int; nullopt when there is none.
std::optional<int> LeadingInteger(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  if (i == s.size() || !std::isdigit(static_cast<unsigned char>(s[i]))) return std::nullopt;
  long long magnitude = 0;
  for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
    magnitude = std::min<long long>(magnitude * 10 + (s[i] - '0'), 1LL + INT_MAX);
  }
  if (negative) return int(std::max<long long>(-magnitude, INT_MIN));
  return int(std::min<long long>(magnitude, INT_MAX));
}

std::optional<unsigned> Decimal(std::string_view s, unsigned max, unsigned min = 0) {
  unsigned value = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size() || value > max || value < min) {
    return std::nullopt;
  }
  return value;
}

bool ValidBackend(std::string_view v) {
  std::string error;
  return ParseTpmBackendConfig(v, &error).has_value();
}

bool ValidVendor(std::string_view v) {
  return v.size() == 3 &&
         std::all_of(v.begin(), v.end(), [](unsigned char c) { return c >= 0x20 && c <= 0x7e; });
}

// "well-known", "none" or 40 hex digits (either case).
std::optional<std::optional<TPM_SECRET>> SrkSecret(std::string_view v) {
  if (Lower(std::string(v)) == "well-known") return std::optional<TPM_SECRET>(TPM_SECRET{});
  if (Lower(std::string(v)) == "none") return std::optional<TPM_SECRET>();
  TPM_SECRET secret{};
  if (v.size() != 2 * sizeof secret.authdata) return std::nullopt;
  for (size_t i = 0; i < sizeof secret.authdata; ++i) {
    unsigned byte = 0;
    const auto [end, ec] = std::from_chars(v.data() + 2 * i, v.data() + 2 * i + 2, byte, 16);
    if (ec != std::errc() || end != v.data() + 2 * i + 2) return std::nullopt;
    secret.authdata[i] = static_cast<BYTE>(byte);
  }
  return std::optional<TPM_SECRET>(secret);
}

bool ValidGroup(std::string_view v) {
  return v.size() <= kMaxGroupName && v.front() != '-' &&
         std::all_of(v.begin(), v.end(), [](unsigned char c) {
           return std::isalnum(c) || c == '_' || c == '-' || c == '.';
         });
}

bool ValidSocket(std::string_view v) { return v.front() == '/' && v.size() <= kMaxSocketPath; }

// Applies one key: an absent or empty value keeps the default silently; a value `valid` refuses
// keeps the default and warns; any other value goes to `apply`.
template <typename Valid, typename Apply>
void ReadKey(const Profile& profile, const char* section, const char* key, const char* fallback,
             Valid valid, Apply apply) {
  const auto it = profile.find({Lower(section), Lower(key)});
  if (it == profile.end() || it->second.empty()) return;
  if (valid(it->second)) {
    apply(it->second);
  } else {
    WarnBadValue(section, key, it->second, fallback);
  }
}

}  // namespace

TcsConfig ReadTcsConfig(const std::string& path) {
  TcsConfig config;
  ProfileFile file;
  if (!ReadProfileFile(path, &file)) return config;
  const Profile profile = FoldNames(file);

  ReadKey(
      profile, "LOG", "needLog", "0",
      [](std::string_view v) {
        return LeadingInteger(v.substr(0, kNeedLogBuffer - 1)).has_value();
      },
      [&](std::string_view v) {
        config.needLog = *LeadingInteger(v.substr(0, kNeedLogBuffer - 1)) > 0;
      });
  ReadKey(profile, "TPM", "backend", "auto", ValidBackend,
          [&](std::string_view v) { config.backend = v; });
  ReadKey(profile, "TPM", "vendor", "KST", ValidVendor,
          [&](std::string_view v) { std::copy(v.begin(), v.end(), config.vendor.begin()); });
  // The secret itself must not reach the event log, so a bad value is reported as hidden.
  ReadKey(
      profile, "TPM", "srk_secret", "well-known", [](std::string_view) { return true; },
      [&](std::string_view v) {
        if (const auto secret = SrkSecret(v)) {
          config.srkSecret = *secret;
        } else {
          WarnBadValue("TPM", "srk_secret", "(hidden)", "well-known");
        }
      });
  ReadKey(profile, "RPC", "socket", "", ValidSocket,
          [&](std::string_view v) { config.socket = v; });
  ReadKey(profile, "RPC", "group", "tss", ValidGroup,
          [&](std::string_view v) { config.group = v; });
  ReadKey(
      profile, "RPC", "tcp_port", "0",
      [](std::string_view v) { return Decimal(v, 65535).has_value(); },
      [&](std::string_view v) { config.tcpPort = UINT16(*Decimal(v, 65535)); });
  // A decimal limit between `min` and `max`.
  const auto limit = [&](const char* key, UINT32& value, unsigned min, unsigned max) {
    const std::string fallback = std::to_string(value);
    ReadKey(
        profile, "RPC", key, fallback.c_str(),
        [&](std::string_view v) { return Decimal(v, max, min).has_value(); },
        [&](std::string_view v) { value = *Decimal(v, max, min); });
  };
  constexpr unsigned kMaxCount = 1 << 20;
  limit("max_connections", config.maxConnections, 1, kMaxCount);
  limit("max_connections_per_user", config.maxConnectionsPerUser, 1, kMaxCount);
  limit("idle_timeout", config.idleTimeout, 0, 86400);
  limit("request_memory", config.requestMemory, 1, 4096);
  limit("max_contexts", config.maxContexts, 1, kMaxCount);
  ReadKey(
      profile, "EVENTLOG", "persist", "0",
      [](std::string_view v) { return Decimal(v, 1).has_value(); },
      [&](std::string_view v) { config.eventLogPersist = *Decimal(v, 1) == 1; });
  return config;
}

}  // namespace kesttcs
