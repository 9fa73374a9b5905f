#include "tpm/driver.h"

#include <atomic>

#include "base/logging.h"
#include "base/mutex.h"
#include "tpm12/marshal.h"

namespace kesttcs {

namespace {

constexpr int kBindFailed = 1;

struct DriverState {
  // Guards the configuration, the owned backend and the error text. Leaf lock: taken only by
  // binding and unbinding (start-up, shut-down, tests), never during an exchange.
  Mutex mu;
  std::string config GUARDED_BY(mu) = "auto";
  std::string home GUARDED_BY(mu) = ".";
  std::unique_ptr<TpmBackend> owned GUARDED_BY(mu);
  std::string last_error GUARDED_BY(mu);
  // The bound backend, published once bound so that exchanges and cancels read it without a lock.
  std::atomic<TpmBackend*> bound{nullptr};
  std::atomic<bool> tbs{false};
};

DriverState& State() {
  static DriverState state;
  return state;
}

void SetLastErrorLocked(DriverState& s, std::string text) REQUIRES(s.mu) {
  s.last_error = std::move(text);
  TcsTracef("driver:%s", s.last_error.c_str());
}

}  // namespace

void driver_configure(std::string backendConfig, std::string home) {
  DriverState& s = State();
  MutexLock lock(s.mu);
  s.config = std::move(backendConfig);
  s.home = std::move(home);
}

void driver_use_backend(std::unique_ptr<TpmBackend> backend) {
  driver_unbind();
  DriverState& s = State();
  MutexLock lock(s.mu);
  s.owned = std::move(backend);
  s.last_error.clear();
  s.bound.store(s.owned.get(), std::memory_order_release);
}

void driver_unbind() {
  DriverState& s = State();
  MutexLock lock(s.mu);
  s.bound.store(nullptr, std::memory_order_release);
  if (s.owned != nullptr) {
    static_cast<void>(s.owned->Close());
    s.owned.reset();
  }
}

int bind_driver() {
  DriverState& s = State();
  if (s.bound.load(std::memory_order_acquire) != nullptr) return 0;
  MutexLock lock(s.mu);
  if (s.owned == nullptr) {
    std::string error;
    s.owned = CreateTpmBackend(s.config, s.home, &error);
    if (s.owned == nullptr) {
      SetLastErrorLocked(s, error);
      return kBindFailed;
    }
  }
  if (s.owned->Bind() != 0) {
    SetLastErrorLocked(s, s.owned->LastError());
    s.owned.reset();
    return kBindFailed;
  }
  if (s.owned->IsTbs()) s.tbs.store(true);
  SetResponseCodeMapping(s.tbs ? ResponseCodeMapping::kTbs : ResponseCodeMapping::kTddl);
  s.bound.store(s.owned.get(), std::memory_order_release);
  return 0;
}

TSS_RESULT driver_open() {
  if (bind_driver() != 0) return kDriverNotBound;
  DriverState& s = State();
  TpmBackend* backend = s.bound.load(std::memory_order_acquire);
  TSS_RESULT result = backend->Open();
  if (result != TSS_SUCCESS) {
    MutexLock lock(s.mu);
    SetLastErrorLocked(s, backend->Describe() + ": " + backend->LastError());
  }
  return result;
}

TSS_RESULT driver_close() {
  if (bind_driver() != 0) return kDriverNotBound;
  return State().bound.load(std::memory_order_acquire)->Close();
}

TSS_RESULT driver_cancel() {
  if (bind_driver() != 0) return kDriverNotBound;
  return State().bound.load(std::memory_order_acquire)->Cancel();
}

TSS_RESULT driver_transmit(std::span<const BYTE> in, std::span<BYTE> out, UINT32* outLen,
                           UINT32 priority) {
  *outLen = 0;
  if (bind_driver() != 0) return TCS_E_DRIVER_NOT_AVAILABLE;
  return State().bound.load(std::memory_order_acquire)->Transmit(in, out, outLen, priority);
}

std::string driver_last_error() {
  DriverState& s = State();
  MutexLock lock(s.mu);
  return s.last_error;
}

bool driver_is_tbs() { return State().tbs.load(); }

void driver_set_tbs(bool tbs) {
  State().tbs.store(tbs);
  SetResponseCodeMapping(tbs ? ResponseCodeMapping::kTbs : ResponseCodeMapping::kTddl);
}

}  // namespace kesttcs
