#include "commands/tpm_metrics.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <kesttcs/tcs_results.h>

#include "base/mutex.h"
#include "commands/capability.h"
#include "commands/command_exchange.h"
#include "contexts/contexts.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/tpm_ordinals.h"

namespace kesttcs {

namespace {

// What the maker's own TPM is known to have; it is not asked.
constexpr UINT32 kOwnTpmPcrs = 24;
constexpr UINT32 kOwnTpmDirs = 1;
constexpr UINT32 kOwnTpmSessions = 6;

// A TPM 1.1 is probed with at most this many OIAP sessions.
constexpr UINT32 kMaxProbedSessions = 1024;
constexpr UINT32 kMinAuthSessions = 2;

struct MetricsState {
  Mutex mu;
  tpm_metrics current GUARDED_BY(mu);
  bool ownVendor GUARDED_BY(mu) = false;
  bool hasOwner GUARDED_BY(mu) = false;
  std::optional<int> vendorClass GUARDED_BY(mu);
  std::array<char, 4> ownId GUARDED_BY(mu) = kDefaultOwnVendorId;
};

MetricsState& State() {
  static MetricsState state;
  return state;
}

std::array<char, 4> OwnId() {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  return s.ownId;
}

void SetOwnVendor(bool own) {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  s.ownVendor = own;
}

void SetHasOwner(bool owner) {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  s.hasOwner = owner;
}

// The first four bytes of the manufacturer property (zero-padded when the TPM gives fewer).
TSS_RESULT ReadManufacturer(std::array<BYTE, 4>* manufacturer) {
  std::array<BYTE, 4> sub;
  UINT32ToArray(TPM_CAP_PROP_MANUFACTURER, sub);
  std::vector<BYTE> answer;
  if (TSS_RESULT rc = getTpmCapability(TPM_CAP_PROPERTY, sub, &answer)) return rc;
  manufacturer->fill(0);
  std::copy_n(answer.begin(), std::min<std::size_t>(answer.size(), 4), manufacturer->begin());
  return TSS_SUCCESS;
}

TSS_RESULT ReadOwner() {
  UINT32 owner = 0;
  if (TSS_RESULT rc = getTpmCapabilityNumber(TPM_CAP_PROPERTY, TPM_CAP_PROP_OWNER, &owner)) {
    return rc;
  }
  SetHasOwner(owner != 0);
  return TSS_SUCCESS;
}

TSS_RESULT ReadFlag(UINT32 ordinal, BYTE* flag) {
  UINT32 supported = 0;
  if (TSS_RESULT rc = getTpmCapabilityNumber(TPM_CAP_ORD, ordinal, &supported)) return rc;
  *flag = supported != 0 ? 1 : 0;
  return TSS_SUCCESS;
}

// Opens OIAP sessions under the service's own context until the TPM refuses one (or the limit),
// then releases every one of them. Returns how many opened.
UINT32 ProbeAuthSessions() {
  std::vector<UINT32> handles;
  while (handles.size() < kMaxProbedSessions) {
    TpmCommand command(kInternalContextHandle, TPM_ORD_OIAP);
    UINT32 handle = 0;
    if (command.Run(TPM_TAG_RQU_COMMAND) != TSS_SUCCESS) break;
    if (command.Unload(&handle) != TSS_SUCCESS) break;
    handles.push_back(handle);
  }
  const UINT32 ordinal = TpmIsVersion12() ? TPM_ORD_FlushSpecific : TPM_ORD_Terminate_Handle;
  for (UINT32 handle : handles) {
    TpmLockGuard tpm(ordinal);
    static_cast<void>(ReleaseTpmHandle(handle, TPM_RT_AUTH));
  }
  return static_cast<UINT32>(handles.size());
}

bool IsVersion(const TPM_VERSION& version, BYTE major, BYTE minor) {
  return version.major == major && version.minor == minor;
}

}  // namespace

void tpm_metrics_init() {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  s.current = tpm_metrics();
  s.ownVendor = false;
  s.hasOwner = false;
  s.vendorClass.reset();
  s.ownId = kDefaultOwnVendorId;
}

void tpm_metrics_final() { tpm_metrics_init(); }

void SetOwnVendorId(const std::array<char, 4>& vendor) {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  s.ownId = vendor;
  s.vendorClass.reset();
}

TSS_RESULT get_tpm_metrics(tpm_metrics* metrics) {
  if (metrics == nullptr) return TCS_E_BAD_PARAMETER;
  tpm_metrics m;
  if (TSS_RESULT rc = ReadManufacturer(&m.manufacturer)) return rc;
  const std::array<char, 4> ownId = OwnId();
  const bool own = std::memcmp(m.manufacturer.data(), ownId.data(), 4) == 0;
  SetOwnVendor(own);

  if (TSS_RESULT rc = getTpmVersion(&m.version)) return rc;
  const bool v12 = IsVersion(m.version, 1, 2);
  SetTpmIsVersion12(v12);

  if (own) {
    m.pcrCount = kOwnTpmPcrs;
    m.dirCount = kOwnTpmDirs;
    m.canSaveAuthContext = 1;
    m.canSaveKeyContext = 1;
    m.maxAuthSessions = kOwnTpmSessions;
    if (TSS_RESULT rc = getTpmCapabilityNumber(TPM_CAP_PROPERTY, TPM_CAP_PROP_KEYS, &m.keySlots)) {
      return rc;
    }
    if (TSS_RESULT rc = ReadOwner()) return rc;
  } else {
    if (v12) {
      if (TSS_RESULT rc = ReadFlag(TPM_ORD_SaveContext, &m.canSaveKeyContext)) return rc;
      m.canSaveAuthContext = m.canSaveKeyContext;
      if (TSS_RESULT rc = ReadOwner()) return rc;
    } else {
      if (TSS_RESULT rc = ReadFlag(TPM_ORD_SaveKeyContext, &m.canSaveKeyContext)) return rc;
      if (TSS_RESULT rc = ReadFlag(TPM_ORD_SaveAuthContext, &m.canSaveAuthContext)) return rc;
    }
    for (auto [property, value] :
         {std::pair{TPM_CAP_PROP_PCR, &m.pcrCount}, std::pair{TPM_CAP_PROP_DIR, &m.dirCount},
          std::pair{TPM_CAP_PROP_KEYS, &m.keySlots}}) {
      if (TSS_RESULT rc = getTpmCapabilityNumber(TPM_CAP_PROPERTY, property, value)) return rc;
    }
    if (v12) {
      if (TSS_RESULT rc = getTpmCapabilityNumber(TPM_CAP_PROPERTY, TPM_CAP_PROP_MAX_AUTHSESS,
                                                 &m.maxAuthSessions)) {
        return rc;
      }
    } else if (IsVersion(m.version, 1, 1)) {
      m.maxAuthSessions = ProbeAuthSessions();
    }
    if (m.maxAuthSessions < kMinAuthSessions) return TCS_E_INTERNAL_ERROR;
  }

  MetricsState& s = State();
  {
    MutexLock lock(s.mu);
    s.current = m;
  }
  *metrics = m;
  return TSS_SUCCESS;
}

tpm_metrics tpm_metrics_current() {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  return s.current;
}

bool isOwnVendorTpm() {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  return s.ownVendor;
}

bool tpmHasOwner() {
  MetricsState& s = State();
  MutexLock lock(s.mu);
  return s.hasOwner;
}

int classifyTpmVendor(std::span<const BYTE, 4> manufacturer, const std::array<char, 4>& ownId) {
  auto startsWith = [&](const char* prefix, std::size_t n) {
    return std::memcmp(manufacturer.data(), prefix, n) == 0;
  };
  if (startsWith("ATML", 4)) return kVendorAtmel;
  if (startsWith("IFX", 3)) return kVendorInfineon;
  if (startsWith("NSM", 3)) return kVendorNational;
  if (startsWith(ownId.data(), 3)) return kVendorOwn;
  if (startsWith("STM", 3)) return kVendorST;
  return kVendorOther;
}

int getTpmVendorClass() {
  MetricsState& s = State();
  std::array<char, 4> ownId;
  {
    MutexLock lock(s.mu);
    if (s.vendorClass) return *s.vendorClass;
    ownId = s.ownId;
  }
  std::array<BYTE, 4> manufacturer;
  if (ReadManufacturer(&manufacturer) != TSS_SUCCESS) return kVendorOther;
  const int vendorClass = classifyTpmVendor(manufacturer, ownId);
  MutexLock lock(s.mu);
  s.vendorClass = vendorClass;
  return vendorClass;
}

}  // namespace kesttcs
