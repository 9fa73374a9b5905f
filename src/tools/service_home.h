// Where the service keeps its files, as the service finds them, for the commands that read them.
#pragma once

#include <string>

namespace kesttcs::cli {

// $KESTTCS_HOME, else the platform's home of the service (Linux: /var/lib/kesttcs, where the unit
// puts it; Windows: the directory of this program, which is installed beside kesttcsd.exe).
std::string ServiceHome();

// The value of `name` in `section` of the service's tcs_cfg.ini; "" when there is none or the file
// cannot be read.
std::string ServiceConfigValue(const char* section, const char* name);

}  // namespace kesttcs::cli
