// Wake-ups per call, a figure that does not depend on the machine's load: the voluntary context
// switches of all the process's threads (every time a thread sleeps, something must wake it), and
// how many threads slept at all, over a benchmark's loop. Client and service share the process,
// so a call that crosses between threads shows up as more than the two switches of a plain
// request and answer.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <map>

namespace kesttcs::bench {

class SwitchCount {
 public:
  // Takes the counts now.
  SwitchCount();
  // Adds the counter "wakeups/call" to `state`, and "threads woken" in one-client runs (with more
  // clients, the process-wide counts cannot be split between them). With several client threads
  // each constructs one, and the first one's Report counts for all.
  void Report(benchmark::State& state) const;

 private:
  std::map<pid_t, long> start_;
};

}  // namespace kesttcs::bench
