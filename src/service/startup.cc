// The start-up and shut-down sequences, written as tables of steps so that a manager joins the
// sequence with one line in its place.
#include "service/startup.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <utility>

#include <kesttcs/tcs_results.h>

#include "base/logging.h"
#include "commands/tcsip_transport.h"
#include "commands/tpm_metrics.h"
#include "contexts/contexts.h"
#include "keys/auth_mgr.h"
#include "keys/clear_tpm_keys.h"
#include "keys/mem_cache.h"
#include "keys/owner_ctrl_keys.h"
#include "keys/srk_auth.h"
#include "rpc/rpc_service.h"
#include "service/directories.h"
#include "service/event_log_start.h"
#include "service/instance_lock.h"
#include "storage/audit_log.h"
#include "storage/identity_credentials.h"
#include "storage/owner_held_keys.h"
#include "storage/persistent_storage.h"
#include "tpm/driver.h"
#include "tpm/power_state.h"
#include "tpm/req_mgr.h"
#include "tpm/tpm_cmds.h"

namespace kesttcs {
namespace {

// Directories hold key material and audit records: owner only.
constexpr unsigned kDirectoryMode = 0700;
// The socket's directory lets every client reach the socket.
constexpr unsigned kSocketDirectoryMode = 0755;

StartupOptions g_options;
// Where the lock of the home lives, beside the storage it guards.
constexpr char kHomeLockName[] = "/kesttcsd.lock";
// The socket's lock lies beside it under the socket's name with this suffix.
constexpr char kSocketLockSuffix[] = ".lock";

HostPaths g_paths;
TcsConfig g_config;
std::string g_socket_path;  // the configured socket, or the default one
std::string g_failure_text;
std::string g_lock_failure;

// ---- Start-up steps ----

TSS_RESULT StepCreateLocks() { return ctx_init(); }

TSS_RESULT StepSeedRandom() {
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  return TSS_SUCCESS;
}

TSS_RESULT StepReadConfiguration() {
  g_paths = BuildHostPaths(g_options.home.empty() ? ResolveHomeDirectory() : g_options.home);
  g_config = ReadTcsConfig(g_paths.config);
  SetNeedLog(g_config.needLog);
  SetTrafficLogDirectory(g_paths.log);
  // Cleared until the driver binding finds TPM Base Services.
  driver_set_tbs(false);
  return TSS_SUCCESS;
}

// 0 when `path` exists as a directory afterwards; otherwise traces the failure and returns the
// system's error code.
TSS_RESULT CreateDirectory(const std::string& path) {
  const UINT32 error = MakeDirectory(path, kDirectoryMode);
  if (error != 0) TcsTracef("KestTCSp:Create directory:%s Fail!", path.c_str());
  return error;
}

TSS_RESULT StepCreateDirectories() {
  if (TSS_RESULT r = CreateDirectory(g_paths.data); r != TSS_SUCCESS) return r;
  if (g_config.needLog) {
    if (TSS_RESULT r = CreateDirectory(g_paths.log); r != TSS_SUCCESS) return r;
  }
  return CreateDirectory(g_paths.audit);
}

// The audited list starts empty; the request manager writes to the audit directory from now on.
TSS_RESULT StepStartAuditLog() {
  audit_log_init(g_paths.audit);
  return TSS_SUCCESS;
}

// Before the TPM state or the socket is touched: the home, then the socket, must be this
// process's alone.
TSS_RESULT StepLockInstance() {
  g_socket_path = EndpointPath(g_config.socket);
  if (UINT32 r = LockInstance(g_paths.data + kHomeLockName, &g_lock_failure)) return r;
  // Without a usable socket path the endpoint step fails and says so; an endpoint outside the file
  // system has no lock beside it.
  if (g_socket_path.empty()) return TSS_SUCCESS;
  const std::string directory = g_socket_path.substr(0, g_socket_path.rfind('/'));
  if (!directory.empty()) {
    if (const UINT32 error = MakeDirectory(directory, kSocketDirectoryMode); error != 0) {
      g_lock_failure = "cannot create " + directory;
      return error;
    }
  }
  return LockInstance(g_socket_path + kSocketLockSuffix, &g_lock_failure);
}

std::string LockFailure() { return g_lock_failure; }

TSS_RESULT StepStartTpmAccess() {
  if (g_options.backend != nullptr) {
    driver_use_backend(std::move(g_options.backend));
  } else {
    driver_configure(g_config.backend, g_paths.home);
  }
  return req_mgr_init();
}

TSS_RESULT StepReadTpmMetrics() {
  tpm_metrics_init();
  SetOwnVendorId(g_config.vendor);
  tpm_metrics metrics;
  const TSS_RESULT r = get_tpm_metrics(&metrics);
  if (r != TSS_SUCCESS) TcsTrace("KestTcs_startup:get_tpm_metrics Fail!", nullptr);
  return r;
}

// One list per PCR the TPM reported; with persistence on, the events file is replayed into it.
TSS_RESULT StepCreateEventLog() {
  return StartEventLog(tpm_metrics_current().pcrCount, g_config.eventLogPersist, g_paths.data);
}

// Undo after the TPM is up: the driver is closed again.
void UndoTpmAccess() { static_cast<void>(req_mgr_final()); }

// Without an owner the registered keys cannot be loaded: on a TPM 1.2, or one of the maker's own,
// they are set aside.
TSS_RESULT StepSetAsideStorage() {
  if ((isOwnVendorTpm() || TpmIsVersion12()) && !tpmHasOwner()) {
    return ps_moveToBak(g_paths.storageFile);
  }
  return TSS_SUCCESS;
}

TSS_RESULT StepCheckStorage() { return ps_checkAndRestore(g_paths.storageFile); }

// The key cache opens persistent storage, whose index load enters the SRK into it.
// Key loading learns the SRK's secret before any key can be loaded.
TSS_RESULT StepOpenKeyCache() {
  SetSrkSecret(g_config.srkSecret);
  return mem_cache_init(g_paths.storageFile, tpmHasOwner());
}

void UndoStorageAndTpmAccess() {
  ps_close();
  UndoTpmAccess();
}

void UndoKeyCacheAndTpmAccess() {
  mem_cache_final();
  UndoTpmAccess();
}

void UndoSessionsKeyCacheAndTpmAccess() {
  static_cast<void>(auth_mgr_final());
  UndoKeyCacheAndTpmAccess();
}

// As designed, a failed owner-held key step leaves the session table as it is.
void UndoOwnerKeysKeyCacheAndTpmAccess() {
  ReleaseOwnCtrl();
  UndoKeyCacheAndTpmAccess();
}

void UndoOwnerKeysSessionsKeyCacheAndTpmAccess() {
  ReleaseOwnCtrl();
  UndoSessionsKeyCacheAndTpmAccess();
}

// The session table, sized by the sessions the TPM holds at once.
TSS_RESULT StepInitSessions() {
  const UINT32 maxSessions = std::min<UINT32>(tpm_metrics_current().maxAuthSessions, INT16_MAX);
  return auth_mgr_init(static_cast<int16_t>(maxSessions), isOwnVendorTpm());
}

// Keys the owner made stay in the TPM: those still loaded are cached again.
TSS_RESULT StepOwnerHeldKeys() {
  const TSS_RESULT r = InitOwnerCtrlKey(g_paths.data + "/KestCtrl.dat");
  if (r != TSS_SUCCESS) TcsTrace("KestTcs_startup:InitOwnerCtrlKey Fail!", nullptr);
  return r;
}

// After a resume power handling repairs the key cache's view of the TPM.
TSS_RESULT StepPowerHandling() {
  power_state_SetClearTPMKeys(ClearTPMKeys);
  return TSS_SUCCESS;
}

// Transport sessions end with the context that owns them; identities find their credential files
// in the home directory.
TSS_RESULT StepTransportAndCredentials() {
  transport_init();
  identity_credentials_SetDirectory(g_paths.home);
  return TSS_SUCCESS;
}

struct StartupStep {
  const char* name;
  TSS_RESULT (*run)();
  // What this step's failure undoes of the steps before it; null for nothing.
  void (*undoOnFailure)();
  // Why it failed, from the layer below; null when the code says it all.
  std::string (*describeFailure)();
};

// The start-up order.
constexpr StartupStep kStartupSteps[] = {
    {"locks", StepCreateLocks, nullptr, nullptr},
    {"random seed", StepSeedRandom, nullptr, nullptr},
    {"configuration", StepReadConfiguration, nullptr, nullptr},
    {"directories", StepCreateDirectories, nullptr, nullptr},
    {"audit log", StepStartAuditLog, nullptr, nullptr},
    {"instance", StepLockInstance, nullptr, LockFailure},
    {"TPM access", StepStartTpmAccess, nullptr, driver_last_error},
    {"TPM metrics", StepReadTpmMetrics, UndoTpmAccess, nullptr},
    {"storage set-aside", StepSetAsideStorage, UndoStorageAndTpmAccess, nullptr},
    {"storage check", StepCheckStorage, UndoStorageAndTpmAccess, nullptr},
    {"persistent storage", StepOpenKeyCache, UndoTpmAccess, nullptr},
    {"session table", StepInitSessions, UndoKeyCacheAndTpmAccess, nullptr},
    {"owner-held keys", StepOwnerHeldKeys, UndoOwnerKeysKeyCacheAndTpmAccess, nullptr},
    {"PCR event log", StepCreateEventLog, UndoOwnerKeysSessionsKeyCacheAndTpmAccess, nullptr},
    {"power handling", StepPowerHandling, nullptr, nullptr},
    {"transport and credentials", StepTransportAndCredentials, nullptr, nullptr},
};

// ---- Shut-down steps ----

void ShutdownRequestManager() {
  TSS_RESULT r = req_mgr_final();
  if (r == TSS_SUCCESS) return;
  ReportServiceEvent(r, 0, 0, nullptr);
  TcsTrace("kesttcs_shutdown:req_mgr_final fail", &r);
}

void ShutdownSessions() {
  TSS_RESULT r = auth_mgr_final();
  if (r != TSS_SUCCESS) TcsTrace("kesttcs_shutdown:auth_mgr_final fail", &r);
}

void ShutdownEventLog() {
  if (event_log_final() != TSS_SUCCESS) TcsTrace("kesttcs_shutdown:event_log_final fail", nullptr);
}

// No call can still be inside a context: listening has stopped and every worker has finished.
void ShutdownContexts() { ctx_final(); }

struct ShutdownStep {
  const char* trace;  // written before the step; null for none
  void (*run)();
};

// The shut-down order.
constexpr ShutdownStep kShutdownSteps[] = {
    {"kesttcs_shutdown:closeDiskCache", mem_cache_final},
    {"kesttcs_shutdown:ReleaseOwnCtrl", ReleaseOwnCtrl},
    {"kesttcs_shutdown:auth_mgr_final", ShutdownSessions},
    {nullptr, power_state_JoinRestart},
    {"kesttcs_shutdown:req_mgr_final", ShutdownRequestManager},
    {"kesttcs_shutdown:event_log_final", ShutdownEventLog},
    {nullptr, audit_log_final},
    {nullptr, ShutdownContexts},
};

}  // namespace

const HostPaths& ServicePaths() { return g_paths; }
const std::string& ServiceSocketPath() { return g_socket_path; }
const TcsConfig& ServiceConfig() { return g_config; }

std::string StartupFailureText() { return g_failure_text; }

TSS_RESULT KestTcs_startup(StartupOptions options) {
  g_options = std::move(options);
  g_failure_text.clear();
  for (const StartupStep& step : kStartupSteps) {
    const TSS_RESULT r = step.run();
    if (r == TSS_SUCCESS) continue;
    g_failure_text = step.name;
    if (step.describeFailure != nullptr) {
      if (std::string detail = step.describeFailure(); !detail.empty()) {
        g_failure_text += ": " + detail;
      }
    }
    if (step.undoOnFailure != nullptr) step.undoOnFailure();
    return r;
  }
  return TSS_SUCCESS;
}

void kesttcs_shutdown() {
  for (const ShutdownStep& step : kShutdownSteps) {
    if (step.trace != nullptr) TcsTrace(step.trace, nullptr);
    step.run();
  }
}

}  // namespace kesttcs
