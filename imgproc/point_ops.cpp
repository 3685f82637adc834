// Point operations: every output pixel from the source pixel at the same index.
//
// Where every pixel value maps through the same arithmetic, the fast paths compute that
// arithmetic once per value into a table (or run it in vector registers) and give the very same
// pixels; the plain loops stay beside them as the reference.
#include "veltrano/point_ops.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/frame_passes.h"
#include "imgproc/pixel_dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"
#include "imgproc/vector_math.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

// ---- gamma ----------------------------------------------------------------------------------

// The curve of an integer element type: b = value / high in single precision, the power in
// double rounded to single, scaled back with the range's own (double) bound plus the rounding
// offset, clamped and truncated.
template <class T>
struct GammaCurve {
    double low = 0.0;
    double high = 0.0;
    float fHigh = 0.0f;
    float gamma = 1.0f;

    explicit GammaCurve(float g) : gamma(g) {
        int isFloat = 0;
        PixelValueRange<T>(low, high, isFloat);
        fHigh = static_cast<float>(high);
    }
    float base(T value) const { return static_cast<float>(value) / fHigh; }
    T finish(float p) const {
        double v = static_cast<double>(p) * high + static_cast<double>(RoundingOffset<T>());
        if (v > high) v = high;
        if (v < low) v = low;
        return StoreClamped<T>(v);
    }
    T operator()(T value) const {
        return finish(static_cast<float>(
            std::pow(static_cast<double>(base(value)), static_cast<double>(gamma))));
    }
};

#if VELTRANO_HAS_AVX2_PATHS
// Eight 32-bit integers, each within the range of T, stored as T.
template <class T>
VELTRANO_TARGET_AVX2 inline void StoreEight(T* p, __m256i v) {
    const __m128i lo = _mm256_castsi256_si128(v);
    const __m128i hi = _mm256_extracti128_si256(v, 1);
    if constexpr (std::is_same_v<T, uint16_t>) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_packus_epi32(lo, hi));
    } else if constexpr (std::is_same_v<T, int16_t>) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_packs_epi32(lo, hi));
    } else {
        const __m128i words = _mm_packus_epi32(lo, hi);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
    }
}

