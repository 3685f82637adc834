// Selection of the median (the element of rank n/2) of a scratch window.
//
// QuickselectMedian is the library's historic selection: partition about the first element,
// narrow towards the target rank. Its cost grows with the square of the window on flat windows
// (every partition then peels off a single element), which the flat background of an X-ray
// frame produces all the time. SelectMedian therefore uses an exchange network for the 3 x 3
// window and the standard library's selection for larger ones. Both yield the same value
// whenever the window has no NaN (the element of a given rank of a multiset is unique); windows
// holding a NaN go to the historic selection, whose outcome depends on its order of comparisons.
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

// Median of nine by a fixed exchange network (19 compare-exchanges, no branches), the 3 x 3
// window of radius 1 that hosts use most.
template <class T>
T MedianOfNine(T* p) {
    auto sort2 = [p](int i, int j) {
        const T lo = std::min(p[i], p[j]);
        const T hi = std::max(p[i], p[j]);
        p[i] = lo;
        p[j] = hi;
    };
    sort2(1, 2); sort2(4, 5); sort2(7, 8);
    sort2(0, 1); sort2(3, 4); sort2(6, 7);
    sort2(1, 2); sort2(4, 5); sort2(7, 8);
    sort2(0, 3); sort2(5, 8); sort2(4, 7);
    sort2(3, 6); sort2(1, 4); sort2(2, 5);
    sort2(4, 7); sort2(4, 2); sort2(6, 4);
    sort2(4, 2);
    return p[4];
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
