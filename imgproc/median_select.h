// Selection of the median (the element of rank n/2) of a scratch window.
//
// QuickselectMedian is the library's long-standing selection: partition about the first element,
// narrow towards the target rank. Its cost grows with the square of the window on flat windows
// (every partition then peels off a single element), which the flat background of an X-ray
// frame produces all the time. SelectMedian therefore uses exchange networks for the 3 x 3,
// 5 x 5 and 7 x 7 windows and the standard library's selection for larger ones. All yield the
// same value whenever the window has no NaN (the element of a given rank of a multiset is
// unique); windows holding a NaN go to the long-standing selection, whose outcome depends on its
// order of comparisons.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

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

// Small integers are widened to int for the exchanges below; other types stay as they are.
template <class T>
using ExchangeType = std::conditional_t<std::is_integral_v<T> && sizeof(T) < sizeof(int), int, T>;

// Puts the smaller of a and b into a and the larger into b without a branch, which the compiler
// would otherwise emit for integers and which mispredicts on noisy pixels.
template <class W>
inline void ExchangeInOrder(W& a, W& b) {
    if constexpr (std::is_same_v<W, int>) {
        // Widened small integers cannot overflow the difference; the sign mask does the rest.
        const int diff = b - a;
        const int lower = diff & (diff >> 31);
        a += lower;
        b -= lower;
    } else {
        const W lo = std::min(a, b);
        b = std::max(a, b);
        a = lo;
    }
}

// Median of nine by a fixed exchange network (19 exchanges), the 3 x 3 window of radius 1 that
// hosts use most. Kept in locals so that the network stays in registers.
template <class T>
T MedianOfNine(const T* p) {
    using W = ExchangeType<T>;
    W v0 = p[0], v1 = p[1], v2 = p[2], v3 = p[3], v4 = p[4], v5 = p[5], v6 = p[6], v7 = p[7], v8 = p[8];
    auto sort2 = [](W& a, W& b) { ExchangeInOrder(a, b); };
    sort2(v1, v2); sort2(v4, v5); sort2(v7, v8);
    sort2(v0, v1); sort2(v3, v4); sort2(v6, v7);
    sort2(v1, v2); sort2(v4, v5); sort2(v7, v8);
    sort2(v0, v3); sort2(v5, v8); sort2(v4, v7);
    sort2(v3, v6); sort2(v1, v4); sort2(v2, v5);
    sort2(v4, v7); sort2(v4, v2); sort2(v6, v4);
    sort2(v4, v2);
    return static_cast<T>(v4);
}

// The exchanges of an odd-even merge sorting network over the next power of two of n wires,
// keeping only those that can influence wire n/2: what the median needs. Wires from n on are
// padding that holds the largest value.
class MedianNetwork {
public:
    static constexpr int kMaxWires = 64;

    explicit MedianNetwork(int n) : n_(n) {
        while (wires_ < n) wires_ *= 2;
        std::vector<std::pair<int, int>> all;
        for (int p = 1; p < wires_; p *= 2)
            for (int k = p; k >= 1; k /= 2)
                for (int j = k % p; j + k < wires_; j += 2 * k)
                    for (int i = 0; i < k && i + j + k < wires_; ++i)
                        if ((i + j) / (2 * p) == (i + j + k) / (2 * p)) all.emplace_back(i + j, i + j + k);
        // An exchange whose upper wire already holds padding changes nothing; one whose lower
        // wire does moves the padding up, so the padded wires are followed through the network.
        bool padding[kMaxWires] = {};
        for (int w = n; w < wires_; ++w) padding[w] = true;
        std::vector<std::pair<int, int>> effective;
        for (const auto& [lo, hi] : all) {
            if (padding[hi]) continue;
            if (padding[lo]) {
                padding[lo] = false;
                padding[hi] = true;
            }
            effective.emplace_back(lo, hi);
        }
        all.swap(effective);
        bool needed[kMaxWires] = {};
        needed[n / 2] = true;
        for (auto it = all.rbegin(); it != all.rend(); ++it) {
            if (needed[it->first] || needed[it->second]) {
                needed[it->first] = needed[it->second] = true;
                steps_.push_back(*it);
            }
        }
        std::reverse(steps_.begin(), steps_.end());
    }

    template <class T>
    T median(const T* a) const {
        using W = ExchangeType<T>;
        W v[kMaxWires];
        for (int i = 0; i < n_; ++i) v[i] = a[i];
        // The padding sorts after every pixel; for widened integers it is the pixel type's own
        // maximum, so that the exchanges' differences stay within int.
        const W pad = std::numeric_limits<T>::has_infinity ? static_cast<W>(std::numeric_limits<T>::infinity())
                                                           : static_cast<W>(std::numeric_limits<T>::max());
        for (int i = n_; i < wires_; ++i) v[i] = pad;
        for (const auto& [i, j] : steps_) ExchangeInOrder(v[i], v[j]);
        return static_cast<T>(v[n_ / 2]);
    }

private:
    int n_;
    int wires_ = 1;
    std::vector<std::pair<int, int>> steps_;
};

// Median of a window: networks up to 7 x 7, the standard library's selection beyond.
template <class T>
T SelectMedian(T* a, int64_t n) {
    if constexpr (std::is_floating_point_v<T>) {
        if (std::any_of(a, a + n, [](T v) { return std::isnan(v); })) return QuickselectMedian(a, n);
    }
    if (n == 9) return MedianOfNine(a);
    if (n == 25) {
        static const MedianNetwork network(25);
        return network.median(a);
    }
    if (n == 49) {
        static const MedianNetwork network(49);
        return network.median(a);
    }
    T* mid = a + n / 2;
    std::nth_element(a, mid, a + n);
    return *mid;
}

}  // namespace veltrano
