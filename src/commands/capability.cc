#include "commands/capability.h"

#include <array>
#include <optional>

#include <kesttcs/tcs_results.h>

#include "commands/command_exchange.h"
#include "contexts/contexts.h"
#include "tpm12/marshal.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

constexpr UINT32 kSubCapBytes = 4;

constexpr std::array<BYTE, 4> kTcsVersion = {2, 1, 0, 13};
constexpr std::array<BYTE, 4> kManufacturerId = {'K', 'E', 'S', 'T'};
constexpr char kManufacturerName[] = "KESTRON TECHNOLOGY";
// The host's platform class: simple identifier 0 (none recorded), URI size 0.
constexpr std::array<BYTE, 8> kHostPlatformClass = {0, 0, 0, 0, 0, 0, 0, 0};

// The manufacturer name as a wide string of 16-bit units, little-endian, without a terminator.
constexpr std::array<BYTE, 2 * (sizeof kManufacturerName - 1)> WideManufacturerName() {
  std::array<BYTE, 2 * (sizeof kManufacturerName - 1)> wide{};
  for (std::size_t i = 0; i + 1 < sizeof kManufacturerName; ++i) {
    wide[2 * i] = static_cast<BYTE>(kManufacturerName[i]);
  }
  return wide;
}
constexpr auto kManufacturerWide = WideManufacturerName();

// TSS algorithm ids and whether the service computes the algorithm itself.
std::optional<bool> ServiceComputes(UINT32 algorithmId) {
  switch (algorithmId) {
    case 0x23:  // SHA-1
    case 0x24:  // HMAC
    case 0x26:  // MGF1
      return true;
    case 0x20:  // RSA
    case 0x21:  // DES
    case 0x22:  // 3DES
    case 0x25:  // AES-128
    case 0x27:  // AES-192
    case 0x28:  // AES-256
    case 0x29:  // XOR
      return false;
    default:
      return std::nullopt;
  }
}

// The fixed answer for (capArea, subCap), or TCS_E_FAIL. `subCap` is empty when the caller sent
// fewer than four bytes; areas that need it then give TCS_E_BAD_PARAMETER.
TSS_RESULT FixedAnswer(TPM_CAPABILITY_AREA capArea, std::optional<UINT32> subCap,
                       std::array<BYTE, 1>& flag, std::span<const BYTE>* answer) {
  switch (capArea) {
    case TSS_TCSCAP_VERSION:
      *answer = kTcsVersion;
      return TSS_SUCCESS;
    case TSS_TCSCAP_PERSSTORAGE:
      flag[0] = 1;
      *answer = flag;
      return TSS_SUCCESS;
    case TSS_TCSCAP_ALG:
    case TSS_TCSCAP_CACHING:
    case TSS_TCSCAP_MANUFACTURER:
    case TSS_TCSCAP_PLATFORM_CLASS:
      break;
    default:
      return TCS_E_FAIL;
  }
  if (!subCap) return TCS_E_BAD_PARAMETER;
  if (capArea == TSS_TCSCAP_ALG) {
    std::optional<bool> computed = ServiceComputes(*subCap);
    if (!computed) return TCS_E_FAIL;
    flag[0] = *computed ? 1 : 0;
    *answer = flag;
    return TSS_SUCCESS;
  }
  if (capArea == TSS_TCSCAP_CACHING) {
    if (*subCap != TSS_TCSCAP_PROP_KEYCACHE && *subCap != TSS_TCSCAP_PROP_AUTHCACHE) {
      return TCS_E_FAIL;
    }
    flag[0] = *subCap == TSS_TCSCAP_PROP_KEYCACHE ? 1 : 0;
    *answer = flag;
    return TSS_SUCCESS;
  }
  if (capArea == TSS_TCSCAP_PLATFORM_CLASS) {
    if (*subCap != TSS_TCSCAP_PROP_HOST_PLATFORM && *subCap != TSS_TCSCAP_PROP_ALL_PLATFORMS) {
      return TCS_E_FAIL;
    }
    *answer = kHostPlatformClass;
    return TSS_SUCCESS;
  }
  if (*subCap == TSS_TCSCAP_PROP_MANUFACTURER_ID) {
    *answer = kManufacturerId;
    return TSS_SUCCESS;
  }
  if (*subCap == TSS_TCSCAP_PROP_MANUFACTURER_STR) {
    *answer = kManufacturerWide;
    return TSS_SUCCESS;
  }
  return TCS_E_FAIL;
}

}  // namespace

