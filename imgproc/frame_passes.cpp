// Whole-frame passes: minimum/maximum, exact double sums, histograms and table mappings.
#include "imgproc/frame_passes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "imgproc/dispatch.h"
#include "imgproc/pixel_helpers.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>

#include "imgproc/vector_lanes.h"
#endif

namespace veltrano {
namespace {

// For floating elements the extreme found by value is replaced by the first element equal to
// it: only a zero has two representations that compare equal, so only then can the sign differ.
template <class T>
void FirstEqual(const T* src, size_t count, T& value) {
    if constexpr (std::is_floating_point_v<T>) {
        if (value != 0) return;
        for (size_t i = 0; i < count; ++i) {
            if (src[i] == 0) {
                value = src[i];
                return;
            }
        }
    } else {
        (void)src;
        (void)count;
        (void)value;
    }
}

// Plain code without the else of FindMinMax: two independent comparisons per element, which
// the compiler can keep in vector registers. For numbers the result is the same extreme value;
// for not-a-number elements every comparison is false, as in FindMinMax.
template <class T>
void MinMaxScalar(const T* src, size_t count, T& mn, T& mx) {
    T lo = src[0];
    T hi = src[0];
    for (size_t i = 1; i < count; ++i) {
        const T v = src[i];
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
    }
    mn = lo;
    mx = hi;
}

#if VELTRANO_HAS_AVX2_PATHS

VELTRANO_TARGET_AVX2 void MinMaxAvx2(const uint8_t* src, size_t count, uint8_t& mn, uint8_t& mx) {
    __m256i lo = _mm256_set1_epi8(static_cast<char>(src[0]));
    __m256i hi = lo;
    size_t i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        lo = _mm256_min_epu8(lo, v);
        hi = _mm256_max_epu8(hi, v);
    }
    // Folded in registers: with the lanes stored to arrays GCC kept both accumulators in memory
    // throughout the loop.
    __m128i l = _mm_min_epu8(_mm256_castsi256_si128(lo), _mm256_extracti128_si256(lo, 1));
    __m128i h = _mm_max_epu8(_mm256_castsi256_si128(hi), _mm256_extracti128_si256(hi, 1));
    l = _mm_min_epu8(l, _mm_srli_si128(l, 8));
    h = _mm_max_epu8(h, _mm_srli_si128(h, 8));
    l = _mm_min_epu8(l, _mm_srli_si128(l, 4));
    h = _mm_max_epu8(h, _mm_srli_si128(h, 4));
    l = _mm_min_epu8(l, _mm_srli_si128(l, 2));
    h = _mm_max_epu8(h, _mm_srli_si128(h, 2));
    l = _mm_min_epu8(l, _mm_srli_si128(l, 1));
    h = _mm_max_epu8(h, _mm_srli_si128(h, 1));
    uint8_t a = static_cast<uint8_t>(_mm_cvtsi128_si32(l));
    uint8_t b = static_cast<uint8_t>(_mm_cvtsi128_si32(h));
    for (; i < count; ++i) {
        a = src[i] < a ? src[i] : a;
        b = src[i] > b ? src[i] : b;
    }
    mn = a;
    mx = b;
}

// The lanes of a vector minimum and maximum, then the elements after the last whole vector,
// folded with the scalar comparisons (which pass over NaN as the vector min and max do).
template <class T, size_t kLanes>
inline void FoldMinMax(const T (&l)[kLanes], const T (&h)[kLanes], const T* rest, size_t restCount,
                       T& mn, T& mx) {
    T a = l[0];
    T b = h[0];
    for (size_t k = 1; k < kLanes; ++k) {
        a = l[k] < a ? l[k] : a;
        b = h[k] > b ? h[k] : b;
    }
    for (size_t k = 0; k < restCount; ++k) {
        a = rest[k] < a ? rest[k] : a;
        b = rest[k] > b ? rest[k] : b;
    }
    mn = a;
    mx = b;
}

// Signed and unsigned 16-bit share one loop: unsigned values are compared with a bias that
// maps them onto the signed order.
template <bool kUnsigned, class T>
VELTRANO_TARGET_AVX2 void MinMax16Avx2(const T* src, size_t count, T& mn, T& mx) {
    const __m256i bias = _mm256_set1_epi16(kUnsigned ? static_cast<short>(0x8000) : 0);
    __m256i lo = _mm256_xor_si256(_mm256_set1_epi16(static_cast<short>(src[0])), bias);
    __m256i hi = lo;
    size_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m256i v =
            _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i)), bias);
        lo = _mm256_min_epi16(lo, v);
        hi = _mm256_max_epi16(hi, v);
    }
    alignas(32) T l[16];
    alignas(32) T h[16];
    _mm256_store_si256(reinterpret_cast<__m256i*>(l), _mm256_xor_si256(lo, bias));
    _mm256_store_si256(reinterpret_cast<__m256i*>(h), _mm256_xor_si256(hi, bias));
    FoldMinMax(l, h, src + i, count - i, mn, mx);
}

