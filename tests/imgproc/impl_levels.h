// Running a processing function at each implementation level (reference, scalar fast path,
// vector fast path) on the same input, and the image sizes that exercise the vector loops'
// remainders: single pixels, single rows and columns, sizes that are no multiple of any vector
// width, and frames larger than the value tables.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "imgproc/dispatch.h"

namespace impl_levels {

constexpr int kReference = 0;
constexpr int kScalar = 1;
constexpr int kAvx2 = 2;

// Caps the implementation level for its lifetime.
class LevelCap {
public:
    explicit LevelCap(int level) { veltrano::SetImplCapForTesting(level); }
    ~LevelCap() { veltrano::SetImplCapForTesting(-1); }
    LevelCap(const LevelCap&) = delete;
    LevelCap& operator=(const LevelCap&) = delete;
};

// Calls run() once at each level and returns the three results (the vector level falls back to
// the scalar one on a processor without AVX2).
template <class Run>
auto AtEachLevel(Run run) {
    std::vector<decltype(run())> results;
    for (int level : {kReference, kScalar, kAvx2}) {
        LevelCap cap(level);
        results.push_back(run());
    }
    return results;
}

struct Size {
    int width;
    int height;
};

inline const std::vector<Size>& OddSizes() {
    static const std::vector<Size> sizes = {{1, 1},   {1, 37},  {45, 1},   {7, 3},
                                            {17, 13}, {33, 31}, {301, 263}};
    return sizes;
}

// The same sizes with a smaller largest image, for functions that keep no tables of values and
// so gain nothing from a frame larger than them. 157 leaves the same remainders as 301 after
// blocks of 4, 8, 16 and 48 pixels and takes two or more blocks of 32 and 64, at an eighth of the
// pixels; 67 rows still pass a window of radius 20 with rows to spare.
inline std::vector<Size> OddSizesWithoutTables() {
    std::vector<Size> sizes = OddSizes();
    sizes.back() = {157, 67};
    return sizes;
}

// Bitwise equality, so that not-a-number results and the sign of zero count.
template <class T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

}  // namespace impl_levels