TSS_RESULT Tcsi_GetCapability_Internal(TCS_CONTEXT_HANDLE hContext, TPM_CAPABILITY_AREA capArea,
                                       UINT32 subCapSize, const BYTE* subCap, UINT32* respSize,
                                       BYTE** resp) {
  if (TSS_RESULT rc = ctx_ValidateContext(hContext)) return rc;
  if (respSize == nullptr || resp == nullptr || (subCapSize != 0 && subCap == nullptr)) {
    return TCS_E_BAD_PARAMETER;
  }
  std::optional<UINT32> sub;
  if (subCapSize >= kSubCapBytes) {
    sub = ArrayToUINT32(std::span<const BYTE, kSubCapBytes>(subCap, kSubCapBytes));
  }
  std::array<BYTE, 1> flag{};
  std::span<const BYTE> answer;
  if (TSS_RESULT rc = FixedAnswer(capArea, sub, flag, &answer)) return rc;
  return CopyToContextMemory(hContext, answer, respSize, resp);
}

TSS_RESULT getTpmCapability(TPM_CAPABILITY_AREA capArea, std::span<const BYTE> subCap,
                            std::vector<BYTE>* answer) {
  TpmCommand command(kInternalContextHandle, TPM_ORD_GetCapability);
  if (TSS_RESULT rc =
          command.Run(TPM_TAG_RQU_COMMAND, capArea, static_cast<UINT32>(subCap.size()), subCap)) {
    return rc;
  }
  UINT32 size = 0;
  if (TSS_RESULT rc = command.Unload(&size)) return rc;
  return UnloadBlob_BYTES(command.Outputs(), size, answer);  // *answer only on success
}

TSS_RESULT getTpmCapabilityNumber(TPM_CAPABILITY_AREA capArea, UINT32 subCap, UINT32* value) {
  std::array<BYTE, kSubCapBytes> sub;
  UINT32ToArray(subCap, sub);
  std::vector<BYTE> answer;
  if (TSS_RESULT rc = getTpmCapability(capArea, sub, &answer)) return rc;
  if (answer.empty() || answer.size() > 4) return TCS_E_BAD_PARAMETER;
  UINT32 number = 0;
  for (BYTE b : answer) number = (number << 8) | b;
  *value = number;
  return TSS_SUCCESS;
}

TSS_RESULT getTpmVersion(TPM_VERSION* version) {
  // TPM_CAP_VERSION_INFO: tag (2 bytes), then the version.
  constexpr std::size_t kVersionOffset = 2;
  std::vector<BYTE> answer;
  TSS_RESULT rc = getTpmCapability(TPM_CAP_VERSION_VAL, {}, &answer);
  std::size_t offset = kVersionOffset;
  if ((rc & 0xFFFFF000) == (kTcsErrorBase | kTcsLayerTpm)) {
    // A TPM 1.1 does not know the area; its TPM_CAP_VERSION answer is the version itself.
    rc = getTpmCapability(TPM_CAP_VERSION, {}, &answer);
    offset = 0;
  }
  if (rc != TSS_SUCCESS) return rc;
  if (answer.size() < offset + 4) return TCS_E_BAD_PARAMETER;
  *version =
      TPM_VERSION{answer[offset], answer[offset + 1], answer[offset + 2], answer[offset + 3]};
  return TSS_SUCCESS;
}

}  // namespace kesttcs