// Table entries for the values first .. first + n - 1 with the vector power: b^gamma as
// exp(gamma log b) in double, which is within a few units of the last double place of the C
// library's pow and so rounds to the same single-precision power except within about 2^-50
// (relative) of a rounding boundary. Every step runs in vector registers: the base is the same
// single-precision quotient, the power is rounded to single precision and scaled back in double,
// clamped (the value is finite there, so min then max is the clamp) and truncated, as in
// GammaCurve. A group of eight entries with a base that is not positive, or an exponent product
// outside the served range of the exponential, goes to the C library entry by entry.
//
// The logarithms of a block are taken in one loop and the exponentials in a second: each
// evaluation is a long chain of dependent steps, and short loop bodies without branches or
// transfers to integer registers let the processor overlap many of them. A lane the vector
// power does not serve carries a not-a-number product and then the integer kNotServed, which
// no entry can equal.
template <class T>
VELTRANO_TARGET_AVX2 void GammaTableAvx2(const GammaCurve<T>& curve, int first, size_t n,
                                         T* table) {
    constexpr size_t kBlock = 256;
    constexpr int32_t kNotServed = INT32_MIN;
    const __m256d g = _mm256_set1_pd(static_cast<double>(curve.gamma));
    const __m256 fHigh = _mm256_set1_ps(curve.fHigh);
    const __m256d high = _mm256_set1_pd(curve.high);
    const __m256d low = _mm256_set1_pd(curve.low);
    const __m256d offset = _mm256_set1_pd(static_cast<double>(RoundingOffset<T>()));
    const __m256d minExp = _mm256_set1_pd(-700.0);
    const __m256d maxExp = _mm256_set1_pd(700.0);
    const __m256d nan = _mm256_set1_pd(std::numeric_limits<double>::quiet_NaN());
    const __m256d notServed = _mm256_set1_pd(static_cast<double>(kNotServed));
    const __m256i steps = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    alignas(32) double e[kBlock];
    alignas(32) int32_t out[kBlock];
    size_t start = 0;
    while (start + 8 <= n) {
        const size_t m = std::min(kBlock, (n - start) / 8 * 8);
        for (size_t k = 0; k < m; k += 8) {
            const __m256i values =
                _mm256_add_epi32(_mm256_set1_epi32(first + static_cast<int>(start + k)), steps);
            const __m256 b = _mm256_div_ps(_mm256_cvtepi32_ps(values), fHigh);
            const __m256 positive = _mm256_cmp_ps(b, _mm256_setzero_ps(), _CMP_GT_OQ);
            const __m256 safe = _mm256_blendv_ps(_mm256_set1_ps(1.0f), b, positive);
            for (int half = 0; half < 2; ++half) {
                const __m128 bh =
                    half == 0 ? _mm256_castps256_ps128(safe) : _mm256_extractf128_ps(safe, 1);
                const __m128i ph = _mm_castps_si128(half == 0 ? _mm256_castps256_ps128(positive)
                                                              : _mm256_extractf128_ps(positive, 1));
                const __m256d eh = _mm256_mul_pd(g, LogPd(_mm256_cvtps_pd(bh)));
                const __m256d served =
                    _mm256_and_pd(_mm256_castsi256_pd(_mm256_cvtepi32_epi64(ph)),
                                  _mm256_and_pd(_mm256_cmp_pd(eh, minExp, _CMP_GE_OQ),
                                                _mm256_cmp_pd(eh, maxExp, _CMP_LE_OQ)));
                _mm256_store_pd(e + k + 4 * half, _mm256_blendv_pd(nan, eh, served));
            }
        }
        for (size_t k = 0; k < m; k += 4) {
            const __m256d eh = _mm256_load_pd(e + k);
            const __m256d served = _mm256_cmp_pd(eh, eh, _CMP_ORD_Q);
            const __m256d p = _mm256_cvtps_pd(_mm256_cvtpd_ps(ExpPd(_mm256_and_pd(eh, served))));
            const __m256d v = _mm256_add_pd(_mm256_mul_pd(p, high), offset);
            const __m256d clamped = _mm256_max_pd(_mm256_min_pd(v, high), low);
            _mm_store_si128(reinterpret_cast<__m128i*>(out + k),
                            _mm256_cvttpd_epi32(_mm256_blendv_pd(notServed, clamped, served)));
        }
        for (size_t k = 0; k < m; k += 8) {
            const __m256i r = _mm256_load_si256(reinterpret_cast<const __m256i*>(out + k));
            const __m256i missing = _mm256_cmpeq_epi32(r, _mm256_set1_epi32(kNotServed));
            if (_mm256_testz_si256(missing, missing)) {
                StoreEight(table + start + k, r);
            } else {
                for (size_t j = k; j < k + 8; ++j)
                    table[start + j] = curve(static_cast<T>(first + static_cast<int>(start + j)));
            }
        }
        start += m;
    }
    for (; start < n; ++start)
        table[start] = curve(static_cast<T>(first + static_cast<int>(start)));
}
#endif

