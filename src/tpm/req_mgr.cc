#include "tpm/req_mgr.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>

#include "base/logging.h"
#include "base/mutex.h"
#include "tpm/driver.h"
#include "tpm/tpm_backend.h"
#include "tpm/tpm_bytes.h"
#include "tpm/tpm_cmds.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

// Offsets counted back from paramSize: the handle and continue flag of the last trailer, and of
// the one before it in a two-authorisation command.
constexpr UINT32 kLastAuthHandleBack = kAuthRequestTrailerSize;              // 45
constexpr UINT32 kLastAuthContinueBack = kAuthRequestTrailerSize - 24;       // 21
constexpr UINT32 kFirstAuthHandleBack = 2 * kAuthRequestTrailerSize;         // 90
constexpr UINT32 kFirstAuthContinueBack = 2 * kAuthRequestTrailerSize - 24;  // 66

struct ReqMgrState {
  std::atomic<bool> bOpenDDL{false};
  // Where req_mgr_submit receives each response: one exchange at a time uses it.
  std::array<BYTE, kTpmBlobSize> response GUARDED_BY(tpm_lock());
  std::atomic<bool> vendor_exclusive{false};
  // Guards the transport state and the audit hook; a leaf, held only for a few loads or stores.
  Mutex state_mu;
  TransportState transport GUARDED_BY(state_mu);
  AuditIsAuditedFn audit_is_audited GUARDED_BY(state_mu) = nullptr;
  AuditWriteFn audit_write GUARDED_BY(state_mu) = nullptr;
};

ReqMgrState& State() {
  static ReqMgrState state;
  return state;
}

bool IsVendorOrdinal(UINT32 ordinal) {
  return ordinal == kVendorOrdinalOpen || ordinal == kVendorOrdinalContinue ||
         ordinal == kVendorOrdinalEnd;
}

// An authorisation session named in a request, with the continue flag it carries.
struct NotedAuth {
  UINT32 handle = 0;
  bool release_on_failure = false;  // continue flag 0
  UINT32 resource_type = 0;
};

// Reads the trailer that ends `handleBack` bytes before the end of the request. A trailer that
// would start inside the header does not exist; its session is left alone.
NotedAuth NoteAuth(std::span<const BYTE> request, UINT32 handleBack, UINT32 continueBack,
                   UINT32 resourceType) {
  UINT32 paramSize = static_cast<UINT32>(request.size());
  if (paramSize < kTpmHeaderSize + handleBack) return {};
  return {PeekUINT32(request, paramSize - handleBack), request[paramSize - continueBack] == 0,
          resourceType};
}

// Sends `request` again for as long as the TPM answers TPM_RETRY and checks the framing of the
// last answer: on 0 it is in s.response, at least a header and no longer than what arrived or than
// `capacity`, and *responseSize is its paramSize. Otherwise the transmit result, or
// TCS_E_COMM_FAILURE for a badly framed answer.
TSS_RESULT TransmitUntilAnswered(ReqMgrState& s, std::span<const BYTE> request, size_t capacity,
                                 UINT32* responseSize) REQUIRES(tpm_lock()) {
  UINT32 received = 0;
  TSS_RESULT result;
  do {
    result = transmit_timed(request, s.response, &received, kPriorityNormal);
  } while (result == TSS_SUCCESS && received >= kTpmHeaderSize &&
           PeekUINT32(s.response, 6) == TPM_RETRY);
  if (result != TSS_SUCCESS) return result;
  // A larger paramSize would make the caller parse bytes that never came from the TPM.
  *responseSize = received >= kTpmHeaderSize ? PeekUINT32(s.response, 2) : 0;
  if (*responseSize < kTpmHeaderSize || *responseSize > received || *responseSize > capacity) {
    return TCS_E_COMM_FAILURE;
  }
  return TSS_SUCCESS;
}

}  // namespace

TSS_RESULT transmit_timed(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                          UINT32 priority) {
  if (!NeedLog()) return driver_transmit(in, out, outLen, priority);
  LogTransDataWithTpm(static_cast<UINT32>(in.size()), in.data(), kTrafficSend);
  const auto start = std::chrono::steady_clock::now();
  TSS_RESULT result = driver_transmit(in, out, outLen, priority);
  const auto end = std::chrono::steady_clock::now();
  std::array<char, 64> text;
  if (result != TSS_SUCCESS) {
    std::snprintf(text.data(), text.size(), "Tddli_TransmitData:0x%.8X", result);
  } else {
    LogTransDataWithTpm(*outLen, out.data(), kTrafficReceive);
    double ms = std::chrono::duration<double, std::milli>(end - start).count();
    std::snprintf(text.data(), text.size(), "req_mgr:Consume %7.5f seconds\n", ms / 1000.0);
  }
  LogTransDataWithTpm(0, reinterpret_cast<const BYTE*>(text.data()), kTrafficText);
  return result;
}

TSS_RESULT req_mgr_init() {
  ReqMgrState& s = State();
  if (s.bOpenDDL) return TSS_SUCCESS;
  TSS_RESULT result = driver_open();
  if (result != TSS_SUCCESS) return result;
  s.bOpenDDL = true;
  TpmLockGuard lock(TPM_ORD_ContinueSelfTest);
  static_cast<void>(RunTpmStartupSequence());
  return TSS_SUCCESS;
}

