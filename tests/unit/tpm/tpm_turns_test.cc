#include "tpm/tpm_turns.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kesttcs {
namespace {

// Threads of three clients queue up behind the holder in the order A1 A2 A3 B1 C1: the turn goes
// round the clients, one command each, so B and C wait for one of A's commands, not three.
TEST(TpmTurnsTest, WaitingClientsTakeTurns) {
  std::mutex log_mu;
  std::vector<std::string> log;
  std::vector<std::thread> threads;
  tpm_turn_Take();
  tpm_turn_Take();  // the holder may take its turn again
  const std::pair<uint64_t, const char*> arrivals[] = {
      {1, "A1"}, {1, "A2"}, {1, "A3"}, {2, "B1"}, {3, "C1"}};
  for (const auto& arrival : arrivals) {
    const size_t before = tpm_turn_Waiting();
    threads.emplace_back([&log_mu, &log, client = arrival.first, name = arrival.second] {
      TpmClientScope scope(client);
      tpm_turn_Take();
      {
        std::lock_guard lock(log_mu);
        log.push_back(name);
      }
      tpm_turn_Give();
    });
    while (tpm_turn_Waiting() == before) std::this_thread::yield();
  }
  tpm_turn_Give();
  EXPECT_EQ(tpm_turn_Waiting(), 5u);  // the inner give kept the turn
  tpm_turn_Give();
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(log, (std::vector<std::string>{"A1", "B1", "C1", "A2", "A3"}));
  EXPECT_EQ(tpm_turn_Waiting(), 0u);
  // A thread without the turn gives nothing away; the turn is free again.
  tpm_turn_Give();
  tpm_turn_Take();
  tpm_turn_Give();
}

// Once a waiter has waited past the patience, a turn given back is handed to it rather than left
// free: a command that arrives at that moment queues behind it.
TEST(TpmTurnsTest, AWaiterPastThePatienceIsHandedTheTurn) {
  std::mutex log_mu;
  std::vector<std::string> log;
  const auto note = [&log_mu, &log](const char* name) {
    std::lock_guard lock(log_mu);
    log.push_back(name);
  };
  tpm_turn_Take();
  std::thread waiter([&note] {
    TpmClientScope scope(2);
    tpm_turn_Take();
    note("waiter");
    tpm_turn_Give();
  });
  while (tpm_turn_Waiting() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  tpm_turn_Give();
  EXPECT_EQ(tpm_turn_Waiting(), 0u);  // the waiter holds the turn before it has even woken
  tpm_turn_Take();
  note("newcomer");
  tpm_turn_Give();
  waiter.join();
  EXPECT_EQ(log, (std::vector<std::string>{"waiter", "newcomer"}));
}

}  // namespace
}  // namespace kesttcs
