/* The process's binding handle, the one widl's stubs use implicitly. */
#ifndef KESTTCS_CLIENT_WINDOWS_RPC_BINDING_H
#define KESTTCS_CLIENT_WINDOWS_RPC_BINDING_H

#ifdef __cplusplus
extern "C" {
#endif

/* Points the binding handle at `endpoint` of `network` (may be null) over `protseq`, freeing the
 * one before. Returns the RPC status; the handle is unchanged on failure. The runtime reaches the
 * service only at the first call. */
unsigned long KestTcs_Bind(const char* protseq, const char* network, const char* endpoint);

/* Frees the binding handle; nonzero while one is bound. */
void KestTcs_Unbind(void);
int KestTcs_IsBound(void);

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_CLIENT_WINDOWS_RPC_BINDING_H */
