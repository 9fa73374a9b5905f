// The TPM lock: one per process, a pair of recursive, thread-owned mutexes (owned_mutex.h).
//   queue_lock  held for the whole of one exchange; serialises all TPM traffic.
//   s3_lock     held by power-state handling across a sleep; a command may start only while it is
//               free, but it is not held during the exchange.
//
// Holding the TPM lock means holding queue_lock. Everything that talks to the TPM (transmit_timed
// and the commands built on it) REQUIRES it, so that the clang build checks every caller. It is
// taken in one of two ways:
//   - TpmLockGuard, for one scope: waits for the calling client's turn among the clients that
//     wait (tpm_turns.h), then for both mutexes at once (never one while holding the other),
//     keeps queue_lock and lets s3_lock go. Every command takes it this way.
//   - S3Hold, power-state handling's hand-over across a sleep: s3_lock first (no command starts),
//     then queue_lock with a time-out (the command in flight ends first); the query before sleep
//     takes it and the resume or the rejection lets it go, in later calls. This is the one use of
//     the lock that outlives a scope, so the lock analysis does not follow it; code that talks to
//     the TPM under it still takes a TpmLockGuard, which the holding thread gets at once.
// A thread may take either mutex again while it holds it. A release by a thread that does not
// hold a mutex is refused and does nothing.
//
// Lock order of the service: the context list before the TPM lock and the key cache; where the TPM
// lock and the key cache are both held, the TPM lock comes first; the session mutex before the TPM
// lock.
#pragma once

#include <chrono>

#include <kesttcs/tcs_types.h>

#include "base/thread_annotations.h"
#include "tpm/owned_mutex.h"

namespace kesttcs {

class CAPABILITY("mutex") TpmLock {
 public:
  TpmLock(const TpmLock&) = delete;
  TpmLock& operator=(const TpmLock&) = delete;

 private:
  friend TpmLock& tpm_lock();
  friend class TpmLockGuard;
  friend class S3Hold;

  TpmLock() = default;

  OwnedRecursiveMutex queue_;
  OwnedRecursiveMutex s3_;
};

// The TPM lock of the process. It lives as long as the process, so that no thread can be left
// waiting on a lock that was replaced or freed.
TpmLock& tpm_lock();

// Holds the TPM lock for the lifetime of the scope.
class SCOPED_CAPABILITY TpmLockGuard {
 public:
  // Waits for queue_lock and s3_lock together (no time-out), traces "LockTPM
  // queue_lock=0x%.8X,s3_lock=0x%.8x,curCmdOrdinal=0x%.8X" (the two mutexes' addresses stand in for
  // handles) and lets s3_lock go. `curCmdOrdinal` is only traced.
  explicit TpmLockGuard(UINT32 curCmdOrdinal) ACQUIRE(tpm_lock());
  // Releases queue_lock and traces " ++++++++++++ UnlockTPM ++++++++++++".
  ~TpmLockGuard() RELEASE();

  TpmLockGuard(const TpmLockGuard&) = delete;
  TpmLockGuard& operator=(const TpmLockGuard&) = delete;

 private:
  // Whether this guard waited for the client's turn (tpm_turns.h) and so must pass it on.
  const bool took_turn_;
};

// Power-state handling's hold on the TPM across a sleep (see above). It remembers what it holds
// and releases that, and only that, when told to or when destroyed; it must be released on the
// thread that took it (elsewhere the release is refused and the mutexes stay held).
class S3Hold {
 public:
  // Holds nothing.
  S3Hold() = default;
  // Waits for s3_lock without time-out: from then on no command starts.
  [[nodiscard]] static S3Hold Take();

  S3Hold(S3Hold&& other) noexcept;
  S3Hold& operator=(S3Hold&& other) noexcept;
  ~S3Hold() { Release(); }

  // Waits at most `timeout` for queue_lock, that is for the command in flight to end. True when
  // this hold has it (also when it had it already).
  [[nodiscard]] bool HoldQueueFor(std::chrono::milliseconds timeout);
  // Lets queue_lock go when this hold has it, and traces " ++++++++++++ UnlockTPM ++++++++++++"
  // either way, as the unlock of a guard does.
  void ReleaseQueue();
  // Lets go of everything this hold has: queue_lock, then s3_lock. Harmless when it has nothing.
  void Release();

 private:
  void DropQueue();

  bool s3_ = false;
  bool queue_ = false;
};

}  // namespace kesttcs