// Min(v, acc) returns acc when v is not a number, so such elements are passed over exactly as
// the scalar comparisons pass over them. The first element is never NaN here.
template <class L>
VELTRANO_TARGET_AVX2 void MinMaxFloatAvx2(const typename L::T* src, size_t count, typename L::T& mn,
                                          typename L::T& mx) {
    auto lo = L::Set(src[0]);
    auto hi = lo;
    size_t i = 0;
    for (; i + L::kLanes <= count; i += L::kLanes) {
        const auto v = L::Load(src + i);
        lo = L::Min(v, lo);
        hi = L::Max(v, hi);
    }
    typename L::T l[L::kLanes];
    typename L::T h[L::kLanes];
    L::Store(l, lo);
    L::Store(h, hi);
    FoldMinMax(l, h, src + i, count - i, mn, mx);
}

void MinMaxAvx2(const float* src, size_t count, float& mn, float& mx) {
    MinMaxFloatAvx2<FloatLanes>(src, count, mn, mx);
}

void MinMaxAvx2(const double* src, size_t count, double& mn, double& mx) {
    MinMaxFloatAvx2<DoubleLanes>(src, count, mn, mx);
}

void MinMaxAvx2(const uint16_t* src, size_t count, uint16_t& mn, uint16_t& mx) {
    MinMax16Avx2<true>(src, count, mn, mx);
}

void MinMaxAvx2(const int16_t* src, size_t count, int16_t& mn, int16_t& mx) {
    MinMax16Avx2<false>(src, count, mn, mx);
}

