// Local-statistics contrast enhancement (exact and quick), the combined enhancement, gamma and
// equalisation step, and window levelling.
#include "veltrano/contrast.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/frame_passes.h"
#include "imgproc/pixel_dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"
#include "imgproc/window_helpers.h"
#include "veltrano/normalize.h"
#include "veltrano/point_ops.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

// Local mean over the (2r+1)^2 window, r = max(radius, 1): the running box sum divided by the
// area (double buffers) or multiplied by its reciprocal (float buffers).
template <class F>
void BoxMean(const F* in, F* out, int width, int height, int radius) {
    const int r = radius < 1 ? 1 : radius;
    RunningBoxSum(in, out, width, height, r);
    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    const int side = 2 * r + 1;
    if constexpr (std::is_same_v<F, double>) {
        const double area = static_cast<double>(side) * side;
        for (size_t i = 0; i < count; ++i) out[i] = out[i] / area;
    } else {
        const float inv = 1.0f / static_cast<float>(side * side);
        for (size_t i = 0; i < count; ++i) out[i] = out[i] * inv;
    }
}

// Clamp to the element type's range (a NaN becomes 0) and truncate toward zero.
template <class T, class V>
T StoreInRange(V v) {
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const V lo = static_cast<V>(low);
    const V hi = static_cast<V>(high);
    if (v != v) return T(0);
    if (v > hi) v = hi;
    if (v < lo) v = lo;
    return static_cast<T>(v);
}

// Sizes as the int the window code uses, or false when the image is empty or too large for it.
bool ImageSize(uint32_t width, uint32_t height, int& w, int& h) {
    if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX) return false;
    w = static_cast<int>(width);
    h = static_cast<int>(height);
    return true;
}

template <class T>
void EnhanceExact(const T* src, T* dst, int w, int h, int radius, float alpha, float maxGain) {
    const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
    std::vector<double> x(count);
    std::vector<double> squares(count);
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) {
        x[i] = static_cast<double>(src[i]);
        squares[i] = x[i] * x[i];
        sum += x[i];
    }
    const double globalMean = sum / static_cast<double>(count);
    std::vector<double> m(count);
    std::vector<double> q(count);
    BoxMean(x.data(), m.data(), w, h, radius);
    BoxMean(squares.data(), q.data(), w, h, radius);

    const double a = static_cast<double>(alpha);
    const double ceiling = static_cast<double>(maxGain);
    for (size_t i = 0; i < count; ++i) {
        const double sd = std::sqrt(q[i] - m[i] * m[i]);
        double r;
        if (!(sd > 0.0)) {
            r = m[i];
        } else {
            const double gain = std::min(a * globalMean / sd, ceiling);
            r = (x[i] - m[i]) * gain + m[i];
        }
        dst[i] = StoreInRange<T>(r);
    }
}

// ---- the exact form with integer sums --------------------------------------------------------
//
// The window sums of the exact form add whole numbers (pixel values and their squares) in
// double precision. While every partial sum stays below 2^53 each addition is exact, so 64-bit
// integer running sums give the very same numbers in any order and for any radius; the local
// mean and mean square are then the same two divisions as in the plain code. The integer sums
// are kept one row at a time (see EnhanceExactIntegerSums).

struct ExactConstants {
    double area;     // (2r + 1)^2
    double k;        // alpha * global mean
    double ceiling;  // maxGain
    // A lane is surely capped when k > ceiling * sd * (1 + 1e-12): then k / sd rounds to at least
    // the ceiling and the division can be skipped. Only for a finite, positive ceiling.
    bool capTest;
};

template <class T>
T ExactPixel(double x, int64_t s, int64_t q, const ExactConstants& c) {
    const double m = static_cast<double>(s) / c.area;
    const double mq = static_cast<double>(q) / c.area;
    const double sd = std::sqrt(mq - m * m);
    double r;
    if (!(sd > 0.0)) {
        r = m;
    } else {
        const double gain = std::min(c.k / sd, c.ceiling);
        r = (x - m) * gain + m;
    }
    return StoreInRange<T>(r);
}

template <class T>
void ExactRowScalar(const T* x, const int64_t* s, const int64_t* q, T* out, int w,
                    const ExactConstants& c) {
    for (int i = 0; i < w; ++i) out[i] = ExactPixel<T>(static_cast<double>(x[i]), s[i], q[i], c);
}

