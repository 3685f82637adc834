// Median filter (Median_Blur): the element of rank n/2 of each (2r+1) x (2r+1) window, n =
// (2r+1)^2.
//
// Three implementations, chosen per call by ActiveImpl():
//   - Reference: the long-standing algorithm, kept as the oracle of the others: the image is
//     extended by the radius on every side, each window is copied row by row into a scratch array
//     and its median taken by quickselect (QuickselectMedian).
//   - Scalar and Avx2, radius 1 to 3: exchange networks over many pixels at once (see
//     median_kernel.inc); the Scalar level runs them on SSE2 registers, the Avx2 level on 256-bit
//     vectors.
//   - Scalar and Avx2, radius 4 and above: a histogram of the window that slides one pixel at a
//     time, its cost proportional to the radius rather than its square.
//
// All three give the same result bit for bit. The element of a given rank of a window is unique
// whenever no two of its elements compare equal without being identical, so any correct selection
// finds it; for integer pixels that is always the case. For floats two kinds of window leave the
// quickselect's result to the order in which it meets the elements: those holding a NaN (which
// compares false with everything) and those whose median is zero and which hold both +0 and -0.
// The fast paths find these windows and give them to the quickselect as well, up to radius 3.
// Beyond radius 3 the quickselect on them is not used at all: on a window full of equal values it
// takes time proportional to n squared (one NaN in a flat 100 x 100 image took 5 to 9 s at radius
// 30), so such windows take the element of rank n/2 in a total order of floats instead (-0 before
// +0, every NaN after +inf; FloatOrderKey), in every implementation alike.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/median_networks.h"
#include "imgproc/median_select.h"
#include "imgproc/pixel_dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"
#include "veltrano/filters.h"

#if defined(__SSE2__) || VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

constexpr int kMedianFailed = -3;  // type not served, or a size the scratch cannot hold
constexpr int kMedianBadRadius = -4;

// Radii up to this one take the exchange networks, larger ones the sliding histogram.
constexpr int kNetworkMaxRadius = 3;

// Windows holding NaN or both zeros get the quickselect itself up to this radius; its worst case
// there is a few thousand steps a pixel.
constexpr int kExactAmbiguousRadius = 3;

// Largest radius whose window positions fit the pixel type, in which the selection has always
// carried its index; hosts know these limits.
template <class T>
constexpr int MedianRadiusLimit() {
    if constexpr (std::is_same_v<T, uint8_t>) return 7;
    if constexpr (std::is_same_v<T, int16_t>) return 90;
    if constexpr (std::is_same_v<T, uint16_t>) return 127;
    return 2047;  // floats index exactly up to 2^24 elements
}

// Source index of a position along one axis of the padded image: mirrored about the edge pixel
// without repeating it, the mirror limited to the axis' own size; positions past that limit
// repeat the limit's pixel (a 0 there would shift the ranks).
struct MirrorAxis {
    ptrdiff_t n;
    ptrdiff_t lim;
    MirrorAxis(int size, int radius) : n(size), lim(std::min(radius, size)) {}
    ptrdiff_t map(ptrdiff_t i) const {
        if (i < -lim) i = -lim;
        if (i > n - 1 + lim) i = n - 1 + lim;
        return MirrorIndex(i, n);
    }
};

bool Overlaps(const void* a, const void* b, size_t bytes) {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + bytes && pb < pa + bytes;
}

// ---------------------------------------------------------------------------------------------
// Reference

bool HoldsNanOrBothZeros(const float* a, int64_t n) {
    bool negZero = false;
    bool posZero = false;
    for (int64_t i = 0; i < n; ++i) {
        if (std::isnan(a[i])) return true;
        if (a[i] == 0.0f) (std::signbit(a[i]) ? negZero : posZero) = true;
    }
    return negZero && posZero;
}

template <class T>
T SelectWindowMedian(T* window, int64_t n, int radius) {
    if constexpr (std::is_floating_point_v<T>) {
        if (radius > kExactAmbiguousRadius && HoldsNanOrBothZeros(window, n))
            return TotalOrderMedian(window, n);
    }
    return QuickselectMedian(window, n);
}