// The sum of integers of magnitude at most 2^24, added as integers: each value is truncated to a
// 32-bit integer and must convert back to the very same float (so it was an integer; NaN, the
// infinities and values of 2^31 or more fail), and the smallest and largest integers seen must
// lie within +-2^24. Lanes of 32-bit sums take 64 steps of two values each (at most 2^31 - 1 in
// magnitude) before they are widened to 64 bits. Returns false (the caller then adds in index
// order) when a value fails. Integer additions and this check take fewer instructions than double
// additions and a rounding per value: the pass then runs about as fast as the frame can be read.
VELTRANO_TARGET_AVX2 bool ExactSumAvx2(const float* src, size_t count, double& sum) {
    constexpr size_t kStepsPerWidening = 64;
    __m256i lo = _mm256_setzero_si256();
    __m256i hi = _mm256_setzero_si256();
    __m256 bad = _mm256_setzero_ps();
    __m256i wide = _mm256_setzero_si256();
    size_t i = 0;
    while (i + 16 <= count) {
        const size_t end = std::min(count - 15, i + 16 * kStepsPerWidening);
        __m256i s0 = _mm256_setzero_si256();
        __m256i s1 = _mm256_setzero_si256();
        for (; i < end; i += 16) {
            const __m256 a = _mm256_loadu_ps(src + i);
            const __m256 b = _mm256_loadu_ps(src + i + 8);
            const __m256i ia = _mm256_cvttps_epi32(a);
            const __m256i ib = _mm256_cvttps_epi32(b);
            bad = _mm256_or_ps(bad, _mm256_cmp_ps(_mm256_cvtepi32_ps(ia), a, _CMP_NEQ_UQ));
            bad = _mm256_or_ps(bad, _mm256_cmp_ps(_mm256_cvtepi32_ps(ib), b, _CMP_NEQ_UQ));
            lo = _mm256_min_epi32(lo, _mm256_min_epi32(ia, ib));
            hi = _mm256_max_epi32(hi, _mm256_max_epi32(ia, ib));
            s0 = _mm256_add_epi32(s0, ia);
            s1 = _mm256_add_epi32(s1, ib);
        }
        wide = _mm256_add_epi64(wide, _mm256_cvtepi32_epi64(_mm256_castsi256_si128(s0)));
        wide = _mm256_add_epi64(wide, _mm256_cvtepi32_epi64(_mm256_extracti128_si256(s0, 1)));
        wide = _mm256_add_epi64(wide, _mm256_cvtepi32_epi64(_mm256_castsi256_si128(s1)));
        wide = _mm256_add_epi64(wide, _mm256_cvtepi32_epi64(_mm256_extracti128_si256(s1, 1)));
    }
    if (_mm256_movemask_ps(bad) != 0) return false;
    const __m256i limit = _mm256_set1_epi32(16777216);
    const __m256i negLimit = _mm256_set1_epi32(-16777216);
    const __m256i outside =
        _mm256_or_si256(_mm256_cmpgt_epi32(hi, limit), _mm256_cmpgt_epi32(negLimit, lo));
    if (!_mm256_testz_si256(outside, outside)) return false;
    alignas(32) int64_t lanes[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), wide);
    // At most 2^28 values of magnitude 2^24: the total fits in 53 bits, so the double is exact.
    double total = static_cast<double>((lanes[0] + lanes[1]) + (lanes[2] + lanes[3]));
    for (; i < count; ++i) {
        const float v = src[i];
        if (!(std::trunc(v) == v && std::fabs(v) <= 16777216.0f)) return false;
        total += static_cast<double>(v);
    }
    sum = total;
    return true;
}

#endif

bool ExactSumScalar(const float* src, size_t count, double& sum) {
    double s[4] = {0.0, 0.0, 0.0, 0.0};
    size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        for (int k = 0; k < 4; ++k) {
            const float v = src[i + k];
            if (!(std::trunc(v) == v && std::fabs(v) <= 16777216.0f)) return false;
            s[k] += static_cast<double>(v);
        }
    }
    double total = (s[0] + s[1]) + (s[2] + s[3]);
    for (; i < count; ++i) {
        const float v = src[i];
        if (!(std::trunc(v) == v && std::fabs(v) <= 16777216.0f)) return false;
        total += static_cast<double>(v);
    }
    sum = total;
    return true;
}

template <class T>
void MinMaxDispatch(const T* src, size_t count, T& mn, T& mx) {
    if constexpr (std::is_floating_point_v<T>) {
        // A not-a-number first element stays both results: every comparison with it is false.
        if (std::isnan(src[0])) {
            mn = mx = src[0];
            return;
        }
    }
    const Impl impl = ActiveImpl();
    if (impl == Impl::Reference) {
        FindMinMax(src, count, mn, mx);
        return;
    }
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        MinMaxAvx2(src, count, mn, mx);
    } else {
        MinMaxScalar(src, count, mn, mx);
    }
#else
    MinMaxScalar(src, count, mn, mx);
#endif
    FirstEqual(src, count, mn);
    FirstEqual(src, count, mx);
}

// Several partial histograms, so that runs of equal values do not wait on one counter.
template <class T, size_t kBins>
void CountValuesScalar(const T* src, size_t count, uint32_t* bins) {
    constexpr size_t kCopies = kBins <= 256 ? 4 : 1;
    if constexpr (kCopies == 1) {
        for (size_t i = 0; i < count; ++i) ++bins[src[i]];
    } else {
        uint32_t part[kCopies - 1][kBins] = {};
        size_t i = 0;
        for (; i + kCopies <= count; i += kCopies) {
            ++bins[src[i]];
            for (size_t k = 1; k < kCopies; ++k) ++part[k - 1][src[i + k]];
        }
        for (; i < count; ++i) ++bins[src[i]];
        for (size_t k = 0; k + 1 < kCopies; ++k)
            for (size_t b = 0; b < kBins; ++b) bins[b] += part[k][b];
    }
}

