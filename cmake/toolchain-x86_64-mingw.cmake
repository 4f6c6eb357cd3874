# Cross-build for 64-bit Windows with Debian's mingw-w64. The posix thread
# model gives the C++ standard library its threads and mutexes.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# dlltool makes the import library of FTD2XX.dll; objdump reads the
# finished DLL's tables in the Wine stage.
set(CMAKE_DLLTOOL x86_64-w64-mingw32-dlltool)
set(CMAKE_OBJDUMP x86_64-w64-mingw32-objdump)