#if VELTRANO_HAS_AVX2_PATHS
// Integers below 2^51 in magnitude as doubles: added to the bits of 1.5 * 2^52 they form that
// number plus the integer exactly.
VELTRANO_TARGET_AVX2 inline __m256d Int64ToDouble(__m256i v) {
    const __m256d magic = _mm256_set1_pd(6755399441055744.0);
    return _mm256_sub_pd(_mm256_castsi256_pd(_mm256_add_epi64(v, _mm256_castpd_si256(magic))),
                         magic);
}

template <class T>
VELTRANO_TARGET_AVX2 inline __m128i LoadFour(const T* p) {
    if constexpr (std::is_same_v<T, uint16_t>) {
        return _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else if constexpr (std::is_same_v<T, int16_t>) {
        return _mm_cvtepi16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else {
        int32_t word;
        std::memcpy(&word, p, 4);
        return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(word));
    }
}

template <class T>
VELTRANO_TARGET_AVX2 inline void StoreFour(T* p, __m128i v) {
    if constexpr (std::is_same_v<T, uint16_t>) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi32(v, v));
    } else if constexpr (std::is_same_v<T, int16_t>) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi32(v, v));
    } else {
        const __m128i w = _mm_packus_epi32(v, v);
        const int32_t word = _mm_cvtsi128_si32(_mm_packus_epi16(w, w));
        std::memcpy(p, &word, 4);
    }
}

// Four pixels at a time with the same double operations as ExactPixel: the divisions, the
// square root and the minimum are exactly rounded, so every lane equals the scalar result.
template <class T>
VELTRANO_TARGET_AVX2 void ExactRowAvx2(const T* x, const int64_t* s, const int64_t* q, T* out,
                                       int w, const ExactConstants& c) {
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const __m256d area = _mm256_set1_pd(c.area);
    const __m256d k = _mm256_set1_pd(c.k);
    const __m256d ceiling = _mm256_set1_pd(c.ceiling);
    const __m256d capScale = _mm256_set1_pd(1.0 + 1e-12);
    const __m256d lo = _mm256_set1_pd(low);
    const __m256d hi = _mm256_set1_pd(high);
    const __m256d zero = _mm256_setzero_pd();
    int i = 0;
    for (; i + 4 <= w; i += 4) {
        const __m256d xv = _mm256_cvtepi32_pd(LoadFour(x + i));
        const __m256d m = _mm256_div_pd(
            Int64ToDouble(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i))), area);
        const __m256d mq = _mm256_div_pd(
            Int64ToDouble(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(q + i))), area);
        const __m256d sd = _mm256_sqrt_pd(_mm256_sub_pd(mq, _mm256_mul_pd(m, m)));
        const __m256d positive = _mm256_cmp_pd(sd, zero, _CMP_GT_OQ);
        __m256d gain;
        const int live = _mm256_movemask_pd(positive);
        const bool capped =
            c.capTest && live != 0 &&
            (_mm256_movemask_pd(_mm256_cmp_pd(
                 k, _mm256_mul_pd(_mm256_mul_pd(ceiling, sd), capScale), _CMP_GT_OQ)) |
             (~live & 0xf)) == 0xf;
        if (capped) {
            gain = ceiling;
        } else {
            // std::min(k / sd, ceiling) is ceiling < k / sd ? ceiling : k / sd, which is
            // _mm256_min_pd(ceiling, k / sd) also for a not-a-number quotient.
            gain = _mm256_min_pd(ceiling, _mm256_div_pd(k, sd));
        }
        const __m256d enhanced = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(xv, m), gain), m);
        __m256d r = _mm256_blendv_pd(m, enhanced, positive);
        r = _mm256_and_pd(r, _mm256_cmp_pd(r, r, _CMP_ORD_Q));  // not a number stores 0
        r = _mm256_max_pd(_mm256_min_pd(r, hi), lo);
        StoreFour(out + i, _mm256_cvttpd_epi32(r));
    }
    ExactRowScalar(x + i, s + i, q + i, out + i, w - i, c);
}
#endif