inline int32_t FloatBin(float v, FloatBinRule rule) {
    if (rule == FloatBinRule::InRangeOnly)
        return (v > -1.0f && v < 65536.0f) ? static_cast<int32_t>(v) : -1;
    if (!(v > 0.0f)) return 0;
    if (v >= 65535.0f) return 65535;
    return static_cast<int32_t>(v);
}

#if VELTRANO_HAS_AVX2_PATHS
// The bins of eight pixels at a time are computed in vector registers; the counting itself stays
// scalar. Pixels that the first rule leaves out are skipped by their lane's bit.
VELTRANO_TARGET_AVX2 void CountFloatBinsAvx2(const float* src, size_t count, FloatBinRule rule,
                                             int32_t* bins) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 top = _mm256_set1_ps(65535.0f);
    const __m256 lowOpen = _mm256_set1_ps(-1.0f);
    const __m256 highOpen = _mm256_set1_ps(65536.0f);
    alignas(32) int32_t idx[8];
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 v = _mm256_loadu_ps(src + i);
        if (rule == FloatBinRule::InRangeOnly) {
            const __m256 inside = _mm256_and_ps(_mm256_cmp_ps(v, lowOpen, _CMP_GT_OQ),
                                                _mm256_cmp_ps(v, highOpen, _CMP_LT_OQ));
            // Outside lanes are zeroed before the conversion so that it stays defined.
            _mm256_store_si256(reinterpret_cast<__m256i*>(idx),
                               _mm256_cvttps_epi32(_mm256_and_ps(v, inside)));
            const int lanes = _mm256_movemask_ps(inside);
            if (lanes == 0xff) {
                for (int k = 0; k < 8; ++k) ++bins[idx[k]];
            } else {
                for (int k = 0; k < 8; ++k)
                    if ((lanes >> k) & 1) ++bins[idx[k]];
            }
        } else {
            // max(v, 0) with v first turns NaN into 0; min caps at 65535 before the conversion.
            const __m256 c = _mm256_min_ps(_mm256_max_ps(v, zero), top);
            _mm256_store_si256(reinterpret_cast<__m256i*>(idx), _mm256_cvttps_epi32(c));
            for (int k = 0; k < 8; ++k) ++bins[idx[k]];
        }
    }
    for (; i < count; ++i) {
        const int32_t b = FloatBin(src[i], rule);
        if (b >= 0) ++bins[b];
    }
}
#endif

}  // namespace

void FrameMinMax(const uint8_t* s, size_t n, uint8_t& a, uint8_t& b) { MinMaxDispatch(s, n, a, b); }
void FrameMinMax(const uint16_t* s, size_t n, uint16_t& a, uint16_t& b) {
    MinMaxDispatch(s, n, a, b);
}
void FrameMinMax(const int16_t* s, size_t n, int16_t& a, int16_t& b) { MinMaxDispatch(s, n, a, b); }
void FrameMinMax(const float* s, size_t n, float& a, float& b) { MinMaxDispatch(s, n, a, b); }
void FrameMinMax(const double* s, size_t n, double& a, double& b) { MinMaxDispatch(s, n, a, b); }

double SumInDouble(const float* src, size_t count) {
    const Impl impl = ActiveImpl();
    if (impl != Impl::Reference && count <= (size_t(1) << 28)) {
        double sum = 0.0;
#if VELTRANO_HAS_AVX2_PATHS
        if (impl == Impl::Avx2 ? ExactSumAvx2(src, count, sum) : ExactSumScalar(src, count, sum))
            return sum;
#else
        if (ExactSumScalar(src, count, sum)) return sum;
#endif
    }
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) sum += static_cast<double>(src[i]);
    return sum;
}

void CountValues(const uint8_t* src, size_t count, uint32_t* bins) {
    if (ActiveImpl() == Impl::Reference) {
        for (size_t i = 0; i < count; ++i) ++bins[src[i]];
        return;
    }
    CountValuesScalar<uint8_t, 256>(src, count, bins);
}

void CountValues(const uint16_t* src, size_t count, uint32_t* bins) {
    for (size_t i = 0; i < count; ++i) ++bins[src[i]];
}

