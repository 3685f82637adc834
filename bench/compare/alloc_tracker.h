// Bytes held on the heap by the whole process, and the highest level reached since a mark.
//
// The program replaces malloc and its relatives (the library, libstdc++'s operator new and
// OpenCV all allocate through them), counting each block by its usable size, so the extra
// memory a call needs is the peak during the call minus the level before it.
#pragma once

#include <cstddef>

namespace compare::alloc {

// Bytes currently allocated.
long long Current();

// Starts a measurement: the peak is reset to the current level.
void Mark();

// The highest level reached since the last Mark() minus the level at that mark.
long long PeakSinceMark();

}  // namespace compare::alloc