#if VELTRANO_HAS_AVX2_PATHS
// Four elements of a row widened to 64-bit lanes.
template <class T>
VELTRANO_TARGET_AVX2 inline __m256i WidenFour(const T* p) {
    if constexpr (std::is_same_v<T, uint16_t>) {
        return _mm256_cvtepu16_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else if constexpr (std::is_same_v<T, int16_t>) {
        return _mm256_cvtepi16_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    } else {
        int32_t word;
        std::memcpy(&word, p, 4);
        return _mm256_cvtepu8_epi64(_mm_cvtsi32_si128(word));
    }
}

// The column sums move down one row: the entering row added, the leaving one taken away. The
// values fit in 32 bits, so their squares are products of the low halves of the 64-bit lanes.
template <class T>
VELTRANO_TARGET_AVX2 void MoveColumnsAvx2(const T* enter, const T* leave, int64_t* sums,
                                          int64_t* squares, size_t w) {
    size_t x = 0;
    for (; x + 4 <= w; x += 4) {
        const __m256i a = WidenFour(enter + x);
        const __m256i b = WidenFour(leave + x);
        __m256i* s = reinterpret_cast<__m256i*>(sums + x);
        __m256i* q = reinterpret_cast<__m256i*>(squares + x);
        _mm256_storeu_si256(s, _mm256_add_epi64(_mm256_loadu_si256(s), _mm256_sub_epi64(a, b)));
        _mm256_storeu_si256(
            q, _mm256_add_epi64(_mm256_loadu_si256(q),
                                _mm256_sub_epi64(_mm256_mul_epi32(a, a), _mm256_mul_epi32(b, b))));
    }
    for (; x < w; ++x) {
        const int64_t a = enter[x];
        const int64_t b = leave[x];
        sums[x] += a - b;
        squares[x] += a * a - b * b;
    }
}
#endif

template <class T>
void MoveColumns(const T* enter, const T* leave, int64_t* sums, int64_t* squares, size_t w) {
    for (size_t x = 0; x < w; ++x) {
        const int64_t a = enter[x];
        const int64_t b = leave[x];
        sums[x] += a - b;
        squares[x] += a * a - b * b;
    }
}

// Returns false, having written nothing, when the sums could leave the exact range of a double
// or the scratch cannot be allocated; the caller then runs the plain form.
//
// The window sums are integers, so they may be formed in any order: first down the columns (one
// running sum per column, moved a row at a time, vector-wide), then along the row through prefix
// sums of the mirrored column sums (a window is the difference of two prefixes).
template <class T>
bool EnhanceExactIntegerSums(const T* src, T* dst, int w, int h, int radius, float alpha,
                             float maxGain) {
    const int r = radius < 1 ? 1 : radius;
    const size_t width = static_cast<size_t>(w);
    const size_t count = width * static_cast<size_t>(h);
    int64_t total = 0;
    for (size_t i = 0; i < count; ++i) total += src[i];
    T mn = src[0];
    T mx = src[0];
    FrameMinMax(src, count, mn, mx);
    const int64_t maxAbs = std::max<int64_t>(mx, -static_cast<int64_t>(mn));
    // The largest partial sum of squares of the plain form: a window of (2r + 1)^2 squares plus
    // one entering row or element. Below 2^51 it is exact in a double, and a window sum converts
    // exactly through Int64ToDouble (which needs less than 2^51).
    const double side = 2.0 * r + 2.0;
    if (side * side * static_cast<double>(maxAbs) * static_cast<double>(maxAbs) >=
        2251799813685248.0)
        return false;

    // The source rows of the window are kept in a ring of 2r + 2 rows (or all rows of a shorter
    // image), copied as they enter: the rows a window needs, mirrored or not, always lie in the
    // band y - r - 1 .. y + r, whose rows fall in distinct slots. So a leaving row is still at
    // hand when the output has overwritten it (in place), and no frame-sized scratch is needed.
    const size_t k = 2 * static_cast<size_t>(r) + 1;
    const size_t slots = std::min(static_cast<size_t>(h), k + 1);
    std::vector<T> ring;
    std::vector<int> slotRow(slots, -1);
    std::vector<int64_t> colSums;
    std::vector<int64_t> colSquares;
    std::vector<int64_t> prefixSums;
    std::vector<int64_t> prefixSquares;
    std::vector<int64_t> sums;
    std::vector<int64_t> squares;
    std::vector<int32_t> index;
    if (!TryResize(ring, slots * width) || !TryResize(colSums, width) ||
        !TryResize(colSquares, width) || !TryResize(prefixSums, width + k) ||
        !TryResize(prefixSquares, width + k) || !TryResize(sums, width) ||
        !TryResize(squares, width) || !TryResize(index, width + k - 1))
        return false;
    for (size_t j = 0; j < index.size(); ++j)
        index[j] = static_cast<int32_t>(MirrorIndex(static_cast<ptrdiff_t>(j) - r, w));

    // Source row y (mirrored into the image), from the ring.
    auto row = [&](ptrdiff_t y) -> const T* {
        const int sourceRow = static_cast<int>(MirrorIndex(y, h));
        const size_t slot = static_cast<size_t>(sourceRow) % slots;
        T* copy = ring.data() + slot * width;
        if (slotRow[slot] != sourceRow) {
            slotRow[slot] = sourceRow;
            std::memcpy(copy, src + static_cast<size_t>(sourceRow) * width, width * sizeof(T));
        }
        return copy;
    };

    ExactConstants c;
    c.area = static_cast<double>(2 * r + 1) * (2 * r + 1);
    c.k = static_cast<double>(alpha) * (static_cast<double>(total) / static_cast<double>(count));
    c.ceiling = static_cast<double>(maxGain);
    c.capTest = std::isfinite(c.ceiling) && c.ceiling > 0.0 && std::isfinite(c.k);
    const bool avx2 = ActiveImpl() == Impl::Avx2;

    for (ptrdiff_t i = -r; i <= r; ++i) {
        const T* add = row(i);
        for (size_t x = 0; x < width; ++x) {
            const int64_t v = add[x];
            colSums[x] += v;
            colSquares[x] += v * v;
        }
    }
    for (int y = 0; y < h; ++y) {
        if (y > 0) {
            // The leaving row is fetched first: it lies in the band, so fetching the entering row
            // cannot evict it before it is used.
            const T* leave = row(y - 1 - r);
            const T* enter = row(y + r);
#if VELTRANO_HAS_AVX2_PATHS
            if (avx2) {
                MoveColumnsAvx2(enter, leave, colSums.data(), colSquares.data(), width);
            } else
#endif
            {
                MoveColumns(enter, leave, colSums.data(), colSquares.data(), width);
            }
        }
        int64_t ps = 0;
        int64_t pq = 0;
        prefixSums[0] = 0;
        prefixSquares[0] = 0;
        for (size_t j = 0; j + 1 < width + k; ++j) {
            ps += colSums[static_cast<size_t>(index[j])];
            pq += colSquares[static_cast<size_t>(index[j])];
            prefixSums[j + 1] = ps;
            prefixSquares[j + 1] = pq;
        }
        for (size_t x = 0; x < width; ++x) {
            sums[x] = prefixSums[x + k] - prefixSums[x];
            squares[x] = prefixSquares[x + k] - prefixSquares[x];
        }
        const T* xs = src + static_cast<size_t>(y) * width;
        T* out = dst + static_cast<size_t>(y) * width;
#if VELTRANO_HAS_AVX2_PATHS
        if (avx2) {
            ExactRowAvx2(xs, sums.data(), squares.data(), out, w, c);
            continue;
        }
#endif
        ExactRowScalar(xs, sums.data(), squares.data(), out, w, c);
    }
    return true;
}

// Scaled value of the quick form: the source times 1 / (2 radius + 1)^2 in single precision.
template <class T>
inline float QuickValue(T v, float scale) {
    return static_cast<float>(v) * scale;
}

// Population standard deviation of the scaled values: the mean in double, then the mean squared
// deviation, both summed in index order.
template <class T>
float QuickGlobalStd(const T* src, size_t count, float scale) {
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) sum += QuickValue(src[i], scale);
    const double mean = sum / static_cast<double>(count);
    double deviations = 0.0;
    for (size_t i = 0; i < count; ++i) {
        const double d = static_cast<double>(QuickValue(src[i], scale)) - mean;
        deviations += d * d;
    }
    return static_cast<float>(std::sqrt(deviations / static_cast<double>(count)));
}