void CountFloatBins(const float* src, size_t count, FloatBinRule rule, int32_t* bins) {
#if VELTRANO_HAS_AVX2_PATHS
    if (ActiveImpl() == Impl::Avx2) {
        CountFloatBinsAvx2(src, count, rule, bins);
        return;
    }
#endif
    for (size_t i = 0; i < count; ++i) {
        const int32_t b = FloatBin(src[i], rule);
        if (b >= 0) ++bins[b];
    }
}

namespace {

inline uint8_t DefectMark(float v) {
    if (std::fabs(v) < 1e-6f) return 0;
    if (v > 255.0f) v = 255.0f;
    if (v < 0.0f) v = 0.0f;
    return v != v ? 0 : static_cast<uint8_t>(v);
}

#if VELTRANO_HAS_AVX2_PATHS
VELTRANO_TARGET_AVX2 void GainFromMeanAvx2(const float* flat, float* gain, size_t count,
                                           double mean) {
    const __m256d m = _mm256_set1_pd(mean);
    const __m128 floor = _mm_set1_ps(0.001f);
    size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        const __m128 v = _mm_loadu_ps(flat + i);
        const __m128 p = _mm_blendv_ps(v, floor, _mm_cmplt_ps(v, floor));
        _mm_storeu_ps(gain + i, _mm256_cvtpd_ps(_mm256_div_pd(m, _mm256_cvtps_pd(p))));
    }
    for (; i < count; ++i) {
        const float p = flat[i] < 0.001f ? 0.001f : flat[i];
        gain[i] = static_cast<float>(mean / p);
    }
}

// |v| < 1e-6 gives 0; otherwise max(v, 0) (NaN becomes 0 there), capped at 255, truncated.
VELTRANO_TARGET_AVX2 size_t DefectMarksAvx2(const float* map, uint8_t* marks, size_t count) {
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    const __m256 tiny = _mm256_set1_ps(1e-6f);
    const __m256 top = _mm256_set1_ps(255.0f);
    size_t defective = 0;
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const __m256 v = _mm256_loadu_ps(map + i);
        const __m256 zero = _mm256_cmp_ps(_mm256_and_ps(v, absMask), tiny, _CMP_LT_OQ);
        const __m256 c =
            _mm256_andnot_ps(zero, _mm256_min_ps(_mm256_max_ps(v, _mm256_setzero_ps()), top));
        const __m256i n = _mm256_cvttps_epi32(c);
        const __m128i words =
            _mm_packus_epi32(_mm256_castsi256_si128(n), _mm256_extracti128_si256(n, 1));
        const __m128i bytes = _mm_packus_epi16(words, words);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(marks + i), bytes);
        const int nonZero = ~_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128())) & 0xff;
        defective += static_cast<size_t>(__builtin_popcount(static_cast<unsigned>(nonZero)));
    }
    for (; i < count; ++i) {
        marks[i] = DefectMark(map[i]);
        defective += marks[i] != 0;
    }
    return defective;
}
#endif

}  // namespace

void GainFromMean(const float* flat, float* gain, size_t count, double mean) {
#if VELTRANO_HAS_AVX2_PATHS
    if (ActiveImpl() == Impl::Avx2) {
        GainFromMeanAvx2(flat, gain, count, mean);
        return;
    }
#endif
    for (size_t i = 0; i < count; ++i) {
        const float p = flat[i] < 0.001f ? 0.001f : flat[i];
        gain[i] = static_cast<float>(mean / p);
    }
}

size_t DefectMarks(const float* map, uint8_t* marks, size_t count) {
#if VELTRANO_HAS_AVX2_PATHS
    if (ActiveImpl() == Impl::Avx2) return DefectMarksAvx2(map, marks, count);
#endif
    size_t defective = 0;
    for (size_t i = 0; i < count; ++i) {
        marks[i] = DefectMark(map[i]);
        defective += marks[i] != 0;
    }
    return defective;
}

