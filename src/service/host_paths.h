// Where the service keeps its files: everything lives below one home directory.
#pragma once

#include <string>

namespace kesttcs {

// Every file of the service lives below its home directory.
struct HostPaths {
  std::string home;         // the home directory itself, without a trailing '/'
  std::string config;       // home + "/tcs_cfg.ini"
  std::string data;         // home + "/data"
  std::string storageFile;  // home + "/data/KestData.dat"
  std::string audit;        // home + "/audit"
  std::string log;          // home + "/log"
};

// Full path of the running executable; empty, with errno saying why, when it cannot be read.
std::string ExecutablePath();

// The home directory: $KESTTCS_HOME when set and not empty, otherwise the directory of the running
// executable. Trailing '/' are dropped (except for "/" itself).
std::string ResolveHomeDirectory();

// The paths below `home`.
HostPaths BuildHostPaths(const std::string& home);

}  // namespace kesttcs
