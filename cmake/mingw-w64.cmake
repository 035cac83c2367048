# Toolchain: 64-bit Windows, built on Debian with mingw-w64. The variant with POSIX threads, because
# the other one has no std::thread.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TOLK_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TOLK_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TOLK_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TOLK_TRIPLET}-windres)

# Libraries and headers come from there alone, programs that the build runs from this machine.
set(CMAKE_FIND_ROOT_PATH /usr/${TOLK_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