namespace {

#if VELTRANO_HAS_AVX2_PATHS
// A byte table of 256 entries as sixteen rows of sixteen: the low four bits of a pixel pick an
// entry in every row at once (one byte shuffle per row), and its high four bits then choose
// among the sixteen candidates in four rounds of blends, one bit per round. A blend looks only
// at the top bit of each byte, so the pixel is shifted left until the bit of the round is
// there (a shift of 16-bit lanes also carries bits of the neighbouring byte into a byte's lowest
// bits, which no blend looks at).
VELTRANO_TARGET_AVX2 void MapBytesAvx2(const uint8_t* src, uint8_t* dst, size_t count,
                                       const uint8_t* table) {
    __m256i rows[16];
    for (int k = 0; k < 16; ++k)
        rows[k] = _mm256_broadcastsi128_si256(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(table + 16 * k)));
    const __m256i lowBits = _mm256_set1_epi8(0x0f);
    size_t i = 0;
    for (; i + 32 <= count; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        const __m256i low = _mm256_and_si256(v, lowBits);
        __m256i c[16];
        for (int k = 0; k < 16; ++k) c[k] = _mm256_shuffle_epi8(rows[k], low);
        const __m256i bit4 = _mm256_slli_epi16(v, 3);
        for (int k = 0; k < 8; ++k) c[k] = _mm256_blendv_epi8(c[2 * k], c[2 * k + 1], bit4);
        const __m256i bit5 = _mm256_slli_epi16(v, 2);
        for (int k = 0; k < 4; ++k) c[k] = _mm256_blendv_epi8(c[2 * k], c[2 * k + 1], bit5);
        const __m256i bit6 = _mm256_slli_epi16(v, 1);
        for (int k = 0; k < 2; ++k) c[k] = _mm256_blendv_epi8(c[2 * k], c[2 * k + 1], bit6);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), _mm256_blendv_epi8(c[0], c[1], v));
    }
    for (; i < count; ++i) dst[i] = table[src[i]];
}
#endif

// Eight lookups, then eight stores: in the plain loop the compiler must keep each store before
// the next loads (dst may be src), and that loop measured a fifth slower on 64-bit builds.
// Signed pixels index the table by their
// bits with the sign bit flipped (v + 32768). 32-bit builds keep the plain loop, which their
// fewer registers run faster.
template <class T>
void MapWords(const T* src, T* dst, size_t count, const T* table) {
    constexpr uint16_t kFlip = std::is_signed_v<T> ? 0x8000 : 0;
    size_t i = 0;
    if (sizeof(void*) == 8) {
        for (; i + 8 <= count; i += 8) {
            T looked[8];
            for (int k = 0; k < 8; ++k)
                looked[k] = table[static_cast<uint16_t>(src[i + k]) ^ kFlip];
            for (int k = 0; k < 8; ++k) dst[i + k] = looked[k];
        }
    }
    for (; i < count; ++i) dst[i] = table[static_cast<uint16_t>(src[i]) ^ kFlip];
}

}  // namespace

void MapThroughTable(const uint8_t* src, uint8_t* dst, size_t count, const uint8_t* table) {
#if VELTRANO_HAS_AVX2_PATHS
    if (ActiveImpl() == Impl::Avx2) {
        MapBytesAvx2(src, dst, count, table);
        return;
    }
#endif
    for (size_t i = 0; i < count; ++i) dst[i] = table[src[i]];
}

void MapThroughTable(const uint16_t* src, uint16_t* dst, size_t count, const uint16_t* table) {
    MapWords(src, dst, count, table);
}

void MapThroughTable(const int16_t* src, int16_t* dst, size_t count, const int16_t* table) {
    MapWords(src, dst, count, table);
}

