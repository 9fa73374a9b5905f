// The texts kesttcs_ifgen writes from the operation table (rpc/operations.h) and the interface
// types (rpc/interface_types.h): each function returns one generated file or section, complete.
#pragma once

#include <string>
#include <string_view>

#include "rpc/operations.h"

namespace kesttcs::rpc::gen {

// src/rpc/kesttcs.idl: the interface definition a Microsoft RPC toolchain (MIDL, widl) compiles.
std::string IdlFile();

// The generated section of <kesttcs/tcs_types.h>: the interface types as C declarations.
std::string TypesSection();

// The generated section of <kesttcs/tcs_client.h>: the declarations of the operations.
std::string ClientSection();

// The client proxies: a C++ source with one thin function per operation (built, not checked in).
std::string ProxiesSource();

// src/rpc/windows/server_routines.c: the Windows server routines widl's stubs call, one per
// operation, each entering the generic server call (checked in: the Windows build cannot run this
// tool).
std::string ServerRoutinesSource();

// src/client/windows/client_routines.c: the Windows client library's operations, one per operation
// but Tcsi_FreeMemory, each calling widl's client stub (checked in, like the server routines).
std::string WindowsClientRoutinesSource();

// docs/operations.md: the list of operations, with the state of each (working when it has an
// internal function).
std::string OperationsDoc();

// ---- Pieces the texts share ----

enum class Language : uint8_t { kIdl, kC };

// The type declarations of rpc/interface_types.h, each line starting with `indent`.
std::string TypeDeclarations(Language language, std::string_view indent);

// `p` as a C declarator: its type with one star per level of indirection, then its name.
std::string Declarator(const Param& p);

// `text` as a block comment, lines starting with `indent` and wrapped at 100 columns.
std::string BlockComment(std::string_view text, std::string_view indent);

}  // namespace kesttcs::rpc::gen
