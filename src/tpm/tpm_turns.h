// Whose turn it is at the TPM. Every command waits for the TPM lock; left to the lock, whichever
// waiter happens to wake first goes next, so a few clients sending long commands back to back can
// keep another client waiting for many of their commands. The turn instead goes round the clients
// that wait, one command each: each client has a queue of its waiting threads, and the clients
// take turns in the order in which they began to wait.
//
// Waking the next waiter takes longer than a short command, so the turn is not handed to a
// sleeping thread while every waiter has waited less than a millisecond: given back, it is free for
// the first thread that asks, a command arriving at that moment may go first, and the next waiter
// is woken to ask in its turn. Once a waiter has waited longer, the turn is handed round the
// waiters strictly and newcomers queue behind them: a client with one command then waits for at
// most one command of each other client. For the same reason a thread that finds the turn held
// watches for it awake for up to 50 µs before it queues to sleep, where another CPU can run the
// holder meanwhile.
//
// A client is whatever the calling thread acts for (TpmClientScope); a thread that says nothing
// acts for the service itself, a client like any other. The thread holding the turn may take it
// again (the TPM lock is recursive); the turn passes on when its outermost hold ends.
//
// Lock: one leaf mutex inside; a thread waiting for its turn holds no other lock of this module.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kesttcs {

// While it lives, the calling thread's TPM commands are those of `client`.
class TpmClientScope {
 public:
  explicit TpmClientScope(uint64_t client);
  ~TpmClientScope();
  TpmClientScope(const TpmClientScope&) = delete;
  TpmClientScope& operator=(const TpmClientScope&) = delete;

 private:
  uint64_t previous_;
};

// Waits until it is the calling thread's turn (at once when nobody holds it, or when this thread
// does).
void tpm_turn_Take();
// Ends one hold of the calling thread's turn; the outermost passes the turn to the next client.
// Does nothing when the thread does not hold the turn.
void tpm_turn_Give();
// Threads waiting for their turn.
size_t tpm_turn_Waiting();

}  // namespace kesttcs