template <class T>
int GammaInteger(const T* src, T* dst, uint64_t count, float gamma) {
    const GammaCurve<T> curve(gamma);
    constexpr size_t values = size_t(1) << (8 * sizeof(T));
    const Impl impl = ActiveImpl();
    if (impl == Impl::Reference) {
        // Each output depends only on the pixel's value, so a frame larger than the type's value
        // count is mapped through a table built with the very same arithmetic.
        if (count > values) {
            const int64_t first = static_cast<int64_t>(curve.low);
            std::vector<T> table(values);
            for (size_t k = 0; k < values; ++k)
                table[k] = curve(static_cast<T>(first + static_cast<int64_t>(k)));
            for (uint64_t i = 0; i < count; ++i)
                dst[i] = table[static_cast<size_t>(src[i] - first)];
        } else {
            for (uint64_t i = 0; i < count; ++i) dst[i] = curve(src[i]);
        }
        return 1;
    }
    if (count == 0) return 1;
    bool vectorTable = false;
#if VELTRANO_HAS_AVX2_PATHS
    // The vector power serves finite, non-zero exponents; the C library keeps the rest.
    vectorTable = impl == Impl::Avx2 && std::isfinite(gamma) && gamma != 0.0f;
#endif
    // The frame goes in chunks that stay in the cache: the values of a chunk are found first and
    // the table grows (in blocks of 64 entries) to cover them, then the chunk is mapped. So the
    // table holds only the values that occur, without a pass over the whole frame to find them.
    // Entry e of the table is the value low + e.
    constexpr size_t kChunk = 16384;
    constexpr size_t kBlock = 64;
    const int low = static_cast<int>(curve.low);
    std::vector<T> table(values);
    size_t filledFrom = values;
    size_t filledTo = values;
    auto fill = [&](size_t from, size_t to) {
        T* entries = table.data() + from;
        const int first = low + static_cast<int>(from);
        if (vectorTable) {
#if VELTRANO_HAS_AVX2_PATHS
            GammaTableAvx2(curve, first, to - from, entries);
#endif
        } else {
            for (size_t k = 0; k < to - from; ++k)
                entries[k] = curve(static_cast<T>(first + static_cast<int>(k)));
        }
    };
    // The extremes of each chunk after the first are found while the chunk before it is mapped.
    T mn = src[0];
    T mx = src[0];
    FrameMinMax(src, std::min<size_t>(kChunk, static_cast<size_t>(count)), mn, mx);
    for (size_t start = 0; start < count; start += kChunk) {
        const size_t n = std::min<size_t>(kChunk, static_cast<size_t>(count) - start);
        const size_t from = static_cast<size_t>(static_cast<int>(mn) - low) / kBlock * kBlock;
        const size_t to = std::min(
            values, (static_cast<size_t>(static_cast<int>(mx) - low) / kBlock + 1) * kBlock);
        if (filledFrom == filledTo) {
            // Without the vector power a small image is cheaper pixel by pixel than its table.
            if (!vectorTable && to - from > static_cast<size_t>(count)) {
                for (uint64_t i = 0; i < count; ++i) dst[i] = curve(src[i]);
                return 1;
            }
            fill(from, to);
            filledFrom = from;
            filledTo = to;
        } else {
            if (from < filledFrom) fill(from, filledFrom);
            if (to > filledTo) fill(filledTo, to);
            filledFrom = std::min(filledFrom, from);
            filledTo = std::max(filledTo, to);
        }
        const size_t nextStart = start + n;
        if (nextStart < count) {
            const size_t nextCount =
                std::min<size_t>(kChunk, static_cast<size_t>(count) - nextStart);
            MapThroughTableScanning(src + start, dst + start, n, table.data(), src + nextStart,
                                    nextCount, mn, mx);
        } else {
            MapThroughTable(src + start, dst + start, n, table.data());
        }
    }
    return 1;
}

// A float image maps its own min..max through the curve; pow runs in double and is rounded to
// single precision, as the rest of the pixel arithmetic.
int GammaFloat(const float* src, float* dst, uint64_t count, float gamma) {
    if (count == 0) return 1;
    float mn = src[0];
    float mx = src[0];
    if (ActiveImpl() == Impl::Reference) {
        FindMinMax(src, static_cast<size_t>(count), mn, mx);
    } else {
        FrameMinMax(src, static_cast<size_t>(count), mn, mx);
    }
    const float span = mx - mn;
    if (span == 0.0f) {
        // A constant image has no span to map over; 0/0 would turn it into NaN.
        for (uint64_t i = 0; i < count; ++i) dst[i] = src[i];
        return 1;
    }
    for (uint64_t i = 0; i < count; ++i) {
        const double b =
            (static_cast<double>(src[i]) - static_cast<double>(mn)) / static_cast<double>(span);
        const float p = static_cast<float>(std::pow(b, static_cast<double>(gamma)));
        float v = p * span + mn;
        if (v > mx) v = mx;
        if (v < mn) v = mn;
        dst[i] = v;
    }
    return 1;
}