namespace {

#if VELTRANO_HAS_AVX2_PATHS
// Sixteen pixels of the next part are compared in vector registers per sixteen lookups. The
// looked-up words go into vector registers by inserts that read the table directly (one load of
// the pixel and one of its entry each) and leave as two 16-byte stores: on the processor this
// was measured on, the lookups are limited by loads and stores, and these take the fewest.
template <class T>
VELTRANO_TARGET_AVX2 void MapScanningAvx2(const T* src, T* dst, size_t count, const T* table,
                                          const T* next, size_t nextCount, T& nextMin, T& nextMax) {
    constexpr bool kSigned = std::is_signed_v<T>;
    constexpr uint16_t kFlip = kSigned ? 0x8000 : 0;
    __m256i lo = _mm256_set1_epi16(static_cast<short>(next[0]));
    __m256i hi = lo;
    size_t scanned = 0;
    size_t i = 0;
    auto entry = [&](size_t k) {
        return static_cast<int>(table[static_cast<uint16_t>(src[k]) ^ kFlip]);
    };
    for (; i + 16 <= count; i += 16) {
        if (scanned + 16 <= nextCount) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(next + scanned));
            lo = kSigned ? _mm256_min_epi16(lo, v) : _mm256_min_epu16(lo, v);
            hi = kSigned ? _mm256_max_epi16(hi, v) : _mm256_max_epu16(hi, v);
            scanned += 16;
        }
        __m128i a = _mm_cvtsi32_si128(entry(i));
        __m128i b = _mm_cvtsi32_si128(entry(i + 8));
        a = _mm_insert_epi16(a, entry(i + 1), 1);
        b = _mm_insert_epi16(b, entry(i + 9), 1);
        a = _mm_insert_epi16(a, entry(i + 2), 2);
        b = _mm_insert_epi16(b, entry(i + 10), 2);
        a = _mm_insert_epi16(a, entry(i + 3), 3);
        b = _mm_insert_epi16(b, entry(i + 11), 3);
        a = _mm_insert_epi16(a, entry(i + 4), 4);
        b = _mm_insert_epi16(b, entry(i + 12), 4);
        a = _mm_insert_epi16(a, entry(i + 5), 5);
        b = _mm_insert_epi16(b, entry(i + 13), 5);
        a = _mm_insert_epi16(a, entry(i + 6), 6);
        b = _mm_insert_epi16(b, entry(i + 14), 6);
        a = _mm_insert_epi16(a, entry(i + 7), 7);
        b = _mm_insert_epi16(b, entry(i + 15), 7);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), a);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i + 8), b);
    }
    for (; i < count; ++i) dst[i] = table[static_cast<uint16_t>(src[i]) ^ kFlip];
    alignas(32) T l[16];
    alignas(32) T h[16];
    _mm256_store_si256(reinterpret_cast<__m256i*>(l), lo);
    _mm256_store_si256(reinterpret_cast<__m256i*>(h), hi);
    T a = l[0];
    T b = h[0];
    for (int k = 1; k < 16; ++k) {
        a = l[k] < a ? l[k] : a;
        b = h[k] > b ? h[k] : b;
    }
    for (; scanned < nextCount; ++scanned) {
        a = next[scanned] < a ? next[scanned] : a;
        b = next[scanned] > b ? next[scanned] : b;
    }
    nextMin = a;
    nextMax = b;
}
#endif

template <class T>
void MapScanning(const T* src, T* dst, size_t count, const T* table, const T* next,
                 size_t nextCount, T& nextMin, T& nextMax) {
#if VELTRANO_HAS_AVX2_PATHS
    if constexpr (sizeof(T) == 2) {
        if (ActiveImpl() == Impl::Avx2) {
            MapScanningAvx2(src, dst, count, table, next, nextCount, nextMin, nextMax);
            return;
        }
    }
#endif
    MapThroughTable(src, dst, count, table);
    FrameMinMax(next, nextCount, nextMin, nextMax);
}

}  // namespace

void MapThroughTableScanning(const uint8_t* src, uint8_t* dst, size_t count, const uint8_t* table,
                             const uint8_t* next, size_t nextCount, uint8_t& nextMin,
                             uint8_t& nextMax) {
    MapScanning(src, dst, count, table, next, nextCount, nextMin, nextMax);
}

void MapThroughTableScanning(const uint16_t* src, uint16_t* dst, size_t count,
                             const uint16_t* table, const uint16_t* next, size_t nextCount,
                             uint16_t& nextMin, uint16_t& nextMax) {
    MapScanning(src, dst, count, table, next, nextCount, nextMin, nextMax);
}

void MapThroughTableScanning(const int16_t* src, int16_t* dst, size_t count, const int16_t* table,
                             const int16_t* next, size_t nextCount, int16_t& nextMin,
                             int16_t& nextMax) {
    MapScanning(src, dst, count, table, next, nextCount, nextMin, nextMax);
}

}  // namespace veltrano
