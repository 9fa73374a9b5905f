/*
 * The RPC runtime's association (the client binding's group of connections) behind the current
 * call, seen through a server context handle of the service's own: no parameter of the interface
 * carries one, but the runtime keeps any context handle per association and runs it down when the
 * association's last connection has closed. That makes it the one caller identity every
 * Microsoft-compatible runtime offers over "\pipe\KestTCS" and ncacn_ip_tcp, Wine's included.
 * C, because the calls into the runtime raise structured exceptions (RpcTryExcept is __try).
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* The wire form of a context handle: attributes and UUID. */
enum { KESTTCS_ASSOCIATION_KEY_SIZE = 20 };

/* Called (by the runtime's run-down, on one of its threads) when a tagged association has ended,
 * with the tag it was given. Defined by the owner of the tags (association_clients.cc). */
void KestTcs_AssociationEnded(void* tag);

/* Gives the association of the current call's connection a context handle carrying `tag` (not
 * null), whose run-down calls KestTcs_AssociationEnded(tag); writes its wire form to `key`.
 * Returns 1, or 0 when the runtime refuses (no call, or a connection without an association). */
int KestTcs_TagCallAssociation(void* tag, unsigned char key[KESTTCS_ASSOCIATION_KEY_SIZE]);

/* 1 when the association of the current call's connection holds the context handle `key` (made
 * by KestTcs_TagCallAssociation), else 0. The runtime lets the handle go when the call ends. */
int KestTcs_CallAssociationHolds(const unsigned char key[KESTTCS_ASSOCIATION_KEY_SIZE]);

#ifdef __cplusplus
}
#endif