template <class T>
int MedianReference(const T* src, T* dst, int width, int height, int radius) {
    const MirrorAxis rows(height, radius);
    const MirrorAxis cols(width, radius);
    const int64_t side = 2 * static_cast<int64_t>(radius) + 1;
    const int64_t padCols = width + 2 * static_cast<int64_t>(radius);
    const int64_t padRows = height + 2 * static_cast<int64_t>(radius);
    std::vector<T> padded;
    std::vector<T> window;
    if (!TryResize(padded, static_cast<uint64_t>(padRows * padCols)) ||
        !TryResize(window, static_cast<uint64_t>(side * side)))
        return kMedianFailed;
    for (int64_t py = 0; py < padRows; ++py) {
        const T* srow = src + rows.map(py - radius) * width;
        T* prow = padded.data() + py * padCols;
        for (int64_t px = 0; px < padCols; ++px) prow[px] = srow[cols.map(px - radius)];
    }
    for (int64_t y = 0; y < height; ++y) {
        for (int64_t x = 0; x < width; ++x) {
            const T* corner = padded.data() + y * padCols + x;
            for (int64_t i = 0; i < side; ++i)
                std::memcpy(window.data() + i * side, corner + i * padCols,
                            static_cast<size_t>(side) * sizeof(T));
            dst[y * width + x] = SelectWindowMedian(window.data(), side * side, radius);
        }
    }
    return 1;
}

// ---------------------------------------------------------------------------------------------
// Exchange networks, radius 1 to 3

// Kinds of float value whose order the quickselect leaves open: NaN, -0 and +0. The float
// kernels mark each source row that may hold one of them (kMarkMaybe), cheaply; such rows are
// then looked at closely.
enum : uint8_t { kMarkNan = 1, kMarkNegZero = 2, kMarkPosZero = 4, kMarkMaybe = 8 };

// (bits << 1) - 1, as unsigned: +0 and -0 give 0xffffffff, NaN gives 0xff000000 or more, and every
// other float less. So a maximum over many floats tells whether any is a zero or a NaN.
constexpr uint32_t kMaybeOpenKeyMin = 0xff000000u;
inline uint32_t MaybeOpenKey(float v) {
    uint32_t b = 0;
    std::memcpy(&b, &v, sizeof b);
    return (b << 1) - 1u;
}

inline bool LeavesOrderOpen(uint8_t marks) {
    return (marks & kMarkNan) != 0 ||
           (marks & (kMarkNegZero | kMarkPosZero)) == (kMarkNegZero | kMarkPosZero);
}

// What the network kernel works on. Padded row p is image row p - r (mirrored); segments(p)
// points to the k sorted rows of padded row p, for the current strip of columns, in a ring of
// k + 1 rows each `stride` long.
template <class T>
struct MedianJob {
    const T* src;
    T* dst;
    int width;
    int height;
    MirrorAxis rows;
    MirrorAxis cols;
    int strip;  // columns per strip, a multiple of the block; the last strip may be wider
    T* ring;
    ptrdiff_t stride;
    T* edge;  // one block plus the window's margins (one per input row of a radius-1 group), for
              // the row's ends and narrow images
    const int32_t* firstBlockColumns;  // source columns of the first block's edge, and the last's
    const int32_t* lastBlockColumns;
    uint8_t* rowMarks;  // floats: per source row, the kinds of value it holds (see Mark)
    T* segments(ptrdiff_t p, int k) const { return ring + (p % (k + 1)) * k * stride; }
};

