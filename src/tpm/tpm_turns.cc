#include "tpm/tpm_turns.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "base/mutex.h"

namespace kesttcs {
namespace {

using Clock = std::chrono::steady_clock;

// How long a waiting thread lets newly arriving commands go first. Handing the turn to a thread
// that is asleep leaves the TPM idle until that thread runs, which for commands of a few
// microseconds costs more than the commands themselves; so while every waiter is younger than this,
// a turn given back is free for whichever thread asks first, and the next waiter is only woken to
// ask. Once a waiter is older, the turn is handed round the waiters strictly, so clients behind
// long commands are never passed over.
constexpr std::chrono::milliseconds kPatience{1};

// How long a thread that finds the turn held watches for it, awake, before it queues. A turn is
// held for a few microseconds; a thread that sleeps instead costs two context switches, and when
// the turn comes to it the TPM waits until it runs again. Watching only pays where the holder can
// run on another CPU meanwhile.
constexpr std::chrono::microseconds kWatch{50};

thread_local uint64_t t_client = 0;
thread_local bool t_holds_turn = false;

// A thread waiting for its turn; lives on that thread's stack until it has taken the turn.
struct Waiter {
  std::condition_variable wake;
  const Clock::time_point since = Clock::now();
  bool granted = false;  // the turn was handed to this thread
};

struct Turns {
  Mutex mu;
  // Written under mu; threads watching for the turn read it without.
  std::atomic<bool> taken = false;
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

// The waiter whose turn is next: the first waiting thread of the next client. Needs a waiter.
Waiter* Next(Turns& t) REQUIRES(t.mu) { return t.waiting.at(t.rotation.front()).front(); }

// Takes the next waiter out of the queues; a client with more waiters goes round again.
void PopNext(Turns& t) REQUIRES(t.mu) {
  const uint64_t client = t.rotation.front();
  t.rotation.pop_front();
  const auto queue = t.waiting.find(client);
  queue->second.pop_front();
  if (queue->second.empty()) {
    t.waiting.erase(queue);
  } else {
    t.rotation.push_back(client);
  }
  --t.waiters;
}

// Whether some waiter has waited longer than the patience; each client's first waiter is its
// oldest.
bool SomeoneOutOfPatience(Turns& t) REQUIRES(t.mu) {
  if (t.waiting.empty()) return false;  // the common case, without reading the clock
  const Clock::time_point limit = Clock::now() - kPatience;
  for (const auto& [client, queue] : t.waiting) {
    if (queue.front()->since < limit) return true;
  }
  return false;
}

// Waits awake, a short while at most, for a turn held by another thread to be given back.
void WatchBriefly(const Turns& t) {
  static const bool other_cpus = std::thread::hardware_concurrency() > 1;
  if (!other_cpus || t_holds_turn || !t.taken.load(std::memory_order_relaxed)) return;
  const Clock::time_point until = Clock::now() + kWatch;
  while (t.taken.load(std::memory_order_relaxed) && Clock::now() < until) {
  }
}

}  // namespace

TpmClientScope::TpmClientScope(uint64_t client) : previous_(t_client) { t_client = client; }
TpmClientScope::~TpmClientScope() { t_client = previous_; }

void tpm_turn_Take() {
  Turns& t = T();
  const std::thread::id self = std::this_thread::get_id();
  WatchBriefly(t);
  MutexLock lock(t.mu);
  if (t.taken && t.holder == self) {
    ++t.depth;
    return;
  }
  if (t.taken || SomeoneOutOfPatience(t)) {
    Waiter waiter;
    std::deque<Waiter*>& queue = t.waiting[t_client];
    if (queue.empty()) t.rotation.push_back(t_client);
    queue.push_back(&waiter);
    ++t.waiters;
    std::unique_lock<std::mutex> wait(t.mu.native(), std::adopt_lock);
    // Handed the turn, or woken as the next waiter to find it free.
    while (!waiter.granted && (t.taken || Next(t) != &waiter)) waiter.wake.wait(wait);
    wait.release();
    if (!waiter.granted) PopNext(t);
  }
  t.taken = true;
  t.holder = self;
  t.depth = 1;
  t_holds_turn = true;
}

void tpm_turn_Give() {
  Turns& t = T();
  MutexLock lock(t.mu);
  if (!t.taken || t.holder != std::this_thread::get_id() || --t.depth > 0) return;
  t.holder = std::thread::id();
  t_holds_turn = false;
  if (t.rotation.empty()) {
    t.taken = false;
    return;
  }
  Waiter* next = Next(t);
  if (SomeoneOutOfPatience(t)) {
    PopNext(t);
    next->granted = true;
  } else {
    t.taken = false;
  }
  next->wake.notify_one();
}

size_t tpm_turn_Waiting() {
  Turns& t = T();
  MutexLock lock(t.mu);
  return t.waiters;
}

}  // namespace kesttcs
