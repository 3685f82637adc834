// Selection of the median (the element of rank n/2) of a scratch window.
//
// QuickselectMedian is the library's long-standing selection: partition about the first element,
// narrow towards the target rank. Its cost grows with the square of the window on flat windows
// (every partition then peels off a single element), which the flat background of an X-ray
// frame produces all the time. SelectMedian therefore uses an exchange network for the 3 x 3
// window and the standard library's selection for larger ones. Both yield the same value
// whenever the window has no NaN (the element of a given rank of a multiset is unique); windows
// holding a NaN go to the long-standing selection, whose outcome depends on its order of
// comparisons.
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

// The selection has always carried the pivot index in the pixel type; within the radii that
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

// Median of nine by a fixed exchange network (19 compare-exchanges, no branches), the 3 x 3
// window of radius 1 that hosts use most.
template <class T>
T MedianOfNine(const T* p) {
    // Kept in locals (small integers widened to int) so that the network stays in registers
    // and compiles to conditional moves rather than branches.
    using W = std::conditional_t<std::is_integral_v<T> && sizeof(T) < sizeof(int), int, T>;
    W v0 = p[0], v1 = p[1], v2 = p[2], v3 = p[3], v4 = p[4], v5 = p[5], v6 = p[6], v7 = p[7], v8 = p[8];
    auto sort2 = [](W& a, W& b) {
        if constexpr (std::is_same_v<W, int>) {
            // Widened small integers cannot overflow the difference; the sign mask keeps the
            // exchange free of branches, which the compiler would otherwise emit.
            const int diff = b - a;
            const int lower = diff & (diff >> 31);
            a += lower;
            b -= lower;
        } else {
            const W lo = std::min(a, b);
            b = std::max(a, b);
            a = lo;
        }
    };
    sort2(v1, v2); sort2(v4, v5); sort2(v7, v8);
    sort2(v0, v1); sort2(v3, v4); sort2(v6, v7);
    sort2(v1, v2); sort2(v4, v5); sort2(v7, v8);
    sort2(v0, v3); sort2(v5, v8); sort2(v4, v7);
    sort2(v3, v6); sort2(v1, v4); sort2(v2, v5);
    sort2(v4, v7); sort2(v4, v2); sort2(v6, v4);
    sort2(v4, v2);
    return static_cast<T>(v4);
}

template <class T>
T SelectMedian(T* a, int64_t n) {
    if constexpr (std::is_floating_point_v<T>) {
        if (std::any_of(a, a + n, [](T v) { return std::isnan(v); })) return QuickselectMedian(a, n);
    }
    if (n == 9) return MedianOfNine(a);
    T* mid = a + n / 2;
    std::nth_element(a, mid, a + n);
    return *mid;
}

}  // namespace veltrano
