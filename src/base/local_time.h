// The broken-down local time of a moment: localtime_r on Linux (linux/local_time.cc), localtime_s
// on Windows (windows/local_time.cc). Safe to call from any thread.
#pragma once

#include <ctime>

namespace kesttcs {

std::tm LocalTimeOf(std::time_t seconds);

}  // namespace kesttcs
