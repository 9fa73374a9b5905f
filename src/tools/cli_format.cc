// Answer decoding and argument checks of kesttcs-cli.
#include "tools/cli_format.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string_view>

#include <kesttcs/tcs_auth.h>
#include <kesttcs/tcs_results.h>
#include <kesttcs/tpm_ordinal_list.h>

#include <kesttcs/tcs_service_state.h>

namespace kesttcs::cli {

std::string HexString(std::span<const BYTE> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (BYTE b : bytes) {
    text += kDigits[b >> 4];
    text += kDigits[b & 0xF];
  }
  return text;
}

std::optional<std::vector<BYTE>> ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::vector<BYTE> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

std::optional<TPM_DIGEST> ParseDigest(const std::string& hex) {
  TPM_DIGEST digest{};
  if (hex.size() != 2 * sizeof(digest.digest)) return std::nullopt;
  for (size_t i = 0; i < sizeof(digest.digest); ++i) {
    unsigned value = 0;
    const char* begin = hex.data() + 2 * i;
    auto [end, ec] = std::from_chars(begin, begin + 2, value, 16);
    if (ec != std::errc() || end != begin + 2) return std::nullopt;
    digest.digest[i] = static_cast<BYTE>(value);
  }
  return digest;
}

std::optional<UINT32> ParseNumber(const std::string& text, UINT32 min, UINT32 max) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
  UINT32 value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (value < min || value > max) return std::nullopt;
  return value;
}

namespace {

struct NamedOrdinal {
  std::string_view name;
  UINT32 value;
};

#define KESTTCS_NAMED_ORDINAL(name, value) {#name, value},
constexpr NamedOrdinal kNamedOrdinals[] = {KESTTCS_TPM_ORDINALS(KESTTCS_NAMED_ORDINAL)};
#undef KESTTCS_NAMED_ORDINAL

constexpr std::string_view kOrdinalPrefix = "TPM_ORD_";

}  // namespace

std::optional<UINT32> ParseHandle(const std::string& text) {
  if (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0) {
    UINT32 value = 0;
    const char* first = text.data() + 2;
    const char* last = text.data() + text.size();
    auto [end, ec] = std::from_chars(first, last, value, 16);
    if (first == last || ec != std::errc() || end != last) return std::nullopt;
    return value;
  }
  return ParseNumber(text, 0, UINT32_MAX);
}

std::optional<UINT32> ParseOrdinal(const std::string& text) {
  if (std::optional<UINT32> number = ParseHandle(text)) return number;
  for (const NamedOrdinal& o : kNamedOrdinals) {
    if (text == o.name || text == o.name.substr(kOrdinalPrefix.size())) return o.value;
  }
  return std::nullopt;
}

std::string OrdinalName(UINT32 ordinal) {
  for (const NamedOrdinal& o : kNamedOrdinals) {
    if (o.value == ordinal) return std::string(o.name);
  }
  char text[11];
  std::snprintf(text, sizeof text, "0x%08X", ordinal);
  return text;
}

const char* ResultCodeName(TSS_RESULT code) {
  switch (code) {
    case KESTTCS_AUTH_E_VERIFY:
      return "KESTTCS_AUTH_E_VERIFY";
    case KESTTCS_AUTH_E_CLOSED:
      return "KESTTCS_AUTH_E_CLOSED";
    case KESTTCS_AUTH_E_CRYPTO:
      return "KESTTCS_AUTH_E_CRYPTO";
    case KESTTCS_AUTH_E_SMALL_BUFFER:
      return "KESTTCS_AUTH_E_SMALL_BUFFER";
    default:
      return ResultName(code);
  }
}

std::optional<UINT32> BigEndianNumber(std::span<const BYTE> answer) {
  if (answer.empty() || answer.size() > 4) return std::nullopt;
  UINT32 value = 0;
  for (BYTE b : answer) value = (value << 8) | b;
  return value;
}

namespace {
std::string VersionText(std::span<const BYTE> v) {
  char text[24];
  std::snprintf(text, sizeof(text), "%u.%u.%u.%u", v[0], v[1], v[2], v[3]);
  return text;
}
}  // namespace

std::optional<std::string> VersionFromVersionInfo(std::span<const BYTE> answer) {
  if (answer.size() < 6) return std::nullopt;
  return VersionText(answer.subspan(2, 4));
}

std::optional<std::string> VersionFromVersion(std::span<const BYTE> answer) {
  if (answer.size() < 4) return std::nullopt;
  return VersionText(answer.first(4));
}

std::string ManufacturerText(std::span<const BYTE> answer) {
  std::string text;
  size_t n = answer.size();
  while (n > 0 && answer[n - 1] == 0) --n;
  for (size_t i = 0; i < n; ++i) {
    const BYTE c = answer[i];
    if (c >= 0x20 && c < 0x7F) {
      text += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      text += escaped;
    }
  }
  return text;
}

std::string Utf16LeText(std::span<const BYTE> answer) {
  std::string text;
  for (size_t i = 0; i + 1 < answer.size(); i += 2) {
    const unsigned unit = answer[i] | (answer[i + 1] << 8);
    if (unit == 0) break;
    text += (unit >= 0x20 && unit < 0x7F) ? static_cast<char>(unit) : '?';
  }
  return text;
}

std::string PowerStateText(UINT32 state) {
  switch (state) {
    case KESTTCS_POWER_RUNNING:
      return "running";
    case KESTTCS_POWER_HELD_FOR_SLEEP:
      return "held for sleep";
    case KESTTCS_POWER_RESUMING:
      return "resuming";
    default:
      return "unknown";
  }
}

std::string RestartTimeText(UINT64 secondsSinceEpoch) {
  if (secondsSinceEpoch == 0) return "never";
  const std::time_t time = static_cast<std::time_t>(secondsSinceEpoch);
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

}  // namespace kesttcs::cli
