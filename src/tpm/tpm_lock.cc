#include "tpm/tpm_lock.h"

#include <cstdint>
#include <mutex>
#include <utility>

#include "base/logging.h"
#include "tpm/tpm_turns.h"

namespace kesttcs {
namespace {

// Stands in for a mutex handle in trace lines.
UINT32 TraceId(const OwnedRecursiveMutex& mu) {
  return static_cast<UINT32>(reinterpret_cast<uintptr_t>(&mu));
}

void TraceUnlock() { TcsTrace(" ++++++++++++ UnlockTPM ++++++++++++", nullptr); }

}  // namespace

TpmLock& tpm_lock() {
  static TpmLock lock;
  return lock;
}

// The mutexes underneath carry no annotations; the analysis sees the lock through the guard's.
TpmLockGuard::TpmLockGuard(UINT32 curCmdOrdinal) NO_THREAD_SAFETY_ANALYSIS
    : took_turn_(!tpm_lock().queue_.HeldByThisThread()) {
  TpmLock& lock = tpm_lock();
  // Clients take turns first, so the one whose turn it is meets no other client at the mutexes. A
  // thread that holds queue_lock already (a nested command, power handling across a sleep) has the
  // TPM and must not queue behind a client that waits for it.
  if (took_turn_) tpm_turn_Take();
  // std::lock backs off rather than holding one mutex while it sleeps on the other.
  std::lock(lock.queue_, lock.s3_);
  TcsTracef("LockTPM queue_lock=0x%.8X,s3_lock=0x%.8x,curCmdOrdinal=0x%.8X", TraceId(lock.queue_),
            TraceId(lock.s3_), curCmdOrdinal);
  lock.s3_.Release();
}

TpmLockGuard::~TpmLockGuard() NO_THREAD_SAFETY_ANALYSIS {
  tpm_lock().queue_.Release();
  if (took_turn_) tpm_turn_Give();
  TraceUnlock();
}

S3Hold S3Hold::Take() {
  tpm_lock().s3_.lock();
  S3Hold hold;
  hold.s3_ = true;
  return hold;
}

S3Hold::S3Hold(S3Hold&& other) noexcept
    : s3_(std::exchange(other.s3_, false)), queue_(std::exchange(other.queue_, false)) {}

S3Hold& S3Hold::operator=(S3Hold&& other) noexcept {
  if (this != &other) {
    Release();
    s3_ = std::exchange(other.s3_, false);
    queue_ = std::exchange(other.queue_, false);
  }
  return *this;
}

bool S3Hold::HoldQueueFor(std::chrono::milliseconds timeout) {
  if (!queue_) queue_ = tpm_lock().queue_.try_lock_for(timeout);
  return queue_;
}

void S3Hold::ReleaseQueue() {
  DropQueue();
  TraceUnlock();
}

void S3Hold::Release() {
  DropQueue();
  if (std::exchange(s3_, false)) static_cast<void>(tpm_lock().s3_.Release());
}

void S3Hold::DropQueue() {
  if (std::exchange(queue_, false)) static_cast<void>(tpm_lock().queue_.Release());
}

}  // namespace kesttcs
