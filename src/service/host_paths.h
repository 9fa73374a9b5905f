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

// Full path of the running executable; empty when it cannot be read. One source per host
// (linux/executable_path.cc, windows/executable_path.cc).
std::string ExecutablePath();

// The directory part of ExecutablePath() without its trailing separator; "." when unknown.
std::string ExecutableDirectory();

// The home directory: $KESTTCS_HOME when set and not empty, otherwise the directory of the running
// executable. Trailing '/' are dropped (except for "/" itself).
std::string ResolveHomeDirectory();

// The paths below `home`.
HostPaths BuildHostPaths(const std::string& home);

}  // namespace kesttcs
