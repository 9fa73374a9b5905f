/* What the service holds, for administrators' tools: read through a second RPC interface on the
 * service's endpoint ("service state", opened and closed per call; it opens no context and sends
 * nothing to the TPM). Whoever may reach the endpoint may read it; it shows context and session
 * handles, which are of no use to anyone but their owner, the power state, and the key cache's
 * handles, slots and registered UUIDs, never secrets or key material.
 *
 * Results: 0; TCS_E_BAD_PARAMETER (0xE0282003) for a null argument; TCS_E_COMM_FAILURE
 * (0xE0282011) when the service cannot be reached or does not offer the interface
 * (Tcs_LastRpcStatus tells why). */
#ifndef KESTTCS_TCS_SERVICE_STATE_H
#define KESTTCS_TCS_SERVICE_STATE_H

#include <kesttcs/tcs_types.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef KESTTCS_CLIENT_API
#ifdef _WIN32
/* The Windows library is static: nothing to export. */
#define KESTTCS_CLIENT_API
#else
#define KESTTCS_CLIENT_API __attribute__((visibility("default")))
#endif
#endif

/* The service's session table holds at most this many sessions. */
#define KESTTCS_SESSION_TABLE_SIZE 16u

/* One authorisation session the service opened for a client context. */
typedef struct tdKESTTCS_SESSION_INFO {
  TCS_CONTEXT_HANDLE hContext;
  TCS_AUTHHANDLE authHandle;
} KESTTCS_SESSION_INFO;

typedef struct tdKESTTCS_SESSION_TABLE {
  UINT32 maxSessions; /* sessions the TPM holds at once */
  UINT32 count;       /* entries of `sessions` in use, in table order */
  KESTTCS_SESSION_INFO sessions[KESTTCS_SESSION_TABLE_SIZE];
} KESTTCS_SESSION_TABLE;

/* Reads the session table from the service at the client library's endpoint (as Tcs_Connect
 * chose it, else $KESTTCS_ENDPOINT, else the default socket). */
KESTTCS_CLIENT_API TSS_RESULT KestTcs_GetSessionTable(KESTTCS_SESSION_TABLE* table);

/* Where the service's power handling stands. */
#define KESTTCS_POWER_RUNNING 0u        /* TPM traffic flows */
#define KESTTCS_POWER_HELD_FOR_SLEEP 1u /* the platform sleeps: TPM commands wait */
#define KESTTCS_POWER_RESUMING 2u       /* the TPM is being restarted after a sleep */

typedef struct tdKESTTCS_POWER_STATE {
  UINT32 state;          /* KESTTCS_POWER_... */
  UINT64 lastTpmRestart; /* when the TPM was last started or restarted, in seconds since the
                            epoch; 0 when never */
} KESTTCS_POWER_STATE;

/* Reads the power state from the service at the client library's endpoint (as above). */
KESTTCS_CLIENT_API TSS_RESULT KestTcs_GetPowerState(KESTTCS_POWER_STATE* state);

/* Where a cached key is. */
#define KESTTCS_KEY_RESIDENT 0u /* in the TPM, in slot tpmHandle */
#define KESTTCS_KEY_SWAPPED 1u  /* swapped out: the service holds its saved context */
#define KESTTCS_KEY_UNLOADED 2u /* not in the TPM, no saved context: loaded again from its blob */

/* tpmHandle of a key that is not resident. */
#define KESTTCS_NO_SLOT 0xFFFFFFFFu

/* One key of the service's key cache. */
typedef struct tdKESTTCS_KEY_CACHE_ENTRY {
  TCS_KEY_HANDLE tcsKeyHandle;    /* the handle clients hold */
  UINT32 state;                   /* KESTTCS_KEY_... */
  TPM_KEY_HANDLE tpmHandle;       /* the TPM slot while resident, else KESTTCS_NO_SLOT */
  TCS_KEY_HANDLE parentTcsHandle; /* 0xFFFFFFFF when the cache knows no parent */
  UINT32 refCount;                /* client contexts that hold the key */
  TSS_BOOL registered;            /* whether `uuid` names the key in persistent storage */
  TSS_UUID uuid;                  /* all zero when not registered */
} KESTTCS_KEY_CACHE_ENTRY;

typedef struct tdKESTTCS_KEY_CACHE {
  UINT64 swapOuts;                  /* keys swapped out of the TPM since the service started */
  UINT64 swapIns;                   /* keys swapped back in from their saved contexts since then */
  UINT32 count;                     /* entries of `entries`, newest first */
  KESTTCS_KEY_CACHE_ENTRY* entries; /* owned by the caller: free with KestTcs_FreeKeyCache */
} KESTTCS_KEY_CACHE;

/* Reads the key cache from the service at the client library's endpoint (as above). On success
 * *cache holds the entries; on failure it is left empty. */
KESTTCS_CLIENT_API TSS_RESULT KestTcs_GetKeyCache(KESTTCS_KEY_CACHE* cache);
/* Frees cache->entries and empties *cache; a null or empty cache is left alone. */
KESTTCS_CLIENT_API void KestTcs_FreeKeyCache(KESTTCS_KEY_CACHE* cache);

#ifdef __cplusplus
}
#endif

#endif /* KESTTCS_TCS_SERVICE_STATE_H */
