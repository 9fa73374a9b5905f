#include "base/local_time.h"

namespace kesttcs {

std::tm LocalTimeOf(std::time_t seconds) {
  std::tm local{};
  localtime_s(&local, &seconds);
  return local;
}

}  // namespace kesttcs
