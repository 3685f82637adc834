# Cross-compiling for 64-bit Windows with mingw-w64 (posix thread variant); tests run under wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
# GCC cannot realign the stack for 32-byte vector spills on Windows; the assembler turns
# the aligned moves it emits into unaligned ones, which are as fast on aligned data.
set(CMAKE_C_FLAGS_INIT "-Wa,-muse-unaligned-vector-move")
set(CMAKE_CXX_FLAGS_INIT "-Wa,-muse-unaligned-vector-move")
# The DLLs carry their runtime (libstdc++, libgomp, winpthread) so nothing else has to be found.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
# Link the OpenMP runtime statically as well (FindOpenMP would pick the import library), so the
# DLL needs nothing beside it.
file(GLOB _veltrano_gomp /usr/lib/gcc/x86_64-w64-mingw32/*-posix/libgomp.a)
if(_veltrano_gomp)
  list(GET _veltrano_gomp 0 _veltrano_gomp)
  set(OpenMP_gomp_LIBRARY ${_veltrano_gomp} CACHE FILEPATH "static OpenMP runtime")
endif()
