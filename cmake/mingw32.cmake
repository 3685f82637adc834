# Cross-compiling the shipped 32-bit Windows DLL with mingw-w64 (posix thread variant).
# SSE2 arithmetic as on the 64-bit builds, so results do not change with the x87 unit.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# GCC cannot realign the stack for 32-byte vector spills on Windows; the assembler turns
# the aligned moves it emits into unaligned ones, which are as fast on aligned data.
set(CMAKE_C_FLAGS_INIT "-msse2 -mfpmath=sse -Wa,-muse-unaligned-vector-move")
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mfpmath=sse -Wa,-muse-unaligned-vector-move")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
# Link the OpenMP runtime statically as well (FindOpenMP would pick the import library), so the
# DLL needs nothing beside it.
file(GLOB _veltrano_gomp /usr/lib/gcc/i686-w64-mingw32/*-posix/libgomp.a)
if(_veltrano_gomp)
  list(GET _veltrano_gomp 0 _veltrano_gomp)
  set(OpenMP_gomp_LIBRARY ${_veltrano_gomp} CACHE FILEPATH "static OpenMP runtime")
endif()