namespace plain {

#if defined(__SSE2__)
// 32 bytes of pixels as two SSE2 registers, the instructions every x86 processor that loads the
// library has. SSE2 has no unsigned 16-bit minimum; a - (a -sat b) and b + (a -sat b) are the
// minimum and maximum exactly.
template <class T>
struct HalfOf {
    using type = __m128i;
};
template <>
struct HalfOf<float> {
    using type = __m128;
};

template <class Tp>
struct Ops {
    using T = Tp;
    static constexpr int kLanes = 32 / static_cast<int>(sizeof(T));
    static constexpr bool kFloat = std::is_same_v<T, float>;
    using Half = typename HalfOf<T>::type;
    struct V {
        Half lo;
        Half hi;
    };
    static Half LoadHalf(const T* p) {
        if constexpr (kFloat) {
            return _mm_loadu_ps(p);
        } else {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        }
    }
    static void StoreHalf(T* p, Half v) {
        if constexpr (kFloat) {
            _mm_storeu_ps(p, v);
        } else {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
        }
    }
    static Half MinHalf(Half a, Half b) {
        if constexpr (kFloat) return _mm_min_ps(a, b);
        if constexpr (std::is_same_v<T, uint8_t>) return _mm_min_epu8(a, b);
        if constexpr (std::is_same_v<T, int16_t>) return _mm_min_epi16(a, b);
        if constexpr (std::is_same_v<T, uint16_t>) return _mm_sub_epi16(a, _mm_subs_epu16(a, b));
    }
    static Half MaxHalf(Half a, Half b) {
        if constexpr (kFloat) return _mm_max_ps(a, b);
        if constexpr (std::is_same_v<T, uint8_t>) return _mm_max_epu8(a, b);
        if constexpr (std::is_same_v<T, int16_t>) return _mm_max_epi16(a, b);
        if constexpr (std::is_same_v<T, uint16_t>) return _mm_add_epi16(b, _mm_subs_epu16(a, b));
    }
    static V Load(const T* p) { return {LoadHalf(p), LoadHalf(p + kLanes / 2)}; }
    static void Store(T* p, const V& a) {
        StoreHalf(p, a.lo);
        StoreHalf(p + kLanes / 2, a.hi);
    }
    static V Min(const V& a, const V& b) { return {MinHalf(a.lo, b.lo), MinHalf(a.hi, b.hi)}; }
    static V Max(const V& a, const V& b) { return {MaxHalf(a.lo, b.lo), MaxHalf(a.hi, b.hi)}; }
    // Floats: whether the group holds a zero or a NaN (see MaybeOpenKey).
    static constexpr bool kMarks = kFloat;
    using Marks = uint32_t;
    static Marks Mark(Marks acc, const V& a) {
        T v[kLanes];
        Store(v, a);
        if constexpr (kMarks) {
            for (int i = 0; i < kLanes; ++i) acc = std::max(acc, MaybeOpenKey(v[i]));
        }
        return acc;
    }
    static uint8_t Reduce(Marks acc) { return acc >= kMaybeOpenKeyMin ? kMarkMaybe : 0; }
    static constexpr bool kNonNegative = false;
    static V Top() { return V{}; }
    static bool Negative(const V&) { return false; }
};
#else
// Plain code over 32 bytes of pixels, where SSE2 is not available.
template <class Tp>
struct Ops {
    using T = Tp;
    static constexpr int kLanes = 32 / static_cast<int>(sizeof(T));
    struct V {
        T v[kLanes];
    };
    static V Load(const T* p) {
        V r;
        std::memcpy(r.v, p, sizeof r.v);
        return r;
    }
    static void Store(T* p, const V& a) { std::memcpy(p, a.v, sizeof a.v); }
    static V Min(const V& a, const V& b) {
        V r;
        for (int i = 0; i < kLanes; ++i) r.v[i] = b.v[i] < a.v[i] ? b.v[i] : a.v[i];
        return r;
    }
    static V Max(const V& a, const V& b) {
        V r;
        for (int i = 0; i < kLanes; ++i) r.v[i] = a.v[i] < b.v[i] ? b.v[i] : a.v[i];
        return r;
    }
    // Floats: whether the group holds a zero or a NaN (see MaybeOpenKey).
    static constexpr bool kMarks = std::is_same_v<T, float>;
    using Marks = uint32_t;
    static Marks Mark(Marks acc, const V& a) {
        if constexpr (kMarks) {
            for (int i = 0; i < kLanes; ++i) acc = std::max(acc, MaybeOpenKey(a.v[i]));
        }
        return acc;
    }
    static uint8_t Reduce(Marks acc) { return acc >= kMaybeOpenKeyMin ? kMarkMaybe : 0; }
    static constexpr bool kNonNegative = false;
    static V Top() { return V{}; }
    static bool Negative(const V&) { return false; }
};
#endif

#include "imgproc/median_kernel.inc"

template <class T, int K>
void Run(const MedianJob<T>& job) {
    if constexpr (K == 3) {
        NetworkMedian3<Ops<T>>(job);
    } else {
        NetworkMedian<Ops<T>, K>(job);
    }
}

}  // namespace plain