// ---- brightness and contrast ----------------------------------------------------------------

struct LinearMap {
    float brightness;
    float contrast;
    uint16_t operator()(uint16_t s) const {
        float v = static_cast<float>(s) * contrast + brightness;
        if (v > 65535.0f) v = 65535.0f;
        if (v < 0.0f) v = 0.0f;
        return StoreClamped<uint16_t>(v);
    }
};

#if VELTRANO_HAS_AVX2_PATHS
// Eight pixels as 32-bit lanes: the same multiply and add in single precision, capped at 65535
// and truncated. Below zero the truncation gives 0 or a negative integer, which the unsigned
// saturation of the pack turns into 0, as the plain clamp does. Finite factors only: a
// not-a-number result needs the plain code's rule.
VELTRANO_TARGET_AVX2 inline __m256i LinearLanes(__m256i v, __m256 c, __m256 b, __m256 top) {
    const __m256 x = _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(v), c), b);
    return _mm256_cvttps_epi32(_mm256_min_ps(x, top));
}

// The words are widened within each 128-bit half (unpack with zero) and packed back the same
// way, which keeps them in order without a permute.
VELTRANO_TARGET_AVX2 void LinearAvx2(const uint16_t* src, uint16_t* dst, size_t count,
                                     const LinearMap& map) {
    const __m256 c = _mm256_set1_ps(map.contrast);
    const __m256 b = _mm256_set1_ps(map.brightness);
    const __m256 top = _mm256_set1_ps(65535.0f);
    const __m256i zero = _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        const __m256i v1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i + 16));
        const __m256i a0 = LinearLanes(_mm256_unpacklo_epi16(v0, zero), c, b, top);
        const __m256i b0 = LinearLanes(_mm256_unpackhi_epi16(v0, zero), c, b, top);
        const __m256i a1 = LinearLanes(_mm256_unpacklo_epi16(v1, zero), c, b, top);
        const __m256i b1 = LinearLanes(_mm256_unpackhi_epi16(v1, zero), c, b, top);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), _mm256_packus_epi32(a0, b0));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i + 16), _mm256_packus_epi32(a1, b1));
    }
    for (; i < count; ++i) dst[i] = map(src[i]);
}
#endif

// ---- threshold ------------------------------------------------------------------------------

// For an integer pixel s, s > threshold exactly when s > floor(threshold). The cut is that
// floor limited to -1 .. high: -1 when every pixel is above (threshold below 0), high when none
// is (threshold at or above high, or not a number, which compares false).
template <class T>
int ThresholdCut(double threshold, int high) {
    if (!(threshold < static_cast<double>(high))) return high;
    if (threshold < 0.0) return -1;
    return static_cast<int>(std::floor(threshold));
}

template <class T>
void ThresholdReference(const T* src, T* dst, uint64_t count, double threshold, uint32_t mode) {
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const T top = static_cast<T>(high);
    for (uint64_t i = 0; i < count; ++i) {
        const T v = src[i];
        const bool above = static_cast<double>(v) > threshold;
        switch (mode) {
        case 0:
            dst[i] = above ? top : T(0);
            break;
        case 1:
            dst[i] = above ? T(0) : top;
            break;
        case 2:
            dst[i] = above ? v : T(0);
            break;
        default:
            dst[i] = above ? T(0) : v;
            break;
        }
    }
}

