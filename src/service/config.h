// The service configuration file "tcs_cfg.ini" in the home directory, read once at start-up in the
// manner of Windows profile reads: section and key names match case-insensitively, the first
// occurrence of a key wins, and every key has a default used when the file, the section, the key or
// its value is absent. A value that does not fit its key gives that key's default and a warning
// event.
//
//   [LOG]  needLog   decimal integer; greater than 0 turns diagnostic logging on   (default 0)
//   [TPM]  backend   auto | libtpms[:DIR] | swtpm:tcp:HOST:PORT | swtpm:unix:PATH |
//                    device:PATH | tddl:PATH                                       (default auto)
//          vendor    this maker's TPM vendor identifier, three characters          (default KST)
//          srk_secret  the SRK's usage secret: well-known (20 zero bytes), none (the
//                    service never authorises SRK use), or 40 hex digits   (default well-known)
//   [RPC]  socket    absolute path of the Unix socket; empty = <runtime dir>/KestTCS (default "")
//          group     group owning the socket                                       (default tss)
//          tcp_port  127.0.0.1 port for ncacn_ip_tcp, 0 = off                      (default 0)
//          max_connections           open connections, 1..1048576                 (default 4096)
//          max_connections_per_user  open connections of one user, 1..1048576     (default 1024)
//          idle_timeout    seconds before an idle connection of a client that holds no
//                          context is closed, 0 = never, at most 86400          (default 60)
//          request_memory  MiB of requests held for all clients, 1..4096         (default 32)
//          max_contexts    contexts one client may hold, 1..1048576             (default 1024)
//   [EVENTLOG] persist  1 keeps the PCR event log in data/events.log across restarts
//                       of the service without a TPM reset, 0 keeps it in memory only (default 0)
#pragma once

#include <array>
#include <optional>
#include <string>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

inline constexpr char kConfigFileName[] = "tcs_cfg.ini";

// Event code of the warning reported for a value that was replaced by its default.
inline constexpr UINT32 kEventBadConfigValue = 0x80282001;

struct TcsConfig {
  // [LOG] needLog > 0.
  bool needLog = false;
  // [TPM] backend, checked for shape only (kind and a non-empty argument where one is needed).
  std::string backend = "auto";
  // [TPM] vendor: three characters plus a zero byte, compared with the TPM's manufacturer.
  std::array<char, 4> vendor = {'K', 'S', 'T', '\0'};
  // [TPM] srk_secret: nothing for "none". A bad value is reported without being repeated.
  std::optional<TPM_SECRET> srkSecret = TPM_SECRET{};
  // [RPC] socket: empty means the socket "KestTCS" in the runtime directory.
  std::string socket;
  // [RPC] group.
  std::string group = "tss";
  // [RPC] tcp_port: 0 keeps the TCP endpoint off.
  UINT16 tcpPort = 0;
  // [RPC] limits.
  UINT32 maxConnections = 4096;
  UINT32 maxConnectionsPerUser = 1024;
  UINT32 idleTimeout = 60;
  UINT32 requestMemory = 32;
  UINT32 maxContexts = 1024;
  // [EVENTLOG] persist = 1.
  bool eventLogPersist = false;
};

// Reads the configuration file at `path`. A missing or unreadable file gives the defaults (logging
// off) without an event. Each bad value gives its key's default and one warning event
// (kEventBadConfigValue) whose text names the section, the key and the value. Lines the reader
// cannot parse are skipped. Never fails.
TcsConfig ReadTcsConfig(const std::string& path);

}  // namespace kesttcs
