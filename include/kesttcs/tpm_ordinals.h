/* The TPM 1.2 command ordinals as C constants, for clients that build or authorise TPM commands
 * (the authorisation helper's callers, <kesttcs/tcs_auth.h>): TPM_ORD_OIAP, TPM_ORD_TakeOwnership,
 * ... Every value fits a TPM_COMMAND_CODE and an int, so they are enumerators: usable in switch
 * labels and constant expressions in C and C++ alike. */
#ifndef KESTTCS_TPM_ORDINALS_H
#define KESTTCS_TPM_ORDINALS_H

#include <kesttcs/tpm_ordinal_list.h>

#define KESTTCS_TPM_ORDINAL_ENUMERATOR(name, value) name = value,
enum { KESTTCS_TPM_ORDINALS(KESTTCS_TPM_ORDINAL_ENUMERATOR) };
enum { KESTTCS_TSC_ORDINALS(KESTTCS_TPM_ORDINAL_ENUMERATOR) };
#undef KESTTCS_TPM_ORDINAL_ENUMERATOR

#endif /* KESTTCS_TPM_ORDINALS_H */