// One result of the quick form from the scaled value and its local mean and mean square.
template <class T>
inline T QuickResult(float x, float m, float q, float globalStd, float alpha, float maxGain,
                     float back) {
    const float v = q - m * m;
    float r;
    if (v > 0.0f) {
        const float ratio = globalStd / std::sqrt(v);
        const float gain = alpha * std::min(ratio, maxGain);
        r = (x - m) * gain + m;
    } else {
        r = m;
    }
    r = r * back;
    if constexpr (std::is_floating_point_v<T>) {
        return r;
    } else {
        return StoreInRange<T>(r);
    }
}

template <class T>
void EnhanceQuick(const T* src, T* dst, int w, int h, int radius, float alpha, float maxGain) {
    const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
    const int64_t side = 2 * static_cast<int64_t>(radius) + 1;
    const int64_t area = side * side;
    const float scale = 1.0f / static_cast<float>(area);

    std::vector<float> x(count);
    std::vector<float> squares(count);
    for (size_t i = 0; i < count; ++i) {
        x[i] = QuickValue(src[i], scale);
        squares[i] = x[i] * x[i];
    }
    const float globalStd = QuickGlobalStd(src, count, scale);

    std::vector<float> m(count);
    std::vector<float> q(count);
    BoxMean(x.data(), m.data(), w, h, radius);
    BoxMean(squares.data(), q.data(), w, h, radius);

    const float back = static_cast<float>(area);
    for (size_t i = 0; i < count; ++i)
        dst[i] = QuickResult<T>(x[i], m[i], q[i], globalStd, alpha, maxGain, back);
}

