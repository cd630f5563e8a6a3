# Cross-compiling for 64-bit Windows with Debian's MinGW-w64 (package
# g++-mingw-w64-x86-64-posix). The posix flavour gives std::thread and
# std::mutex through winpthreads; the win32 flavour of GCC 12 lacks them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CVN_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${CVN_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${CVN_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${CVN_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${CVN_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Each program must run on a bare Windows: the GCC runtime, the C++ library
# and winpthreads go into the executable, leaving only system DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
