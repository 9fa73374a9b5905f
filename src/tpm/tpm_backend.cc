// Choosing a backend from its configuration string, and the TPM 1.2 check made at open.

#include "tpm/tpm_backend.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdio>

#include "tpm/backends.h"
#include "tpm/tpm_bytes.h"

namespace kesttcs {

namespace {

constexpr const char* kDefaultDevice = "/dev/tpm0";
constexpr const char* kAcceptedForms =
    "expected auto, libtpms[:DIR], swtpm:tcp:HOST:PORT[:CTRLPORT], swtpm:unix:DATA[,CTRL], "
    "device:PATH or tddl:PATH";

// TPM_GetCapability(TPM_CAP_VERSION_VAL): read-only, answered by every TPM 1.2 (a TPM that has not
// been started answers TPM_INVALID_POSTINIT, which is still a TPM 1.2 answer).
constexpr std::array<BYTE, 18> kVersionProbe = {0x00, 0xC1, 0, 0, 0,    18, 0, 0, 0,
                                                0x65, 0,    0, 0, 0x1A, 0,  0, 0, 0};
constexpr UINT16 kTagRspCommand = 0x00C4;
constexpr UINT16 kTpm2TagNoSessions = 0x8001;
constexpr UINT16 kTpm2TagSessions = 0x8002;
// A TPM 2.0 response code carries the format-one bit (0x80) or the version-one bit (0x100); TPM 1.2
// codes never do outside their vendor (0x400) and non-fatal (0x800) ranges.
constexpr UINT32 kTpm2FormatBits = 0x180;
constexpr UINT32 kTpm12RangeBits = 0xC00;

bool ParsePort(std::string_view text, int* port) {
  int value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < 1 || value > 65535) {
    return false;
  }
  *port = value;
  return true;
}

std::unique_ptr<TpmBackend> Refuse(std::string_view config, const std::string& why,
                                   std::string* error) {
  *error = "bad TPM backend \"" + std::string(config) + "\": " + why + "; " + kAcceptedForms;
  return nullptr;
}

std::unique_ptr<TpmBackend> ParseSwtpm(std::string_view config, std::string_view rest,
                                       std::string* error) {
  if (rest.starts_with("unix:")) {
    std::string_view paths = rest.substr(5);
    size_t comma = paths.find(',');
    std::string data(paths.substr(0, comma));
    std::string ctrl =
        comma == std::string_view::npos ? data + ".ctrl" : std::string(paths.substr(comma + 1));
    if (data.empty() || ctrl.empty()) return Refuse(config, "empty socket path", error);
    return MakeSwtpmUnixBackend(std::move(data), std::move(ctrl));
  }
  if (rest.starts_with("tcp:")) {
    std::string_view address = rest.substr(4);
    std::string host;
    if (address.starts_with('[')) {  // [IPv6 address]
      size_t close = address.find(']');
      if (close == std::string_view::npos) return Refuse(config, "unclosed '['", error);
      host = address.substr(1, close - 1);
      address = address.substr(close + 1);
    } else {
      size_t colon = address.find(':');
      host = address.substr(0, colon);
      address = colon == std::string_view::npos ? std::string_view() : address.substr(colon);
    }
    if (host.empty()) return Refuse(config, "missing host", error);
    if (!address.starts_with(':')) return Refuse(config, "missing port", error);
    address.remove_prefix(1);
    size_t colon = address.find(':');
    int port = 0;
    if (!ParsePort(address.substr(0, colon), &port)) return Refuse(config, "bad port", error);
    int ctrlPort = port + 1;
    if (colon != std::string_view::npos) {
      if (!ParsePort(address.substr(colon + 1), &ctrlPort)) {
        return Refuse(config, "bad control port", error);
      }
    } else if (ctrlPort > 65535) {
      return Refuse(config, "no control port above 65535", error);
    }
    return MakeSwtpmTcpBackend(std::move(host), port, ctrlPort);
  }
  return Refuse(config, "swtpm needs tcp: or unix:", error);
}

}  // namespace

std::unique_ptr<TpmBackend> CreateTpmBackend(std::string_view config, const std::string& home,
                                             std::string* error) {
  auto valueAfter = [&](std::string_view prefix) { return config.substr(prefix.size()); };
  if (config == "auto") {
    if (::access(kDefaultDevice, F_OK) == 0) return MakeDeviceBackend(kDefaultDevice);
    return MakeLibtpmsBackend(home + "/tpm");
  }
  if (config == "libtpms") return MakeLibtpmsBackend(home + "/tpm");
  if (config.starts_with("libtpms:")) {
    if (valueAfter("libtpms:").empty()) return Refuse(config, "empty state directory", error);
    return MakeLibtpmsBackend(std::string(valueAfter("libtpms:")));
  }
  if (config.starts_with("swtpm:")) return ParseSwtpm(config, valueAfter("swtpm:"), error);
  if (config.starts_with("device:")) {
    if (valueAfter("device:").empty()) return Refuse(config, "empty device path", error);
    return MakeDeviceBackend(std::string(valueAfter("device:")));
  }
  if (config.starts_with("tddl:")) {
    if (valueAfter("tddl:").empty()) return Refuse(config, "empty library path", error);
    return MakeTddlBackend(std::string(valueAfter("tddl:")));
  }
  return Refuse(config, "unknown kind", error);
}

TSS_RESULT CheckAnswersAsTpm12(TpmBackend& backend, std::string* error) {
  std::array<BYTE, 4096> response;
  UINT32 length = 0;
  TSS_RESULT result = backend.Transmit(kVersionProbe, response, &length, kPriorityHigh);
  if (result != TSS_SUCCESS) {
    *error = std::string("no answer to a TPM 1.2 command (") + ResultName(result) + ")";
    return result;
  }
  if (length < 10) {
    *error = "the answer to a TPM 1.2 command is " + std::to_string(length) +
             " bytes long, too short for a TPM response";
    return kDriverFail;
  }
  std::span<const BYTE> answer(response.data(), length);
  UINT16 tag = PeekUINT16(answer, 0);
  UINT32 code = PeekUINT32(answer, 6);
  bool tpm2 =
      tag == kTpm2TagNoSessions || tag == kTpm2TagSessions ||
      (tag == kTagRspCommand &&
       (code == TPM_BADTAG || ((code & kTpm2FormatBits) != 0 && (code & kTpm12RangeBits) == 0)));
  if (tpm2) {
    std::array<char, 64> detail;
    std::snprintf(detail.data(), detail.size(), " (tag 0x%04X, code 0x%08X)", tag, code);
    *error =
        std::string("the TPM answers as a TPM 2.0; this service needs a TPM 1.2") + detail.data();
    return kDriverFail;
  }
  if (tag != kTagRspCommand) {
    std::array<char, 64> detail;
    std::snprintf(detail.data(), detail.size(), "0x%04X", tag);
    *error =
        std::string("the answer to a TPM 1.2 command carries the unknown tag ") + detail.data();
    return kDriverFail;
  }
  return TSS_SUCCESS;
}

}  // namespace kesttcs