// The quick form without frame-sized scratch. Its window sums are float running sums, whose
// order of additions decides the result, so they are formed exactly as BoxMean forms them: each
// row's running sum along the mirrored row (first window summed left to right, then the entering
// element added and the leaving one taken away), then one running sum per column down the
// mirrored rows, started from the top row of the first window. Only the rows of row sums that
// the column sums still need are kept: a ring of 2r + 2 rows (or all rows of a shorter image),
// indexed by source row. The rows a window needs, mirrored or not, lie in the band
// y - r - 1 .. y + r, whose rows fall in distinct slots, so each source row's sums are formed
// once, from the source as it was, before the output row of the same index is written: in
// place works without a copy of the frame. Returns false, having written nothing, when the
// scratch cannot be allocated.
template <class T>
bool EnhanceQuickRows(const T* src, T* dst, int w, int h, int radius, float alpha, float maxGain) {
    const size_t width = static_cast<size_t>(w);
    const size_t count = width * static_cast<size_t>(h);
    const int64_t side = 2 * static_cast<int64_t>(radius) + 1;
    const int64_t area = side * side;
    const float scale = 1.0f / static_cast<float>(area);
    const int r = radius < 1 ? 1 : radius;
    const size_t k = 2 * static_cast<size_t>(r) + 1;
    const size_t slots = std::min(static_cast<size_t>(h), k + 1);

    std::vector<float> ringSums;
    std::vector<float> ringSquares;
    std::vector<int> slotRow(slots, -1);
    std::vector<float> ext;
    std::vector<float> extSquares;
    std::vector<float> colSums;
    std::vector<float> colSquares;
    std::vector<int32_t> index;
    if (!TryResize(ringSums, slots * width) || !TryResize(ringSquares, slots * width) ||
        !TryResize(ext, width + k - 1) || !TryResize(extSquares, width + k - 1) ||
        !TryResize(colSums, width) || !TryResize(colSquares, width) ||
        !TryResize(index, width + k - 1))
        return false;
    for (size_t j = 0; j < index.size(); ++j)
        index[j] = static_cast<int32_t>(MirrorIndex(static_cast<ptrdiff_t>(j) - r, w));

    const float globalStd = QuickGlobalStd(src, count, scale);

    // Row sums of the values and of their squares for row position y (mirrored into the image).
    struct RowSums {
        const float* sums;
        const float* squares;
    };
    auto rowSums = [&](ptrdiff_t y) -> RowSums {
        const int sourceRow = static_cast<int>(MirrorIndex(y, h));
        const size_t slot = static_cast<size_t>(sourceRow) % slots;
        float* sums = ringSums.data() + slot * width;
        float* squares = ringSquares.data() + slot * width;
        if (slotRow[slot] != sourceRow) {
            slotRow[slot] = sourceRow;
            const T* in = src + static_cast<size_t>(sourceRow) * width;
            for (size_t j = 0; j < ext.size(); ++j) {
                const float v = QuickValue(in[index[j]], scale);
                ext[j] = v;
                extSquares[j] = v * v;
            }
            float s = ext[0];
            float sq = extSquares[0];
            for (size_t j = 1; j < k; ++j) {
                s = s + ext[j];
                sq = sq + extSquares[j];
            }
            sums[0] = s;
            squares[0] = sq;
            for (size_t x = 1; x < width; ++x) {
                s = s + ext[x + k - 1];
                s = s - ext[x - 1];
                sums[x] = s;
                sq = sq + extSquares[x + k - 1];
                sq = sq - extSquares[x - 1];
                squares[x] = sq;
            }
        }
        return {sums, squares};
    };

    const float inv = 1.0f / static_cast<float>(static_cast<int>(k) * static_cast<int>(k));
    const float back = static_cast<float>(area);
    const RowSums top = rowSums(-r);
    std::memcpy(colSums.data(), top.sums, width * sizeof(float));
    std::memcpy(colSquares.data(), top.squares, width * sizeof(float));
    for (ptrdiff_t i = -r + 1; i <= r; ++i) {
        const RowSums add = rowSums(i);
        for (size_t x = 0; x < width; ++x) {
            colSums[x] = colSums[x] + add.sums[x];
            colSquares[x] = colSquares[x] + add.squares[x];
        }
    }
    for (int y = 0; y < h; ++y) {
        if (y > 0) {
            // The leaving row first: both lie in the band, so neither fetch evicts the other.
            const RowSums sub = rowSums(static_cast<ptrdiff_t>(y) - 1 - r);
            const RowSums add = rowSums(static_cast<ptrdiff_t>(y) + r);
            for (size_t x = 0; x < width; ++x) {
                colSums[x] = colSums[x] + add.sums[x];
                colSums[x] = colSums[x] - sub.sums[x];
                colSquares[x] = colSquares[x] + add.squares[x];
                colSquares[x] = colSquares[x] - sub.squares[x];
            }
        }
        const T* in = src + static_cast<size_t>(y) * width;
        T* out = dst + static_cast<size_t>(y) * width;
        for (size_t x = 0; x < width; ++x) {
            const float m = colSums[x] * inv;
            const float q = colSquares[x] * inv;
            out[x] =
                QuickResult<T>(QuickValue(in[x], scale), m, q, globalStd, alpha, maxGain, back);
        }
    }
    return true;
}

