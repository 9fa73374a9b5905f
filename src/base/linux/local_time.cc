#include "base/local_time.h"

namespace kesttcs {

std::tm LocalTimeOf(std::time_t seconds) {
  std::tm local{};
  localtime_r(&seconds, &local);
  return local;
}

}  // namespace kesttcs