// The four modes as masks: with m all ones where the pixel is above the cut, mode 0 writes m
// (high is all ones in the element), 1 its complement, 2 the pixel where m, 3 where not m.
template <class T>
T ThresholdSelect(T v, T m, uint32_t mode) {
    switch (mode) {
    case 0:
        return m;
    case 1:
        return static_cast<T>(~m);
    case 2:
        return static_cast<T>(v & m);
    default:
        return static_cast<T>(v & static_cast<T>(~m));
    }
}

template <class T>
void ThresholdScalar(const T* src, T* dst, size_t count, int cut, uint32_t mode) {
    for (size_t i = 0; i < count; ++i) {
        const T v = src[i];
        const T m = static_cast<int>(v) > cut ? static_cast<T>(~T(0)) : T(0);
        dst[i] = ThresholdSelect(v, m, mode);
    }
}

#if VELTRANO_HAS_AVX2_PATHS
VELTRANO_TARGET_AVX2 inline __m256i SelectLanes(__m256i v, __m256i m, uint32_t mode) {
    switch (mode) {
    case 0:
        return m;
    case 1:
        return _mm256_xor_si256(m, _mm256_set1_epi32(-1));
    case 2:
        return _mm256_and_si256(v, m);
    default:
        return _mm256_andnot_si256(m, v);
    }
}

// Unsigned comparison through the signed one: both sides biased by the sign bit.
template <class T>
VELTRANO_TARGET_AVX2 void ThresholdAvx2(const T* src, T* dst, size_t count, int cut,
                                        uint32_t mode) {
    constexpr bool kWords = sizeof(T) == 2;
    const int high = kWords ? 65535 : 255;
    const __m256i bias = kWords ? _mm256_set1_epi16(static_cast<short>(0x8000))
                                : _mm256_set1_epi8(static_cast<char>(0x80));
    const __m256i cutBiased =
        kWords ? _mm256_set1_epi16(static_cast<short>((cut < 0 ? 0 : cut) ^ 0x8000))
               : _mm256_set1_epi8(static_cast<char>((cut < 0 ? 0 : cut) ^ 0x80));
    const __m256i all = _mm256_set1_epi32(-1);
    const __m256i none = _mm256_setzero_si256();
    constexpr size_t kLanes = 32 / sizeof(T);
    size_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        __m256i m;
        if (cut < 0) {
            m = all;
        } else if (cut >= high) {
            m = none;
        } else if constexpr (kWords) {
            m = _mm256_cmpgt_epi16(_mm256_xor_si256(v, bias), cutBiased);
        } else {
            m = _mm256_cmpgt_epi8(_mm256_xor_si256(v, bias), cutBiased);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), SelectLanes(v, m, mode));
    }
    ThresholdScalar(src + i, dst + i, count - i, cut, mode);
}
#endif

template <class T>
void ThresholdWorker(const T* src, T* dst, uint64_t count, double threshold, uint32_t mode) {
    const Impl impl = ActiveImpl();
    if (impl == Impl::Reference) {
        ThresholdReference(src, dst, count, threshold, mode);
        return;
    }
    const int cut = ThresholdCut<T>(threshold, sizeof(T) == 2 ? 65535 : 255);
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        ThresholdAvx2(src, dst, static_cast<size_t>(count), cut, mode);
        return;
    }
#endif
    ThresholdScalar(src, dst, static_cast<size_t>(count), cut, mode);
}

// ---- logarithm ------------------------------------------------------------------------------

// The floor of 20 keeps the logarithm of dark or empty pixels finite.
inline float LogFloored(float s) {
    const double x = static_cast<double>(s);
    return static_cast<float>(std::log(x < 20.0 ? 20.0 : x));
}

