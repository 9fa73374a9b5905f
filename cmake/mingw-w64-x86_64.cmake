# Cross-compiling the Windows host (x86_64) on Linux with mingw-w64.
#
# C++ goes through the POSIX-threads flavour of mingw-w64's g++, which has std::thread and
# std::mutex. C goes through clang for the mingw target: the RPC stubs and the code around RPC
# calls use structured exception handling (RpcTryExcept is __try), which g++ does not compile.
# Both produce objects for the same ABI, and g++ links them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KESTTCS_MINGW_TRIPLE x86_64-w64-mingw32)

set(CMAKE_CXX_COMPILER ${KESTTCS_MINGW_TRIPLE}-g++-posix)
set(CMAKE_C_COMPILER clang)
set(CMAKE_C_COMPILER_TARGET ${KESTTCS_MINGW_TRIPLE})
set(CMAKE_C_FLAGS_INIT "-fms-extensions")
set(CMAKE_RC_COMPILER ${KESTTCS_MINGW_TRIPLE}-windres)
# Everything links statically, so an executable runs under Wine without the compiler's DLLs; clang
# finds the compiler's own libraries in g++'s directory.
set(KESTTCS_MINGW_GCC_DIR /usr/lib/gcc/${KESTTCS_MINGW_TRIPLE}/12-posix)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -L${KESTTCS_MINGW_GCC_DIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -L${KESTTCS_MINGW_GCC_DIR}")

find_program(KESTTCS_WIDL ${KESTTCS_MINGW_TRIPLE}-widl REQUIRED)

set(CMAKE_FIND_ROOT_PATH /usr/${KESTTCS_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