#if VELTRANO_HAS_AVX2_PATHS
// Everything defined from here to the end of the region is compiled for AVX2 (as if marked
// VELTRANO_TARGET_AVX2), the network kernel's second copy included.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {

template <class Tp>
struct IntegerOps {
    using T = Tp;
    using V = __m256i;
    static constexpr int kLanes = 32 / static_cast<int>(sizeof(T));
    static V Load(const T* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(T* p, V v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static V Min(V a, V b) {
        if constexpr (std::is_same_v<T, uint8_t>) return _mm256_min_epu8(a, b);
        if constexpr (std::is_same_v<T, uint16_t>) return _mm256_min_epu16(a, b);
        if constexpr (std::is_same_v<T, int16_t>) return _mm256_min_epi16(a, b);
    }
    static V Max(V a, V b) {
        if constexpr (std::is_same_v<T, uint8_t>) return _mm256_max_epu8(a, b);
        if constexpr (std::is_same_v<T, uint16_t>) return _mm256_max_epu16(a, b);
        if constexpr (std::is_same_v<T, int16_t>) return _mm256_max_epi16(a, b);
    }
    static constexpr bool kMarks = false;
    using Marks = uint32_t;
    static Marks Mark(Marks acc, V) { return acc; }
    static uint8_t Reduce(Marks) { return 0; }
    static constexpr bool kNonNegative = false;
    static V Top() { return V{}; }
    static bool Negative(V) { return false; }
};

// Float minimum and maximum return one of their operands; for equal operands (+0 and -0) which
// one is not the quickselect's choice, and the caller settles those windows afterwards.
struct FloatOps {
    using T = float;
    using V = __m256;
    static constexpr int kLanes = 8;
    static V Load(const T* p) { return _mm256_loadu_ps(p); }
    static void Store(T* p, V v) { _mm256_storeu_ps(p, v); }
    static V Min(V a, V b) { return _mm256_min_ps(a, b); }
    static V Max(V a, V b) { return _mm256_max_ps(a, b); }
    static constexpr bool kMarks = true;
    using Marks = __m256i;
    static Marks Mark(Marks acc, V a) {
        const __m256i key =
            _mm256_add_epi32(_mm256_slli_epi32(_mm256_castps_si256(a), 1), _mm256_set1_epi32(-1));
        return _mm256_max_epu32(acc, key);
    }
    static uint8_t Reduce(Marks acc) {
        const __m256i least = _mm256_set1_epi32(static_cast<int32_t>(kMaybeOpenKeyMin));
        const __m256i atLeast = _mm256_cmpeq_epi32(_mm256_max_epu32(acc, least), acc);
        return _mm256_movemask_ps(_mm256_castsi256_ps(atLeast)) != 0 ? kMarkMaybe : 0;
    }
    static constexpr bool kNonNegative = false;
    static V Top() { return _mm256_setzero_ps(); }
    static bool Negative(V) { return false; }
};

// Floats whose sign bit is clear (+0, positive numbers, +inf, NaN with a clear sign) are ordered
// by their bit patterns read as signed 32-bit integers exactly as by value (NaN last), and integer
// minimum and maximum run twice as fast as the float ones. So radius 1 runs on the bits; a group of
// rows in which a negative value (a set sign bit, -0 included) turns up is done again with
// FloatOps. As with FloatOps, windows holding NaN or both zeros are settled afterwards.
struct FloatBitsOps {
    using T = float;
    using V = __m256i;
    static constexpr int kLanes = 8;
    static V Load(const T* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static void Store(T* p, V v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static V Min(V a, V b) { return _mm256_min_epi32(a, b); }
    static V Max(V a, V b) { return _mm256_max_epi32(a, b); }
    static constexpr bool kMarks = true;
    using Marks = __m256i;
    static Marks Mark(Marks acc, V a) { return FloatOps::Mark(acc, _mm256_castsi256_ps(a)); }
    static uint8_t Reduce(Marks acc) { return FloatOps::Reduce(acc); }
    static constexpr bool kNonNegative = true;
    static V Top() { return _mm256_set1_epi32(std::numeric_limits<int32_t>::max()); }
    static bool Negative(V least) { return _mm256_movemask_ps(_mm256_castsi256_ps(least)) != 0; }
};

template <class T>
using OpsFor = std::conditional_t<std::is_same_v<T, float>, FloatOps, IntegerOps<T>>;

#include "imgproc/median_kernel.inc"

template <class T, int K>
VELTRANO_TARGET_AVX2 void Run(const MedianJob<T>& job) {
    if constexpr (K == 3 && std::is_same_v<T, float>) {
        NetworkMedian3<FloatBitsOps, FloatOps>(job);
    } else if constexpr (K == 3) {
        NetworkMedian3<OpsFor<T>>(job);
    } else {
        NetworkMedian<OpsFor<T>, K>(job);
    }
}

}  // namespace avx2
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif  // VELTRANO_HAS_AVX2_PATHS

template <class T, int K>
int RunNetworks(const MedianJob<T>& job, Impl impl) {
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        avx2::Run<T, K>(job);
        return 1;
    }
#endif
    (void)impl;
    plain::Run<T, K>(job);
    return 1;
}

uint8_t Mark(float v) {
    if (std::isnan(v)) return kMarkNan;
    if (v == 0.0f) return std::signbit(v) ? kMarkNegZero : kMarkPosZero;
    return 0;
}

// Float windows whose median the networks cannot settle as the quickselect does: those holding a
// NaN, and those whose median is zero and which hold both +0 and -0. The kernel has marked the
// source rows; only output rows whose window rows leave the order open are looked at, and there
// each window that does gets the quickselect's result.
void SettleOpenWindows(const float* src, float* dst, int width, int height, int radius,
                       uint8_t* rowMarks) {
    for (ptrdiff_t s = 0; s < height; ++s) {
        if (rowMarks[s] == 0) continue;
        uint8_t m = 0;
        for (ptrdiff_t x = 0; x < width; ++x) m |= Mark(src[s * width + x]);
        rowMarks[s] = m;
    }
    constexpr int kMaxSide = 2 * kExactAmbiguousRadius + 1;
    float window[kMaxSide * kMaxSide];
    const MirrorAxis rows(height, radius);
    const MirrorAxis cols(width, radius);
    const int64_t side = 2 * static_cast<int64_t>(radius) + 1;
    for (ptrdiff_t y = 0; y < height; ++y) {
        uint8_t rowsMarks = 0;
        for (ptrdiff_t i = y - radius; i <= y + radius; ++i) rowsMarks |= rowMarks[rows.map(i)];
        if (!LeavesOrderOpen(rowsMarks)) continue;
        for (ptrdiff_t x = 0; x < width; ++x) {
            float& out = dst[y * width + x];
            if ((rowsMarks & kMarkNan) == 0 && out != 0.0f) continue;  // only a zero median is open
            float* w = window;
            for (ptrdiff_t i = y - radius; i <= y + radius; ++i) {
                const float* srow = src + rows.map(i) * width;
                for (ptrdiff_t j = x - radius; j <= x + radius; ++j) *w++ = srow[cols.map(j)];
            }
            uint8_t marks = 0;
            for (int64_t i = 0; i < side * side; ++i) marks |= Mark(window[i]);
            if ((marks & kMarkNan) != 0 || (out == 0.0f && LeavesOrderOpen(marks)))
                out = QuickselectMedian(window, side * side);
        }
    }
}

template <class T>
int MedianByNetworks(const T* src, T* dst, int width, int height, int radius, Impl impl) {
    constexpr int lanes = 32 / static_cast<int>(sizeof(T));  // both implementations' block
    const int k = 2 * radius + 1;
    // Strips whose ring of sorted rows takes about 16 KiB.
    // Strips whose ring of sorted rows stays within about 192 KiB, which keeps it in the
    // second-level cache and bounds it for very wide images; a full frame is a single strip at most
    // radii.
    const int strip =
        std::max(lanes, 196608 / ((k + 1) * k * static_cast<int>(sizeof(T))) / lanes * lanes);
    const ptrdiff_t stride = std::max(lanes, std::min(width, strip + lanes));
    const MirrorAxis rows(height, radius);
    const MirrorAxis cols(width, radius);
    std::vector<T> ring;
    std::vector<T> edge;
    std::vector<int32_t> edgeColumns;
    std::vector<uint8_t> rowMarks;
    const int edgeSize = lanes + 2 * radius;
    if (!TryResize(ring, static_cast<uint64_t>(k + 1) * static_cast<uint64_t>(k) *
                             static_cast<uint64_t>(stride)) ||
        !TryResize(edge,
                   static_cast<uint64_t>(plain::kGroup3 + 2) * static_cast<uint64_t>(edgeSize)) ||
        !TryResize(edgeColumns, 2 * static_cast<uint64_t>(edgeSize)) ||
        !TryResize(rowMarks, std::is_same_v<T, float> ? static_cast<uint64_t>(height) : 0))
        return kMedianFailed;
    const int lastBlock = std::max(0, width - lanes);
    for (int j = 0; j < edgeSize; ++j) {
        edgeColumns[j] = static_cast<int32_t>(cols.map(j - radius));
        edgeColumns[edgeSize + j] = static_cast<int32_t>(cols.map(lastBlock + j - radius));
    }
    const uint64_t count = PixelCount(width, height);
    std::vector<T> copy;
    if (Overlaps(src, dst, count * sizeof(T))) {
        if (!TryResize(copy, count)) return kMedianFailed;
        std::memcpy(copy.data(), src, count * sizeof(T));
        src = copy.data();
    }
    const MedianJob<T> job{src,
                           dst,
                           width,
                           height,
                           rows,
                           cols,
                           strip,
                           ring.data(),
                           stride,
                           edge.data(),
                           edgeColumns.data(),
                           edgeColumns.data() + edgeSize,
                           rowMarks.data()};
    switch (radius) {
    case 1:
        RunNetworks<T, 3>(job, impl);
        break;
    case 2:
        RunNetworks<T, 5>(job, impl);
        break;
    default:
        RunNetworks<T, 7>(job, impl);
        break;
    }
    if constexpr (std::is_same_v<T, float>) {
        uint8_t marks = 0;
        for (uint8_t m : rowMarks) marks |= m;
        if (marks != 0) SettleOpenWindows(src, dst, width, height, radius, rowMarks.data());
    }
    return 1;
}

// ---------------------------------------------------------------------------------------------
// Sliding histogram, radius 4 and above

// How often each source row (or column) occurs among the window's rows (columns) around a centre.
// A window wider than the image holds some source rows many times; it is counted once, with its
// weight, so the work per step is bounded by the image's size whatever the radius.
class AxisWeights {
public:
    bool allocate(int size) {
        return TryResize(weight_, static_cast<uint64_t>(size)) &&
               TryResize(used_, static_cast<uint64_t>(size));
    }

    void build(const MirrorAxis& axis, ptrdiff_t centre, int radius) {
        for (size_t i = 0; i < count_; ++i) weight_[used_[i]] = 0;
        count_ = 0;
        for (ptrdiff_t i = centre - radius; i <= centre + radius; ++i) {
            const auto s = static_cast<uint32_t>(axis.map(i));
            if (weight_[s]++ == 0) used_[count_++] = s;
        }
    }

    size_t count() const { return count_; }
    const uint32_t* used() const { return used_.data(); }       // the source indices in the window
    const uint32_t* weights() const { return weight_.data(); }  // by source index

private:
    std::vector<uint32_t> weight_;
    std::vector<uint32_t> used_;
    size_t count_ = 0;
};

// Slides the window over the image in a snake (left to right, then right to left on the next
// row), so that every step moves it by one column or one row, and keeps counts of its keys
// (0 .. distinct - 1, in the order of the pixel values) in bins of one key and in blocks of
// 2^Shift keys, with the current median and the number of window elements below it. After each
// step the median moves to its new place block by block where it can and key by key where it
// must. keyAt(row, col) is a source pixel's key; store(y, x, key) writes a result. The state is
// kept in locals so that it stays in registers.
template <int Shift, class KeyAt, class Store>
void SlideHistogram(int width, int height, int radius, uint32_t* __restrict bins,
                    uint32_t* __restrict blocks, AxisWeights& rowW, AxisWeights& colW, KeyAt keyAt,
                    Store store) {
    constexpr uint32_t kBlock = 1u << Shift;
    const MirrorAxis rows(height, radius);
    const MirrorAxis cols(width, radius);
    const uint64_t side = 2 * static_cast<uint64_t>(radius) + 1;
    const uint64_t target = side * side / 2;  // rank of the median
    uint32_t median = 0;
    uint64_t below = 0;
    // Whether a key lies below the median is as good as random on noisy pixels; a mask instead of
    // a branch keeps that from costing a misprediction per element.
    const auto add = [&](uint32_t key, uint32_t weight) {
        bins[key] += weight;
        blocks[key >> Shift] += weight;
        below += weight & (0u - static_cast<uint32_t>(key < median));
    };
    const auto remove = [&](uint32_t key, uint32_t weight) {
        bins[key] -= weight;
        blocks[key >> Shift] -= weight;
        below -= weight & (0u - static_cast<uint32_t>(key < median));
    };
    const auto settle = [&]() {
        while (below > target) {
            if ((median & (kBlock - 1)) == 0 && below - blocks[(median >> Shift) - 1] > target) {
                below -= blocks[(median >> Shift) - 1];
                median -= kBlock;
            } else {
                --median;
                below -= bins[median];
            }
        }
        while (below + bins[median] <= target) {
            if ((median & (kBlock - 1)) == 0 && below + blocks[median >> Shift] <= target) {
                below += blocks[median >> Shift];
                median += kBlock;
            } else {
                below += bins[median];
                ++median;
            }
        }
        return median;
    };

    rowW.build(rows, 0, radius);
    colW.build(cols, 0, radius);
    for (size_t i = 0; i < rowW.count(); ++i)
        for (size_t j = 0; j < colW.count(); ++j) {
            const uint32_t s = rowW.used()[i];
            const uint32_t c = colW.used()[j];
            add(keyAt(s, c), rowW.weights()[s] * colW.weights()[c]);
        }
    ptrdiff_t x = 0;
    ptrdiff_t dir = 1;
    for (ptrdiff_t y = 0;;) {
        store(y, x, settle());
        const ptrdiff_t nx = x + dir;
        if (nx >= 0 && nx < width) {
            const ptrdiff_t leaving = cols.map(dir > 0 ? x - radius : x + radius);
            const ptrdiff_t entering = cols.map(dir > 0 ? nx + radius : nx - radius);
            if (leaving != entering) {
                const uint32_t* used = rowW.used();
                const uint32_t* weights = rowW.weights();
                const size_t n = rowW.count();
                for (size_t i = 0; i < n; ++i) {
                    const uint32_t s = used[i];
                    remove(keyAt(s, leaving), weights[s]);
                    add(keyAt(s, entering), weights[s]);
                }
            }
            x = nx;
            continue;
        }
        if (y + 1 == height) break;
        colW.build(cols, x, radius);
        const ptrdiff_t leaving = rows.map(y - radius);
        const ptrdiff_t entering = rows.map(y + 1 + radius);
        if (leaving != entering) {
            for (size_t j = 0; j < colW.count(); ++j) {
                const uint32_t c = colW.used()[j];
                remove(keyAt(leaving, c), colW.weights()[c]);
                add(keyAt(entering, c), colW.weights()[c]);
            }
        }
        ++y;
        rowW.build(rows, y, radius);
        dir = -dir;
    }
}

// Allocates the counts for `distinct` keys and slides. Blocks of 16 keys for 8-bit pixels, 64
// for the rest.
template <class KeyAt, class Store>
int RunHistogram(int width, int height, int radius, uint64_t distinct, KeyAt keyAt, Store store) {
    const int shift = distinct <= 4096 ? 4 : 6;
    const uint64_t blocks = (distinct >> shift) + 1;
    std::vector<uint32_t> binCounts;
    std::vector<uint32_t> blockCounts;
    AxisWeights rowW;
    AxisWeights colW;
    if (!TryResize(binCounts, blocks << shift) || !TryResize(blockCounts, blocks) ||
        !rowW.allocate(height) || !colW.allocate(width))
        return kMedianFailed;
    if (shift == 4) {
        SlideHistogram<4>(width, height, radius, binCounts.data(), blockCounts.data(), rowW, colW,
                          keyAt, store);
    } else {
        SlideHistogram<6>(width, height, radius, binCounts.data(), blockCounts.data(), rowW, colW,
                          keyAt, store);
    }
    return 1;
}

template <class T>
int HistogramMedian(const T* src, T* dst, int width, int height, int radius) {
    const uint64_t count = PixelCount(width, height);
    const ptrdiff_t w = width;
    if constexpr (std::is_same_v<T, float>) {
        // Keys are the ranks of the distinct bit patterns in the total order of floats, which
        // agrees with the order by value except between +0 and -0 and for NaN.
        std::vector<uint64_t> order;
        std::vector<uint32_t> ranks;
        std::vector<float> values;
        if (!TryResize(order, count) || !TryResize(ranks, count) || !TryResize(values, count))
            return kMedianFailed;
        for (uint64_t i = 0; i < count; ++i)
            order[i] = (FloatOrderKey(src[i]) << 28) | i;  // count <= 2^28
        std::sort(order.begin(), order.end());
        uint32_t rank = 0;
        for (uint64_t j = 0; j < count; ++j) {
            if (j > 0 && (order[j] >> 28) != (order[j - 1] >> 28)) ++rank;
            const uint64_t i = order[j] & ((static_cast<uint64_t>(1) << 28) - 1);
            ranks[i] = rank;
            values[rank] = src[i];
        }
        std::vector<uint64_t>().swap(order);
        // Only the ranks and values are read from here on, so dst may be src.
        return RunHistogram(
            width, height, radius, static_cast<uint64_t>(rank) + 1,
            [r = ranks.data(), w](ptrdiff_t s, ptrdiff_t c) { return r[s * w + c]; },
            [dst, v = values.data(), w](ptrdiff_t y, ptrdiff_t x, uint32_t key) {
                dst[y * w + x] = v[key];
            });
    } else {
        constexpr int32_t offset =
            std::is_signed_v<T> ? -static_cast<int32_t>(std::numeric_limits<T>::min()) : 0;
        std::vector<T> copy;
        if (Overlaps(src, dst, count * sizeof(T))) {
            if (!TryResize(copy, count)) return kMedianFailed;
            std::memcpy(copy.data(), src, count * sizeof(T));
            src = copy.data();
        }
        return RunHistogram(
            width, height, radius,
            static_cast<uint64_t>(std::numeric_limits<T>::max()) + offset + 1,
            [src, w](ptrdiff_t s, ptrdiff_t c) {
                return static_cast<uint32_t>(static_cast<int32_t>(src[s * w + c]) + offset);
            },
            [dst, w](ptrdiff_t y, ptrdiff_t x, uint32_t key) {
                dst[y * w + x] = static_cast<T>(static_cast<int32_t>(key) - offset);
            });
    }
}

// ---------------------------------------------------------------------------------------------

template <class T>
int MedianBlurTyped(void* srcBuffer, void* dstBuffer, int width, int height, int radius) {
    if (radius < 0 || radius > MedianRadiusLimit<T>()) return kMedianBadRadius;
    const T* src = static_cast<const T*>(srcBuffer);
    T* dst = static_cast<T*>(dstBuffer);
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    // The padded copy of the long-standing algorithm (and every window in it) must fit the size
    // limit; the fast paths do not build it but refuse the same calls, so that the result code
    // does not depend on the implementation.
    const uint64_t padded =
        SaturatingProduct(static_cast<uint64_t>(width) + 2 * static_cast<uint64_t>(radius),
                          static_cast<uint64_t>(height) + 2 * static_cast<uint64_t>(radius));
    if (count > kMaxElements || padded > kMaxElements) return kMedianFailed;
    if (radius == 0) {
        if (src != dst) std::memmove(dst, src, static_cast<size_t>(count) * sizeof(T));
        return 1;
    }
    const Impl impl = ActiveImpl();
    if (impl == Impl::Reference) return MedianReference(src, dst, width, height, radius);
    if (radius <= kNetworkMaxRadius) return MedianByNetworks(src, dst, width, height, radius, impl);
    return HistogramMedian(src, dst, width, height, radius);
}

}  // namespace
}  // namespace veltrano

int Median_Blur(void* src, void* dst, int width, int height, int radius, int pixelType) {
    using namespace veltrano;
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    return DispatchPixelType<Pix8U, Pix16U, Pix16S, Pix32F>(
        pixelType, kMedianFailed, [&](auto tag) {
            return MedianBlurTyped<typename decltype(tag)::type>(src, dst, width, height, radius);
        });
}
