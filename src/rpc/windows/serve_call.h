/*
 * The one entry of the Windows server routines (server_routines.c, generated from the operation
 * table): each routine the widl stubs call passes the addresses of its parameters, in table order,
 * to KestTcs_ServeCall. C, because the routines are compiled with the widl header, whose
 * declarations of the interface types would clash with <kesttcs/tcs_types.h>.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs operation `opnum` for the calling client: `args[i]` is the address of the operation's
 * parameter i as the stub passed it. Output buffers are allocated with midl_user_allocate, one
 * block per buffer and per embedded buffer, as the stubs free them. Returns the TSS_RESULT. */
uint32_t KestTcs_ServeCall(uint16_t opnum, void* const* args);

#ifdef __cplusplus
}
#endif
