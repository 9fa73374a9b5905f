// Annotated mutexes for the service's managers. Every manager guards its tables with one of these
// so that a clang build checks the lock discipline; the lock order between managers is written
// where each mutex is declared.
#pragma once

#include <mutex>

#include "base/thread_annotations.h"

namespace kesttcs {

// A plain (non-recursive) mutex.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mu_.lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }
  std::mutex& native() { return mu_; }

 private:
  std::mutex mu_;
};

// A mutex the same thread may take again; each Lock needs its own Unlock.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void Lock() ACQUIRE() { mu_.lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }

 private:
  std::recursive_mutex mu_;
};

// Holds a mutex for the lifetime of the scope.
template <typename M>
class SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(M& mu) ACQUIRE(mu) : mu_(mu) { mu_.Lock(); }
  ~ScopedLock() RELEASE() { mu_.Unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  M& mu_;
};

using MutexLock = ScopedLock<Mutex>;
using RecursiveMutexLock = ScopedLock<RecursiveMutex>;

}  // namespace kesttcs
