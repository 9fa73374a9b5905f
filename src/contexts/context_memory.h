// Output memory owned by client contexts. Every internal function that hands variable-length output
// to a client allocates it with getSomeMemory under the client's context; the block stays tracked
// until Tcsi_FreeMemory, until the RPC layer releases it after marshalling, or until the context
// closes. The table is created by ctx_init and destroyed (every block freed) by ctx_final.
//
// Lock: the memory-table mutex, taken by every function here and released before returning. It is a
// leaf: nothing else is locked while it is held, and it is never taken with the context-list mutex.
#pragma once

#include <cstddef>

#include <kesttcs/tcs_types.h>

namespace kesttcs {

// Allocates a block of `size` bytes (aligned for any scalar type) owned by `hContext`, creating the
// context's table entry on its first block. The context is not validated. Returns the block, or
// null when memory runs out or the module is not initialised (nothing tracked then).
[[nodiscard]] void* getSomeMemory(TCS_CONTEXT_HANDLE hContext, UINT32 size);

// Frees the block `pMemory` of `hContext` and drops it from tracking. Returns 0 when freed,
// TCS_E_MEMORY_NOT_OWNED when the context has no block at all, TCS_E_INTERNAL_ERROR when `pMemory`
// is not one of its blocks (the pointer is only compared, never dereferenced). The RPC layer calls
// this once it has marshalled an output block to the client.
[[nodiscard]] TSS_RESULT ctx_ReleaseMemory(TCS_CONTEXT_HANDLE hContext, const void* pMemory);

// Frees every block of `hContext` and its table entry; other contexts' blocks stay tracked.
void ctx_FreeContextMemory(TCS_CONTEXT_HANDLE hContext);

// Number of blocks tracked for `hContext`, and for all contexts together.
std::size_t ctx_CountMemoryBlocks(TCS_CONTEXT_HANDLE hContext);
std::size_t ctx_CountAllMemoryBlocks();

// Creation and destruction of the table, called by ctx_init and ctx_final only.
[[nodiscard]] bool context_memory_init();
void context_memory_final();

}  // namespace kesttcs