template <class T>
struct ExactWorker {
    static void Run(const T* s, T* d, int w, int h, int r, float a, float g) {
        if (ActiveImpl() != Impl::Reference && EnhanceExactIntegerSums(s, d, w, h, r, a, g)) return;
        EnhanceExact(s, d, w, h, r, a, g);
    }
};

template <class T>
struct QuickWorker {
    static void Run(const T* s, T* d, int w, int h, int r, float a, float g) {
        if (ActiveImpl() != Impl::Reference && EnhanceQuickRows(s, d, w, h, r, a, g)) return;
        EnhanceQuick(s, d, w, h, r, a, g);
    }
};

// The quick form also squares (2 radius + 1) in 64 bits, so both ends of the radius are capped.
bool RadiusAllowed(int32_t radius) {
    return radius >= -kMaxWindowRadius && radius <= kMaxWindowRadius;
}

template <template <class> class Worker, bool kServesFloat>
int Enhance(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height, int32_t code,
            int32_t radius, float alpha, float maxGain) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (!RadiusAllowed(radius)) return -4;
    int w = 0;
    int h = 0;
    if (!ImageSize(width, height, w, h)) return 1;
    // Refused before anything is allocated: the working buffers are several frames of doubles.
    if (static_cast<uint64_t>(width) * height > kMaxElements) return -4;
    // A code that is not served writes nothing and still returns 1.
    const auto run = [&](auto tag) {
        using T = typename decltype(tag)::type;
        Worker<T>::Run(reinterpret_cast<T*>(src), reinterpret_cast<T*>(dst), w, h,
                       static_cast<int>(radius), alpha, maxGain);
        return 1;
    };
    if constexpr (kServesFloat) {
        return DispatchPixelType<Pix16U, Pix8U, Pix16S, Pix32F>(code, 1, run);
    } else {
        return DispatchPixelType<Pix16U, Pix8U, Pix16S>(code, 1, run);
    }
}

}  // namespace
}  // namespace veltrano