// Sensor images hold whole numbers: a pixel that is an integer in 0..65535 takes its logarithm
// from a table of those values, filled on first use with the same C library call; any other
// pixel calls the library itself.
void LogScalar(const float* src, float* dst, size_t count, bool negate) {
    std::vector<float> table;
    if (count > 4096 && TryResize(table, 65536)) std::fill(table.begin(), table.end(), -1.0f);
    for (size_t i = 0; i < count; ++i) {
        const float s = src[i];
        float v;
        if (!table.empty() && s >= 0.0f && s <= 65535.0f &&
            static_cast<float>(static_cast<int32_t>(s)) == s) {
            float& entry = table[static_cast<size_t>(s)];
            if (entry < 0.0f) entry = LogFloored(s);
            v = entry;
        } else {
            v = LogFloored(s);
        }
        dst[i] = negate ? -v : v;
    }
}

#if VELTRANO_HAS_AVX2_PATHS
// Eight pixels through the vector logarithm; lanes that are not finite go to the C library.
VELTRANO_TARGET_AVX2 inline __m256 LogLanes(__m256 s) {
    const __m256 x = _mm256_max_ps(_mm256_set1_ps(20.0f), s);  // s < 20 ? 20 : s, NaN kept
    const __m256d lo = LogPd(_mm256_cvtps_pd(_mm256_castps256_ps128(x)));
    const __m256d hi = LogPd(_mm256_cvtps_pd(_mm256_extractf128_ps(x, 1)));
    __m256 r = _mm256_set_m128(_mm256_cvtpd_ps(hi), _mm256_cvtpd_ps(lo));
    const __m256 finite =
        _mm256_cmp_ps(_mm256_andnot_ps(_mm256_set1_ps(-0.0f), x),
                      _mm256_set1_ps(std::numeric_limits<float>::max()), _CMP_LE_OQ);
    const int lanes = _mm256_movemask_ps(finite);
    if (lanes != 0xff) {
        alignas(32) float in[8];
        alignas(32) float out[8];
        _mm256_store_ps(in, s);
        _mm256_store_ps(out, r);
        for (int k = 0; k < 8; ++k)
            if (!((lanes >> k) & 1)) out[k] = LogFloored(in[k]);
        r = _mm256_load_ps(out);
    }
    return r;
}

// Whole numbers 0..65535 read a table of their logarithms built with the vector logarithm
// (cheaper than the pass when the image is larger than the table); other pixels are computed.
VELTRANO_TARGET_AVX2 void LogAvx2(const float* src, float* dst, size_t count, bool negate) {
    const __m256 sign = negate ? _mm256_set1_ps(-0.0f) : _mm256_setzero_ps();
    std::vector<float> table;
    const bool useTable = count >= 4 * 65536 && TryResize(table, 65536);
    if (useTable) {
        for (int k = 0; k < 65536; k += 8) {
            const __m256 v = _mm256_cvtepi32_ps(
                _mm256_add_epi32(_mm256_set1_epi32(k), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)));
            _mm256_storeu_ps(table.data() + k, LogLanes(v));
        }
    }
    const __m256i topIndex = _mm256_set1_epi32(65535);
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 s = _mm256_loadu_ps(src + i);
        __m256 r;
        if (useTable) {
            const __m256i idx = _mm256_cvttps_epi32(s);
            // Whole numbers in range: converting back gives the pixel, and the index lies in
            // 0..65535 (a failed conversion gives a negative index).
            const __m256 whole = _mm256_cmp_ps(_mm256_cvtepi32_ps(idx), s, _CMP_EQ_OQ);
            const __m256i inside = _mm256_andnot_si256(
                _mm256_cmpgt_epi32(idx, topIndex), _mm256_cmpgt_epi32(idx, _mm256_set1_epi32(-1)));
            const __m256 take = _mm256_and_ps(whole, _mm256_castsi256_ps(inside));
            if (_mm256_movemask_ps(take) == 0xff) {
                r = _mm256_i32gather_ps(table.data(), idx, 4);
            } else {
                r = LogLanes(s);
            }
        } else {
            r = LogLanes(s);
        }
        _mm256_storeu_ps(dst + i, _mm256_xor_ps(r, sign));
    }
    for (; i < count; ++i) {
        const float v = LogFloored(src[i]);
        dst[i] = negate ? -v : v;
    }
}
#endif

