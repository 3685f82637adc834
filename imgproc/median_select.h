// Selection of the median (the element of rank n/2) of a scratch window.
//
// QuickselectMedian is the library's historic selection: partition about the first element,
// narrow towards the target rank. Its cost grows with the square of the window on flat windows
// (every partition then peels off a single element), which the flat background of an X-ray
// frame produces all the time. SelectMedian therefore uses the standard library's selection,
// which yields the same value whenever the window has no NaN (the element of a given rank of a
// multiset is unique), and falls back to the historic selection for windows holding a NaN,
// where the outcome depends on the order of comparisons.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

namespace veltrano {

// Partition of a[lo..hi] about its first element: from the right move a smaller element into
// the hole on the left, from the left a greater one into the hole on the right, until the scans
// meet; the pivot goes there and its index is returned.
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

// The historic code carried the pivot index in the pixel type; within the radii that
// Median_Blur accepts every index is exact in that type, so a plain index serves.
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

template <class T>
T SelectMedian(T* a, int64_t n) {
    if constexpr (std::is_floating_point_v<T>) {
        if (std::any_of(a, a + n, [](T v) { return std::isnan(v); })) return QuickselectMedian(a, n);
    }
    T* mid = a + n / 2;
    std::nth_element(a, mid, a + n);
    return *mid;
}

}  // namespace veltrano
