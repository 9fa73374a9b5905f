#include "tpm/tpm_turns.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "base/mutex.h"

namespace kesttcs {
namespace {

thread_local uint64_t t_client = 0;

// A thread waiting for its turn; lives on that thread's stack until it has been granted the turn.
struct Waiter {
  std::condition_variable wake;
  bool granted = false;
};

struct Turns {
  Mutex mu;
  bool taken GUARDED_BY(mu) = false;
  std::thread::id holder GUARDED_BY(mu);
  int depth GUARDED_BY(mu) = 0;
  // Clients with waiting threads, next first, and each one's waiting threads in arrival order.
  std::deque<uint64_t> rotation GUARDED_BY(mu);
  std::unordered_map<uint64_t, std::deque<Waiter*>> waiting GUARDED_BY(mu);
  size_t waiters GUARDED_BY(mu) = 0;
};

Turns& T() {
  static Turns* turns = new Turns;
  return *turns;
}

}  // namespace

TpmClientScope::TpmClientScope(uint64_t client) : previous_(t_client) { t_client = client; }
TpmClientScope::~TpmClientScope() { t_client = previous_; }

void tpm_turn_Take() {
  Turns& t = T();
  const std::thread::id self = std::this_thread::get_id();
  MutexLock lock(t.mu);
  if (t.taken && t.holder == self) {
    ++t.depth;
    return;
  }
  if (t.taken) {
    Waiter waiter;
    std::deque<Waiter*>& queue = t.waiting[t_client];
    if (queue.empty()) t.rotation.push_back(t_client);
    queue.push_back(&waiter);
    ++t.waiters;
    std::unique_lock<std::mutex> wait(t.mu.native(), std::adopt_lock);
    waiter.wake.wait(wait, [&waiter] { return waiter.granted; });
    wait.release();
  }
  t.taken = true;
  t.holder = self;
  t.depth = 1;
}

void tpm_turn_Give() {
  Turns& t = T();
  MutexLock lock(t.mu);
  if (!t.taken || t.holder != std::this_thread::get_id() || --t.depth > 0) return;
  t.holder = std::thread::id();
  if (t.rotation.empty()) {
    t.taken = false;
    return;
  }
  // The turn goes to the next client's first waiter; a client with more waiters goes round again.
  const uint64_t client = t.rotation.front();
  t.rotation.pop_front();
  const auto queue = t.waiting.find(client);
  Waiter* next = queue->second.front();
  queue->second.pop_front();
  if (queue->second.empty()) {
    t.waiting.erase(queue);
  } else {
    t.rotation.push_back(client);
  }
  --t.waiters;
  next->granted = true;
  next->wake.notify_one();
}

size_t tpm_turn_Waiting() {
  Turns& t = T();
  MutexLock lock(t.mu);
  return t.waiters;
}

}  // namespace kesttcs
