// A recursive mutex that knows its owner, so that a release by a thread that does not hold it is
// refused (as a Windows mutex refuses it) rather than undefined. Waiters sleep in the mutex itself:
// a release wakes one of them, not every thread that waits. The TPM lock is made of two of these.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace kesttcs {

class OwnedRecursiveMutex {
 public:
  OwnedRecursiveMutex() = default;
  OwnedRecursiveMutex(const OwnedRecursiveMutex&) = delete;
  OwnedRecursiveMutex& operator=(const OwnedRecursiveMutex&) = delete;

  // Lockable, so that std::lock can wait for two of them at once. Each lock needs its own release.
  void lock() {
    mu_.lock();
    Take();
  }
  bool try_lock() {
    if (!mu_.try_lock()) return false;
    Take();
    return true;
  }
  void unlock() { static_cast<void>(Release()); }

  // Waits at most `timeout`; true when the calling thread holds the mutex. It polls rather than
  // using a timed mutex, whose clock-based wait the thread sanitizer cannot follow.
  bool try_lock_for(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!try_lock()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

  // True when the calling thread holds the mutex.
  bool HeldByThisThread() const {
    return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  // Undoes one lock. False, changing nothing, when the calling thread does not hold the mutex.
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

}  // namespace kesttcs
