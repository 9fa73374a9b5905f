// Runs a Python script that drives a server through impacket (Debian's python3-impacket under the
// system python; the python3 on PATH may lack it). The script can import impacket_probe.py, which
// lies beside this header.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

namespace kesttcs {

// Writes `body` to `dir`/impacket_client.py, runs it with `port` as its argument and returns what
// it printed (stdout and stderr); nullopt when impacket is not installed.
inline std::optional<std::string> RunImpacketScript(const std::string& dir, const std::string& body,
                                                    uint16_t port) {
  if (std::system("/usr/bin/python3 -c 'import impacket.dcerpc.v5.rpcrt' >/dev/null 2>&1") != 0) {
    return std::nullopt;
  }
  const std::string script = dir + "/impacket_client.py";
  std::ofstream(script) << body;
  const std::string command = "PYTHONPATH=" KESTTCS_SOURCE_DIR
                              "/tests/integration /usr/bin/python3 " +
                              script + " " + std::to_string(port) + " 2>&1";
  std::string output;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buffer[256];
    while (std::fgets(buffer, sizeof(buffer), p)) output += buffer;
    pclose(p);
  }
  return output;
}

}  // namespace kesttcs
