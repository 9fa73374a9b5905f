#include "tpm/req_mgr.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>

#include "base/logging.h"
#include "base/mutex.h"
#include "tpm/driver.h"
#include "tpm/tpm_backend.h"
#include "tpm/tpm_bytes.h"
#include "tpm/tpm_cmds.h"
#include "tpm/tpm_turns.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

// Offsets counted back from paramSize: the handle and continue flag of the last trailer, and of
// the one before it in a two-authorisation command.
constexpr UINT32 kLastAuthHandleBack = kAuthRequestTrailerSize;              // 45
constexpr UINT32 kLastAuthContinueBack = kAuthRequestTrailerSize - 24;       // 21
constexpr UINT32 kFirstAuthHandleBack = 2 * kAuthRequestTrailerSize;         // 90
constexpr UINT32 kFirstAuthContinueBack = 2 * kAuthRequestTrailerSize - 24;  // 66

// A recursive mutex that knows its owner, so that a release by another thread is refused (as a
// Windows mutex refuses it) rather than undefined. Waiters sleep in the mutex itself: a release
// wakes one of them, not every thread that waits for the TPM.
class OwnedRecursiveMutex {
 public:
  void lock() {
    mu_.lock();
    Take();
  }
  bool try_lock() {
    if (!mu_.try_lock()) return false;
    Take();
    return true;
  }
  // Only the power-state query waits with a limit. It polls rather than using a timed mutex,
  // whose clock-based wait the thread sanitizer cannot follow.
  bool try_lock_for(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!try_lock()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  void unlock() { (void)Release(); }
  // False, changing nothing, when the calling thread does not hold the mutex.
  bool Release() {
    // Only the owner can see its own id here, and it stored that id itself.
    if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return false;
    if (--depth_ == 0) owner_.store(std::thread::id(), std::memory_order_relaxed);
    mu_.unlock();
    return true;
  }

 private:
  void Take() {
    if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  }

  std::recursive_mutex mu_;
  std::atomic<std::thread::id> owner_{};
  int depth_ = 0;  // changed only by the thread that holds mu_
};

// The TPM lock: queue_lock, held while a command is at the TPM, and s3_lock, held across a sleep
// transition so that no command starts. A thread may take each again; a waiter for both takes
// them together (std::lock backs off rather than holding one while it sleeps on the other).
class TpmLockPair {
 public:
  void LockBoth() { std::lock(queue_, s3_); }
  void LockS3() { s3_.lock(); }
  bool LockQueueFor(std::chrono::milliseconds timeout) { return queue_.try_lock_for(timeout); }
  bool UnlockQueue() { return queue_.Release(); }
  bool UnlockS3() { return s3_.Release(); }
  // Stand-ins for the two mutex handles in trace lines.
  UINT32 QueueId() const { return static_cast<UINT32>(reinterpret_cast<uintptr_t>(&queue_)); }
  UINT32 S3Id() const { return static_cast<UINT32>(reinterpret_cast<uintptr_t>(&s3_)); }

 private:
  OwnedRecursiveMutex queue_;
  OwnedRecursiveMutex s3_;
};

struct ReqMgrState {
  // The lock record. It lives as long as the process so that no thread can be left waiting on a
  // pair that was replaced or freed.
  TpmLockPair tpm_lock;
  std::atomic<bool> bOpenDDL{false};
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

}  // namespace

void LockTPM(UINT32 curCmdOrdinal) {
  TpmLockPair& lock = State().tpm_lock;
  tpm_turn_Take();
  lock.LockBoth();
  TcsTracef("LockTPM queue_lock=0x%.8X,s3_lock=0x%.8x,curCmdOrdinal=0x%.8X", lock.QueueId(),
            lock.S3Id(), curCmdOrdinal);
  lock.UnlockS3();
}

void UnlockTPM() {
  if (State().tpm_lock.UnlockQueue()) tpm_turn_Give();
  TcsTrace(" ++++++++++++ UnlockTPM ++++++++++++", nullptr);
}

void LockS3() { State().tpm_lock.LockS3(); }
bool UnlockS3() { return State().tpm_lock.UnlockS3(); }
bool LockQueueFor(std::chrono::milliseconds timeout) {
  return State().tpm_lock.LockQueueFor(timeout);
}

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
  LockTPM(TPM_ORD_ContinueSelfTest);
  static_cast<void>(RunTpmStartupSequence());
  UnlockTPM();
  return TSS_SUCCESS;
}

TSS_RESULT req_mgr_final() {
  ReqMgrState& s = State();
  static_cast<void>(req_mgr_cancel());
  TSS_RESULT result = driver_close();
  s.bOpenDDL = false;
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

  LockTPM(ordinal);
  std::array<BYTE, kTpmBlobSize> response;
  UINT32 received = 0;
  TSS_RESULT result;
  do {
    result = transmit_timed(request, response, &received, kPriorityNormal);
  } while (result == TSS_SUCCESS && received >= kTpmHeaderSize &&
           PeekUINT32(response, 6) == TPM_RETRY);

  // A response must be at least a header and no longer than what arrived: a larger paramSize
  // would make the caller parse bytes that never came from the TPM.
  UINT32 responseSize = received >= kTpmHeaderSize ? PeekUINT32(response, 2) : 0;
  if (result == TSS_SUCCESS &&
      (responseSize < kTpmHeaderSize || responseSize > received || responseSize > blob.size())) {
    result = TCS_E_COMM_FAILURE;
  }

  if (result != TSS_SUCCESS) {
    for (const NotedAuth& auth : auths) {
      if (auth.release_on_failure) {
        static_cast<void>(ReleaseTpmHandle(auth.handle, auth.resource_type));
      }
    }
    UnlockTPM();
    return result;
  }

  std::copy_n(response.begin(), responseSize, blob.begin());
  const UINT32 code = PeekUINT32(response, 6);
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
  UnlockTPM();
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
