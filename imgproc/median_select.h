// Selections of the median filter: the long-standing quickselect that defines Median_Blur's
// result, and the total order of floats that stands in for it where it cannot be afforded.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace veltrano {

// Partition of a[lo..hi] about its first element: from the right move a smaller element into
// the hole on the left, from the left a greater one into the hole on the right, until the scans
// meet; the pivot goes there and its index is returned. Elements equal to the pivot (and NaN,
// which compares false with everything) stay where they are.
template <class T>
int64_t PartitionFirstPivot(T* a, int64_t lo, int64_t hi) {
    const T pivot = a[lo];
    int64_t i = lo;
    int64_t j = hi;
    while (i < j) {
        while (i < j && !(a[j] < pivot)) --j;
        a[i] = a[j];
        while (i < j && !(a[i] > pivot)) ++i;
        a[j] = a[i];
    }
    a[i] = pivot;
    return i;
}

// The element of rank n/2 by repeated partitioning towards that rank. The selection has always
// carried the pivot index in the pixel type; within the radii that Median_Blur accepts every
// index is exact in that type, so a plain index serves. Its cost grows with the square of n on
// windows with many equal values; for a window without NaN the result is the unique value of rank
// n/2, for one with NaN (or with both zeros, if the median is zero) it depends on the order of
// the window.
template <class T>
T QuickselectMedian(T* a, int64_t n) {
    const int64_t target = n / 2;
    int64_t lo = 0;
    int64_t hi = n - 1;
    int64_t p = PartitionFirstPivot(a, lo, hi);
    while (p != target) {
        if (p >= target) {
            hi = p - 1;
        } else {
            lo = p + 1;
        }
        p = PartitionFirstPivot(a, lo, hi);
    }
    return a[p];
}

// A key whose unsigned order is a total order of floats: -inf < ... < -0 < +0 < ... < +inf, then
// every NaN (ordered by its bits). Numbers other than zero keep their order by value; distinct bit
// patterns get distinct keys. 33 bits.
inline uint64_t FloatOrderKey(float v) {
    uint32_t b = 0;
    std::memcpy(&b, &v, sizeof b);
    if (std::isnan(v)) return (static_cast<uint64_t>(1) << 32) | b;
    return (b & 0x80000000u) != 0 ? static_cast<uint32_t>(~b) : (b | 0x80000000u);
}

// The element of rank n/2 in the total order above. Reorders a.
inline float TotalOrderMedian(float* a, int64_t n) {
    float* mid = a + n / 2;
    std::nth_element(a, mid, a + n,
                     [](float x, float y) { return FloatOrderKey(x) < FloatOrderKey(y); });
    return *mid;
}

}  // namespace veltrano
