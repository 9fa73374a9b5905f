// The three credentials a new identity is returned with: the endorsement credential
// ("EKCert.crt"), the platform credential ("PlatCred.crt") and the conformance credential
// ("ConfCred.crt"). The service does not make them; it passes the files' bytes through unchecked.
// On Linux they lie in the service's home directory.
//
// Lock: a leaf mutex guards the directory; the files are read without it.
#pragma once

#include <string>
#include <vector>

#include <kesttcs/tcs_types.h>

#include "storage/file_system.h"

namespace kesttcs {

inline constexpr char kEndorsementCredentialFile[] = "EKCert.crt";
inline constexpr char kPlatformCredentialFile[] = "PlatCred.crt";
inline constexpr char kConformanceCredentialFile[] = "ConfCred.crt";

struct IdentityCredentials {
  std::vector<BYTE> endorsement;
  std::vector<BYTE> platform;
  std::vector<BYTE> conformance;
};

// Where the credential files are looked for (start-up sets the home directory).
void identity_credentials_SetDirectory(const std::string& directory);

// Reads the three files in order, each whole; all three are always tried, and the first error
// stays the result:
//   TCS_E_FAIL         "EKCert.crt" is missing, or a file present could not be read whole (an
//                      empty file counts: reading one item of no bytes does not read one item)
//   TCS_E_OUTOFMEMORY  a file's bytes could not be held
// A missing platform or conformance credential leaves that credential empty and is no error. As
// the credentials were always read, the check after holding the platform or the conformance
// credential looks at whether the endorsement credential is held, not at the one just read.
[[nodiscard]] TSS_RESULT ReadIdentityCredentials(IdentityCredentials* credentials,
                                                 FileSystem& fileSystem = HostFileSystem());

}  // namespace kesttcs
