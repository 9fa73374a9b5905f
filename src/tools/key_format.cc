#include "tools/key_format.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace kesttcs::cli {
namespace {

// The hex digits of each UUID field in the text form, in order.
constexpr std::size_t kFieldDigits[] = {8, 4, 4, 4, 12};

std::string Hex(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%0*x", digits, value);
  return text;
}

}  // namespace

bool SameUuid(const TSS_UUID& a, const TSS_UUID& b) {
  return std::memcmp(&a, &b, sizeof(TSS_UUID)) == 0;
}

std::string UuidText(const TSS_UUID& u) {
  char text[40];
  std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", u.ulTimeLow,
                u.usTimeMid, u.usTimeHigh, u.bClockSeqHigh, u.bClockSeqLow, u.rgbNode[0],
                u.rgbNode[1], u.rgbNode[2], u.rgbNode[3], u.rgbNode[4], u.rgbNode[5]);
  return text;
}

std::optional<TSS_UUID> ParseUuid(const std::string& text) {
  if (text == "srk" || text == "SRK") return kSrkUuid;
  std::string_view rest = text;
  if (rest.size() >= 2 && rest.front() == '{' && rest.back() == '}') {
    rest = rest.substr(1, rest.size() - 2);
  }
  // The 16 bytes in text order, which is also the order of the fields.
  BYTE bytes[16];
  std::size_t at = 0;
  for (std::size_t field = 0; field < std::size(kFieldDigits); ++field) {
    if (field > 0) {
      if (rest.empty() || rest.front() != '-') return std::nullopt;
      rest.remove_prefix(1);
    }
    if (rest.size() < kFieldDigits[field]) return std::nullopt;
    for (std::size_t i = 0; i < kFieldDigits[field]; i += 2) {
      unsigned value = 0;
      const auto [end, ec] = std::from_chars(rest.data() + i, rest.data() + i + 2, value, 16);
      if (ec != std::errc() || end != rest.data() + i + 2) return std::nullopt;
      bytes[at++] = static_cast<BYTE>(value);
    }
    rest.remove_prefix(kFieldDigits[field]);
  }
  if (!rest.empty()) return std::nullopt;
  TSS_UUID uuid{};
  uuid.ulTimeLow =
      (UINT32{bytes[0]} << 24) | (UINT32{bytes[1]} << 16) | (UINT32{bytes[2]} << 8) | bytes[3];
  uuid.usTimeMid = static_cast<UINT16>((bytes[4] << 8) | bytes[5]);
  uuid.usTimeHigh = static_cast<UINT16>((bytes[6] << 8) | bytes[7]);
  uuid.bClockSeqHigh = bytes[8];
  uuid.bClockSeqLow = bytes[9];
  std::memcpy(uuid.rgbNode, bytes + 10, sizeof(uuid.rgbNode));
  return uuid;
}

std::string KeyUsageName(std::span<const BYTE> keyBlob) {
  if (keyBlob.size() < 6) return "unknown";
  const unsigned usage = (keyBlob[4] << 8) | keyBlob[5];
  switch (usage) {
    case 0x0010:
      return "signing";
    case 0x0011:
      return "storage";
    case 0x0012:
      return "identity";
    case 0x0013:
      return "authchange";
    case 0x0014:
      return "bind";
    case 0x0015:
      return "legacy";
    case 0x0016:
      return "migrate";
    default:
      return Hex(usage, 4);
  }
}

std::string AuthDataUsageName(BYTE authDataUsage) {
  switch (authDataUsage) {
    case 0x00:
      return "never";
    case 0x01:
      return "always";
    case 0x03:
      return "private-use-only";
    default:
      return Hex(authDataUsage, 2);
  }
}

std::optional<std::span<const BYTE>> KeyModulus(std::span<const BYTE> keyBlob) {
  // Both key layouts put 11 bytes before the algorithm parameters.
  size_t at = 11;
  auto size32 = [&](std::optional<size_t>& out) {
    if (keyBlob.size() < 4 || at > keyBlob.size() - 4) return false;
    out = size_t{keyBlob[at]} << 24 | size_t{keyBlob[at + 1]} << 16 | size_t{keyBlob[at + 2]} << 8 |
          keyBlob[at + 3];
    at += 4;
    return *out <= keyBlob.size() - at;
  };
  std::optional<size_t> parmSize, pcrInfoSize, keyLength;
  at += 8;  // algorithm, encryption scheme, signature scheme
  if (!size32(parmSize)) return std::nullopt;
  at += *parmSize;
  if (!size32(pcrInfoSize)) return std::nullopt;
  at += *pcrInfoSize;
  if (!size32(keyLength)) return std::nullopt;
  return keyBlob.subspan(at, *keyLength);
}

}  // namespace kesttcs::cli
