// Constructors of the service's TPM backends. CreateTpmBackend (tpm_backend.h) parses the
// configuration string and calls one of these; tests call them directly. Each returns a closed
// backend; nothing is touched until Open().
#pragma once

#include <memory>
#include <string>

#include "tpm/tpm_backend.h"

namespace kesttcs {

// Embedded TPM 1.2 (libtpms) with its state files in `stateDir` (created when missing). Only one
// may be open at a time in a process: the library keeps one TPM per process.
std::unique_ptr<TpmBackend> MakeLibtpmsBackend(std::string stateDir);

// A swtpm process: `dataPath`/`ctrlPath` are Unix socket paths.
std::unique_ptr<TpmBackend> MakeSwtpmUnixBackend(std::string dataPath, std::string ctrlPath);
// A swtpm process over TCP: data on `port`, control on `ctrlPort`.
std::unique_ptr<TpmBackend> MakeSwtpmTcpBackend(std::string host, int port, int ctrlPort);

// A kernel TPM 1.2 character device (/dev/tpm0); cancel writes the device's sysfs "cancel" file
// (/sys/class/tpm/tpm0/device/cancel for /dev/tpm0, found from the device's name).
std::unique_ptr<TpmBackend> MakeDeviceBackend(std::string devicePath);

// A TPM Device Driver Library loaded with dlopen. Binding resolves TDDL_Open, TDDL_Close,
// TDDL_TransmitData and TDDL_Cancel; when TDDL_Open is missing the Tddli_* set instead. Binding
// succeeds when open, close and cancel resolve (the transmit entry is not required; a transmit
// without it fails with TCS_E_DRIVER_NOT_AVAILABLE).
std::unique_ptr<TpmBackend> MakeTddlBackend(std::string libraryPath);

// TPM Base Services ("tbs.dll" on Windows) loaded at run time: binding resolves
// Tbsi_Context_Create, Tbsip_Submit_Command, Tbsip_Cancel_Commands and Tbsip_Context_Close (all
// four are required); open creates a TBS context, close closes it. Commands go in at locality 0
// with their TBS priority. Windows only.
std::unique_ptr<TpmBackend> MakeTbsBackend(std::string libraryPath);

}  // namespace kesttcs