// ---- gain map -------------------------------------------------------------------------------

void GainMapPlain(const float* src, float* dst, size_t count, float mean) {
    for (size_t i = 0; i < count; ++i) {
        const float v = src[i];
        dst[i] = mean / (v < 0.001f ? 0.001f : v);
    }
}

#if VELTRANO_HAS_AVX2_PATHS
VELTRANO_TARGET_AVX2 void GainMapAvx2(const float* src, float* dst, size_t count, float mean) {
    const __m256 m = _mm256_set1_ps(mean);
    const __m256 floor = _mm256_set1_ps(0.001f);
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 v = _mm256_loadu_ps(src + i);
        _mm256_storeu_ps(
            dst + i,
            _mm256_div_ps(m, _mm256_blendv_ps(v, floor, _mm256_cmp_ps(v, floor, _CMP_LT_OQ))));
    }
    GainMapPlain(src + i, dst + i, count - i, mean);
}
#endif

// ---- equalisation ---------------------------------------------------------------------------

// The value v is scaled by its own cumulative fraction (v * cdf(v)), not the top of the range:
// hosts depend on this mapping. The tables are complete before any pixel is written, so the
// function is correct in place without a copy of the source.
template <class T>
T EqualisedValue(size_t v, float cdf, float high) {
    float out = static_cast<float>(v) * cdf + 0.5f;
    if (out > high) out = high;
    if (out < 0.0f) out = 0.0f;
    return static_cast<T>(out);
}

template <class T>
int EquHistWorker(const T* src, T* dst, uint64_t count) {
    constexpr size_t bins = size_t(1) << (8 * sizeof(T));
    std::vector<uint32_t> hist(bins, 0);
    const float n = static_cast<float>(count);
    const float high = static_cast<float>(bins - 1);
    if (ActiveImpl() == Impl::Reference) {
        for (uint64_t i = 0; i < count; ++i) ++hist[src[i]];
        std::vector<float> cdf(bins);
        cdf[0] = static_cast<float>(hist[0]) / n;
        for (size_t k = 1; k < bins; ++k) cdf[k] = cdf[k - 1] + static_cast<float>(hist[k]) / n;
        for (uint64_t i = 0; i < count; ++i) {
            const T v = src[i];
            dst[i] = EqualisedValue<T>(v, cdf[v], high);
        }
        return 1;
    }
    // The same cumulative sums in the same order; an empty bin adds +0, which leaves a
    // non-negative sum as it is, so only the bins that occur need the division. The result of
    // every value then goes into a table.
    CountValues(src, static_cast<size_t>(count), hist.data());
    std::vector<T> table(bins);
    float cdf = static_cast<float>(hist[0]) / n;
    table[0] = EqualisedValue<T>(0, cdf, high);
    for (size_t k = 1; k < bins; ++k) {
        if (hist[k] != 0) cdf = cdf + static_cast<float>(hist[k]) / n;
        table[k] = EqualisedValue<T>(k, cdf, high);
    }
    MapThroughTable(src, dst, static_cast<size_t>(count), table.data());
    return 1;
}

template <class T>
void SquareWorker(const T* src, double* dst, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) {
        if constexpr (std::is_same_v<T, float>) {
            dst[i] = static_cast<double>(src[i] * src[i]);
        } else {
            dst[i] = std::pow(static_cast<double>(src[i]), 2.0);
        }
    }
}

}  // namespace
}  // namespace veltrano

using namespace veltrano;

int Inverse(uint16_t* src, uint16_t* dst, int32_t width, int32_t height, int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (pixelType == kPix16U) return -3;
    const uint64_t count = PixelCount(width, height);
    for (uint64_t i = 0; i < count; ++i) dst[i] = static_cast<uint16_t>(65535 - src[i]);
    return 1;
}

