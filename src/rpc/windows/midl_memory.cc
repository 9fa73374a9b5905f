// The memory the RPC stubs allocate and free: the stubs' own buffers and the output blocks of the
// server routines (serve_call.cc).
#include <windows.h>
// windows.h first: the RPC headers rely on its declarations.
#include <rpc.h>
#include <rpcndr.h>

#include <cstdlib>

extern "C" void* __RPC_USER MIDL_user_allocate(SIZE_T size) { return std::malloc(size); }

extern "C" void __RPC_USER MIDL_user_free(void* block) { std::free(block); }
