# Cross-build for 32-bit Windows with Debian's mingw-w64. The posix thread
# model gives the C++ standard library its threads and mutexes.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# dlltool makes the import library of FTD2XX.dll from its ordinals;
# objdump reads the finished DLL's tables in the Wine stage.
set(CMAKE_DLLTOOL i686-w64-mingw32-dlltool)
set(CMAKE_OBJDUMP i686-w64-mingw32-objdump)
