// The entry of the Windows tests that run once per driver library: the backend string ("auto"
// finds tbs.dll; "tddl:tpmddl.dll" names the TDDL library) and the path it must take ("tbs" or
// "tddl") on the command line.
#pragma once

#include <cstdio>
#include <cstring>

// Runs checks(backend, wantTbs) and returns its result (the failed checks) as the exit status, or
// prints the usage and returns 2 when the command line does not fit.
template <typename Checks>
int RunForDriver(int argc, char** argv, Checks checks) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s BACKEND tbs|tddl\n", argv[0]);
    return 2;
  }
  return checks(argv[1], std::strcmp(argv[2], "tbs") == 0);
}
