# Cross-build for 64-bit Windows with mingw-w64 (Debian's g++-mingw-w64-x86-64-posix). Test
# programs run under Wine through CTest's cross-compiling emulator.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Link the compiler runtime (libstdc++, libgcc, winpthread) statically into every program and the
# DLL, so nothing but system DLLs is needed beside them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

find_program(QW_WINE NAMES wine wine64)
if(QW_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${QW_WINE})
endif()
