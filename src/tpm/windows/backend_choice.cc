// The Windows host's backends: the TPM is reached through a driver library loaded at run time.
// "auto" prefers TPM Base Services ("tbs.dll") and falls back to the TPM's device driver library
// ("tpmddl.dll") when no TBS library loads; "tddl:PATH" names a driver library. The emulator and
// device forms of the configuration string are Linux's.

#include "tpm/backend_config.h"
#include "tpm/backends.h"
#include "tpm/shared_library.h"
#include "tpm/tpm_backend.h"

namespace kesttcs {

namespace {

constexpr const char* kTbsLibrary = "tbs.dll";
constexpr const char* kTddlLibrary = "tpmddl.dll";

}  // namespace

std::unique_ptr<TpmBackend> CreateTpmBackend(std::string_view config, const std::string& /*home*/,
                                             std::string* error) {
  const std::optional<TpmBackendSpec> spec = ParseTpmBackendConfig(config, error);
  if (!spec) return nullptr;
  using Kind = TpmBackendSpec::Kind;
  switch (spec->kind) {
    case Kind::kAuto: {
      std::string why;
      if (SharedLibrary::Load(kTbsLibrary, &why) != nullptr) return MakeTbsBackend(kTbsLibrary);
      return MakeTddlBackend(kTddlLibrary);
    }
    case Kind::kTddl:
      return MakeTddlBackend(spec->path);
    case Kind::kLibtpms:
    case Kind::kSwtpmUnix:
    case Kind::kSwtpmTcp:
    case Kind::kDevice:
      break;
  }
  *error = "backend \"" + std::string(config) +
           "\" is not available on Windows; use \"auto\" (tbs.dll, else tpmddl.dll) or "
           "\"tddl:PATH\"";
  return nullptr;
}

}  // namespace kesttcs