int AdaptiveContrastEnhancement(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                                int32_t pixelType, int32_t radius, float alpha, float maxGain) {
    return veltrano::Enhance<veltrano::ExactWorker, false>(src, dst, width, height, pixelType,
                                                           radius, alpha, maxGain);
}

int AdaptiveContrastEnhancementQuick(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                                     int32_t pixelType, int32_t radius, float alpha,
                                     float maxGain) {
    return veltrano::Enhance<veltrano::QuickWorker, true>(src, dst, width, height, pixelType,
                                                          radius, alpha, maxGain);
}

int Ace_Gamma(uint16_t* src, void* dst, int32_t width, uint32_t height, int32_t pixelType,
              struAceGammaParam* param, const char* iniPath) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (param == nullptr) return -4;
    if (iniPath != nullptr && iniPath[0] != '\0')
        *param = struAceGammaParam(iniPath, param->sectionIndex);
    if (!veltrano::RadiusAllowed(param->param1)) return -4;
    if (width < 1 || height == 0) return 1;
    const uint64_t count = static_cast<uint64_t>(width) * height;
    if (count > veltrano::kMaxElements) return -4;
    // Neither the enhancement, nor the gamma step, nor the equalisation serves any other code, so
    // such a call changes nothing. (Taken literally, an in-place call would copy a work buffer of
    // width * height * 8 bytes back over the caller's image, far past a buffer sized for the
    // code; it returns 1 and leaves the image as it was instead.)
    using namespace veltrano;
    if (!ServesPixelType<Pix8U, Pix16U, Pix16S, Pix32F>(pixelType)) return 1;

    const size_t bytes = static_cast<size_t>(count) * static_cast<size_t>(PixelTypeSize(pixelType));
    // In place the work buffer starts as a copy of the image, so that the steps see what an
    // out-of-place call sees in its destination.
    std::vector<unsigned char> scratch;
    void* work = dst;
    if (dst == src) {
        try {
            scratch.assign(reinterpret_cast<const unsigned char*>(src),
                           reinterpret_cast<const unsigned char*>(src) + bytes);
        } catch (const std::bad_alloc&) {
            return -4;
        }
        work = scratch.data();
    }
    uint16_t* work16 = static_cast<uint16_t*>(work);
    const uint32_t w = static_cast<uint32_t>(width);

    if (param->param5 != 0) {
        AdaptiveContrastEnhancement(src, work16, w, height, pixelType, param->param1, param->param2,
                                    param->param3);
    } else {
        AdaptiveContrastEnhancementQuick(src, work16, w, height, pixelType, param->param1,
                                         param->param2, param->param3);
    }
    if (param->param4 != 1.0f) GammaCorrect(work, work, w, height, param->param4, pixelType);
    if (param->param6 == 1 && ServesPixelType<Pix16U, Pix8U>(pixelType))
        EquHist(src, work16, static_cast<int32_t>(count), pixelType);

    if (dst == src) std::memcpy(src, scratch.data(), bytes);
    return 1;
}

int WLN(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height, struWLNParam* param) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (param == nullptr) return -4;
    uint16_t low = static_cast<uint16_t>(param->wl);
    uint16_t high = static_cast<uint16_t>(param->wr);
    if (high < low) std::swap(low, high);
    // The pixel count in 32 bits, as normalize_16U forms it.
    const uint32_t count = width * height;
    for (uint32_t i = 0; i < count; ++i) dst[i] = std::min(std::max(src[i], low), high);

    uint16_t outLow = static_cast<uint16_t>(param->specifymin);
    uint16_t outHigh = static_cast<uint16_t>(param->specifymax);
    if (outHigh < outLow) std::swap(outLow, outHigh);
    normalize_16U(dst, dst, width, height, outLow, outHigh);
    return 1;
}
