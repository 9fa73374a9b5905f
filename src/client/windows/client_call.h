/* The steps every operation of the Windows client library takes around widl's client stub. Plain
 * C types only: the generated operations include widl's header, which declares the interface's
 * types again, and the runtime includes <kesttcs/tcs_types.h>. */
#ifndef KESTTCS_CLIENT_WINDOWS_CLIENT_CALL_H
#define KESTTCS_CLIENT_WINDOWS_CLIENT_CALL_H

#ifdef __cplusplus
extern "C" {
#endif

/* Binds the process's binding handle to the default endpoint when nothing is bound yet, sets the
 * caller's pointers in `filled` to null (a null entry is a pointer the caller did not pass), and
 * starts recording the blocks the stub allocates on this thread. */
void KestTcs_BeginCall(void** filled[], unsigned count);

/* After the stub returned `result`: the blocks in `filled` become the caller's, recorded under
 * `hContext`; blocks embedded in them (the arrays inside structures) go with the first one. */
unsigned int KestTcs_EndCall(unsigned int hContext, unsigned int result, void** filled[],
                             unsigned count);

/* The exception filter of every call: records the status the stub raised (it is read here, where
 * the runtime gives it) and has the handler run. */
int KestTcs_CatchStatus(unsigned long status);

/* After the stub raised a status: frees what it allocated, sets the caller's pointers in `filled`
 * to null and keeps the status for Tcs_LastRpcStatus. Returns TCS_E_BAD_PARAMETER for a null
 * pointer where a value is required, else TCS_E_COMM_FAILURE. */
unsigned int KestTcs_FailCall(void** filled[], unsigned count);

/* Without a call (a null array with elements): sets the caller's pointers in `filled` to null and
 * returns TCS_E_BAD_PARAMETER. */
unsigned int KestTcs_RefuseCall(void** filled[], unsigned count);

/* A non-null address that stands for an array of no elements. */
void* KestTcs_NoElements(void);

/* Records `status` for Tcs_LastRpcStatus of the calling thread. */
void KestTcs_NoteRpcStatus(unsigned long status);

/* Drops the records of the buffers Tcsi_FreeMemory frees (`memory`, or with null every buffer of
 * `hContext`) and frees them. */
void KestTcs_FreeContextBuffers(unsigned int hContext, void* memory);

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_CLIENT_WINDOWS_CLIENT_CALL_H */