int BrigntAndContrast(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                      int32_t pixelType, float brightness, float contrast) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (pixelType != kPix16U) return -3;
    const size_t count = static_cast<size_t>(PixelCount(width, height));
    const LinearMap map{brightness, contrast};
    const Impl impl = ActiveImpl();
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2 && std::isfinite(brightness) && std::isfinite(contrast)) {
        LinearAvx2(src, dst, count, map);
        return 1;
    }
#endif
    if (impl == Impl::Scalar && count > 65536) {
        // Every value maps through the same arithmetic: a table of all 65536 results.
        std::vector<uint16_t> table(65536);
        for (size_t k = 0; k < table.size(); ++k) table[k] = map(static_cast<uint16_t>(k));
        MapThroughTable(src, dst, count, table.data());
        return 1;
    }
    for (size_t i = 0; i < count; ++i) dst[i] = map(src[i]);
    return 1;
}

int GammaCorrect(void* src, void* dst, uint32_t width, uint32_t height, float gamma,
                 int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    return DispatchPixelType<Pix8U, Pix16U, Pix16S, Pix32F>(pixelType, -3, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_floating_point_v<T>) {
            return GammaFloat(static_cast<const T*>(src), static_cast<T*>(dst), count, gamma);
        } else {
            return GammaInteger(static_cast<const T*>(src), static_cast<T*>(dst), count, gamma);
        }
    });
}

int Image_Log(float* src, float* dst, uint32_t width, uint32_t height, int32_t negate) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const size_t count = static_cast<size_t>(PixelCount(width, height));
    const Impl impl = ActiveImpl();
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        LogAvx2(src, dst, count, negate == 1);
        return 1;
    }
#endif
    if (impl == Impl::Scalar) {
        LogScalar(src, dst, count, negate == 1);
        return 1;
    }
    for (size_t i = 0; i < count; ++i) {
        const float v = LogFloored(src[i]);
        dst[i] = negate == 1 ? -v : v;
    }
    return 1;
}

int Image_Square_NoTrunc(void* src, double* dst, int32_t width, int32_t height, int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    return DispatchPixelType<Pix8U, Pix16U, Pix16S, Pix32F, Pix32S>(pixelType, -3, [&](auto tag) {
        SquareWorker(static_cast<const typename decltype(tag)::type*>(src), dst, count);
        return 1;
    });
}

int ThresholdBinary(uint16_t* src, uint16_t* dst, int32_t pixelType, uint32_t width,
                    uint32_t height, double threshold, uint32_t mode) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (mode > 3) return 1;
    const uint64_t count = PixelCount(width, height);
    // Other codes write nothing and return 1, as other modes do.
    return DispatchPixelType<Pix16U, Pix8U>(pixelType, 1, [&](auto tag) {
        using T = typename decltype(tag)::type;
        ThresholdWorker(reinterpret_cast<const T*>(src), reinterpret_cast<T*>(dst), count,
                        threshold, mode);
        return 1;
    });
}

// The floor of 0.001 keeps a dead pixel from dividing by zero.
int ImgGainCorrect(float* src, float* dst, uint32_t width, uint32_t height) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const size_t count = static_cast<size_t>(PixelCount(width, height));
    if (count == 0) return 1;
    const Impl impl = ActiveImpl();
    double sum = 0.0;
    if (impl == Impl::Reference) {
        for (size_t i = 0; i < count; ++i) sum += static_cast<double>(src[i]);
    } else {
        sum = SumInDouble(src, count);
    }
    const float mean = static_cast<float>(sum / static_cast<double>(static_cast<int64_t>(count)));
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        GainMapAvx2(src, dst, count, mean);
        return 1;
    }
#endif
    GainMapPlain(src, dst, count, mean);
    return 1;
}

int EquHist(uint16_t* src, uint16_t* dst, int32_t pixelCount, int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = pixelCount > 0 ? static_cast<uint64_t>(pixelCount) : 0;
    return DispatchPixelType<Pix16U, Pix8U>(pixelType, -3, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return EquHistWorker(reinterpret_cast<const T*>(src), reinterpret_cast<T*>(dst), count);
    });
}