TSS_RESULT req_mgr_final() {
  ReqMgrState& s = State();
  static_cast<void>(req_mgr_cancel());
  TSS_RESULT result = driver_close();
  s.bOpenDDL = false;
  s.vendor_exclusive = false;
  ClearTransportState();
  return result;
}

TSS_RESULT req_mgr_cancel() { return driver_cancel(); }

bool req_mgr_driver_open() { return State().bOpenDDL; }

TSS_RESULT req_mgr_submit(std::span<BYTE> blob) {
  ReqMgrState& s = State();
  if (!s.bOpenDDL) return TCS_E_COMM_FAILURE;
  if (blob.size() < kTpmHeaderSize) return TCS_E_BAD_PARAMETER;

  const UINT32 ordinal = PeekUINT32(blob, 6);
  if (s.vendor_exclusive && !IsVendorOrdinal(ordinal)) return TCS_E_ORDINAL_NOT_PERMITTED;

  const UINT32 paramSize = PeekUINT32(blob, 2);
  if (paramSize < kTpmHeaderSize || paramSize > blob.size()) return TCS_E_BAD_PARAMETER;
  const std::span<const BYTE> request = blob.first(paramSize);

  AuditIsAuditedFn isAudited;
  AuditWriteFn auditWrite;
  bool exclusiveTransport;
  {
    MutexLock lock(s.state_mu);
    isAudited = s.audit_is_audited;
    auditWrite = s.audit_write;
    exclusiveTransport = s.transport.active;
  }
  const bool audited = isAudited != nullptr && auditWrite != nullptr && isAudited(ordinal);
  if (audited) auditWrite(paramSize, request.data(), true);

  std::array<NotedAuth, 2> auths;
  const UINT16 tag = PeekUINT16(request, 0);
  if (tag == TPM_TAG_RQU_AUTH1_COMMAND) {
    auths[0] = NoteAuth(request, kLastAuthHandleBack, kLastAuthContinueBack, TPM_RT_TRANS);
  } else if (tag == TPM_TAG_RQU_AUTH2_COMMAND) {
    // The first session is released as an authorisation session, the second as a transport
    // session: the types the service has always sent.
    auths[0] = NoteAuth(request, kFirstAuthHandleBack, kFirstAuthContinueBack, TPM_RT_AUTH);
    auths[1] = NoteAuth(request, kLastAuthHandleBack, kLastAuthContinueBack, TPM_RT_TRANS);
  }

  if (exclusiveTransport && ordinal != TPM_ORD_ExecuteTransport &&
      ordinal != TPM_ORD_ReleaseTransportSigned) {
    return TCS_E_EXCLUSIVE_TRANSPORT;
  }

  TpmLockGuard tpm(ordinal);
  UINT32 responseSize = 0;
  TSS_RESULT result = TransmitUntilAnswered(s, request, blob.size(), &responseSize);
  if (result != TSS_SUCCESS) {
    for (const NotedAuth& auth : auths) {
      if (auth.release_on_failure) {
        static_cast<void>(ReleaseTpmHandle(auth.handle, auth.resource_type));
      }
    }
    return result;
  }

  std::copy_n(s.response.begin(), responseSize, blob.begin());
  const UINT32 code = PeekUINT32(blob, 6);
  if (code == TPM_NEEDS_SELFTEST) {
    static_cast<void>(SendContinueSelfTest());
    result = TCS_E_INTERNAL_ERROR;
  }
  if (audited) auditWrite(responseSize, blob.data(), false);
  if (ordinal == TPM_ORD_EstablishTransport && code == TPM_SUCCESS) {
    MutexLock lock(s.state_mu);
    s.transport.active = (s.transport.attributes & TPM_TRANSPORT_EXCLUSIVE) != 0;
  } else if (ordinal == TPM_ORD_ExecuteTransport && code != TPM_SUCCESS) {
    MutexLock lock(s.state_mu);
    s.transport = TransportState();
  }
  return result;
}

void SetVendorExclusiveMode(bool on) { State().vendor_exclusive = on; }
bool VendorExclusiveMode() { return State().vendor_exclusive; }

void SetTransportAttributes(UINT32 attributes) {
  ReqMgrState& s = State();
  MutexLock lock(s.state_mu);
  s.transport.attributes = attributes;
}

void SetTransportHandle(UINT32 handle) {
  ReqMgrState& s = State();
  MutexLock lock(s.state_mu);
  s.transport.handle = handle;
}

void ClearTransportState() {
  ReqMgrState& s = State();
  MutexLock lock(s.state_mu);
  s.transport = TransportState();
}

TransportState GetTransportState() {
  ReqMgrState& s = State();
  MutexLock lock(s.state_mu);
  return s.transport;
}

void SetAuditHook(AuditIsAuditedFn isAudited, AuditWriteFn write) {
  ReqMgrState& s = State();
  MutexLock lock(s.state_mu);
  s.audit_is_audited = isAudited;
  s.audit_write = write;
}

}  // namespace kesttcs
