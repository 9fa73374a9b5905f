// The Linux host's backends: every form of the configuration string.

#include <unistd.h>

#include "tpm/backend_config.h"
#include "tpm/backends.h"
#include "tpm/tpm_backend.h"

namespace kesttcs {

namespace {

constexpr const char* kDefaultDevice = "/dev/tpm0";

}  // namespace

std::unique_ptr<TpmBackend> CreateTpmBackend(std::string_view config, const std::string& home,
                                             std::string* error) {
  const std::optional<TpmBackendSpec> spec = ParseTpmBackendConfig(config, error);
  if (!spec) return nullptr;
  using Kind = TpmBackendSpec::Kind;
  switch (spec->kind) {
    case Kind::kAuto:
      if (::access(kDefaultDevice, F_OK) == 0) return MakeDeviceBackend(kDefaultDevice);
      return MakeLibtpmsBackend(home + "/tpm");
    case Kind::kLibtpms:
      return MakeLibtpmsBackend(spec->path.empty() ? home + "/tpm" : spec->path);
    case Kind::kSwtpmUnix:
      return MakeSwtpmUnixBackend(spec->path, spec->ctrlPath);
    case Kind::kSwtpmTcp:
      return MakeSwtpmTcpBackend(spec->path, spec->port, spec->ctrlPort);
    case Kind::kDevice:
      return MakeDeviceBackend(spec->path);
    case Kind::kTddl:
      return MakeTddlBackend(spec->path);
  }
  return nullptr;
}

}  // namespace kesttcs
