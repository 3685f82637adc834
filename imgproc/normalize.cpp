// Linear normalisation family and Normalize_TruncMinMax.
#include "veltrano/normalize.h"

#include <cmath>
#include <cstddef>
#include <type_traits>
#include <utility>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/frame_passes.h"
#include "imgproc/pixel_helpers.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>

#include "imgproc/vector_lanes.h"
#endif

namespace veltrano {
namespace {

// The constants of one normalisation, in the arithmetic of step "shifted * scale * span + low +
// offset": float for the integer and float members, double (from single-precision values) for
// the double member.
template <class T>
struct Stretch {
    using Calc = std::conditional_t<std::is_same_v<T, double>, double, float>;
    T mn;
    Calc scale;
    Calc span;
    Calc low;
    Calc offset;
    double dLow;
    double dHigh;

    Calc shifted(T v) const { return static_cast<Calc>(v - mn); }

    T apply(T v) const {
        double r = static_cast<double>(shifted(v) * scale * span + low + offset);
        if (r > dHigh) r = dHigh;
        if (r < dLow) r = dLow;
        return static_cast<T>(r);
    }
};

template <class T>
void StretchPlain(const T* src, T* dst, size_t count, const Stretch<T>& s) {
    for (size_t i = 0; i < count; ++i) dst[i] = s.apply(src[i]);
}

// Integer members: every value between the minimum and the maximum maps through the same
// arithmetic, so a table of those values, built with that arithmetic, gives the same pixels.
// Returns false, having written nothing, when the image has fewer pixels than the table would
// have entries.
template <class T>
bool StretchByTable(const T* src, T* dst, size_t count, const Stretch<T>& s, T mx) {
    const size_t values = static_cast<size_t>(mx - s.mn) + 1;
    if (values >= count) return false;
    std::vector<T> table(size_t(1) << (8 * sizeof(T)));
    for (size_t k = 0; k < values; ++k) table[s.mn + k] = s.apply(static_cast<T>(s.mn + k));
    MapThroughTable(src, dst, count, table.data());
    return true;
}

#if VELTRANO_HAS_AVX2_PATHS

// Eight integer pixels (as 32-bit lanes) through the single-precision arithmetic, capped at the
// upper bound (exact in float, so the double comparison is the float one) and truncated. Every
// term added to low is non-negative, so the lower bound never applies.
VELTRANO_TARGET_AVX2 inline __m256i StretchLanes(__m256i v, __m256i mn, __m256 scale, __m256 span,
                                                 __m256 low, __m256 offset, __m256 hi) {
    __m256 x = _mm256_cvtepi32_ps(_mm256_sub_epi32(v, mn));
    x = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(x, scale), span), low), offset);
    return _mm256_cvttps_epi32(_mm256_min_ps(x, hi));
}

// Pixels are widened within each 128-bit half (unpack with zero) and packed back the same way,
// which keeps them in order without permutes.
template <class T>
VELTRANO_TARGET_AVX2 void StretchIntegerAvx2(const T* src, T* dst, size_t count,
                                             const Stretch<T>& s) {
    const __m256i mn = _mm256_set1_epi32(s.mn);
    const __m256 scale = _mm256_set1_ps(s.scale);
    const __m256 span = _mm256_set1_ps(s.span);
    const __m256 low = _mm256_set1_ps(s.low);
    const __m256 offset = _mm256_set1_ps(s.offset);
    const __m256 hi = _mm256_set1_ps(static_cast<float>(s.dHigh));
    const __m256i zero = _mm256_setzero_si256();
    constexpr size_t kStep = 32 / sizeof(T);
    size_t i = 0;
    for (; i + kStep <= count; i += kStep) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
        if constexpr (std::is_same_v<T, uint16_t>) {
            const __m256i a =
                StretchLanes(_mm256_unpacklo_epi16(v, zero), mn, scale, span, low, offset, hi);
            const __m256i b =
                StretchLanes(_mm256_unpackhi_epi16(v, zero), mn, scale, span, low, offset, hi);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), _mm256_packus_epi32(a, b));
        } else {
            const __m256i w0 = _mm256_unpacklo_epi8(v, zero);
            const __m256i w1 = _mm256_unpackhi_epi8(v, zero);
            const __m256i a0 =
                StretchLanes(_mm256_unpacklo_epi16(w0, zero), mn, scale, span, low, offset, hi);
            const __m256i b0 =
                StretchLanes(_mm256_unpackhi_epi16(w0, zero), mn, scale, span, low, offset, hi);
            const __m256i a1 =
                StretchLanes(_mm256_unpacklo_epi16(w1, zero), mn, scale, span, low, offset, hi);
            const __m256i b1 =
                StretchLanes(_mm256_unpackhi_epi16(w1, zero), mn, scale, span, low, offset, hi);
            const __m256i words0 = _mm256_packus_epi32(a0, b0);
            const __m256i words1 = _mm256_packus_epi32(a1, b1);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i),
                                _mm256_packus_epi16(words0, words1));
        }
    }
    StretchPlain(src + i, dst + i, count - i, s);
}

// Floating members: comparisons and blends rather than min/max, so that a not-a-number result
// passes the clamp unchanged as in the plain code.
template <class T, class L = typename LanesOf<T>::type>
VELTRANO_TARGET_AVX2 void StretchAvx2(const T* src, T* dst, size_t count, const Stretch<T>& s) {
    const auto mn = L::Set(s.mn);
    const auto scale = L::Set(s.scale);
    const auto span = L::Set(s.span);
    const auto low = L::Set(s.low);
    const auto offset = L::Set(s.offset);
    const auto lo = L::Set(static_cast<T>(s.dLow));
    const auto hi = L::Set(static_cast<T>(s.dHigh));
    size_t i = 0;
    for (; i + L::kLanes <= count; i += L::kLanes) {
        auto x = L::Sub(L::Load(src + i), mn);
        x = L::Add(L::Add(L::Mul(L::Mul(x, scale), span), low), offset);
        L::Store(dst + i, L::CapBelow(L::CapAbove(x, hi), lo));
    }
    StretchPlain(src + i, dst + i, count - i, s);
}

void StretchAvx2(const uint8_t* src, uint8_t* dst, size_t count, const Stretch<uint8_t>& s) {
    StretchIntegerAvx2(src, dst, count, s);
}

void StretchAvx2(const uint16_t* src, uint16_t* dst, size_t count, const Stretch<uint16_t>& s) {
    StretchIntegerAvx2(src, dst, count, s);
}

#endif

// One implementation for the four members. Integer members compute in single precision and
// round half up; the float member stays in single precision; the double member computes in
// double but with scale, span and low first rounded to single precision, which hosts see in the
// last bits of its results and which is therefore kept.
template <class T>
int NormalizeLinear(const T* src, T* dst, uint32_t width, uint32_t height, T low, T high) {
    if (src == nullptr || dst == nullptr) return -1;
    if (high < low) std::swap(low, high);
    using Calc = typename Stretch<T>::Calc;
    const float outSpan = static_cast<float>(high - low);
    const uint32_t count = width * height;  // 32-bit on purpose, as the pixel count everywhere
    if (count == 0) return 1;

    T mn = src[0];
    T mx = src[0];
    FrameMinMax(src, count, mn, mx);
    const double range = static_cast<double>(mx) - static_cast<double>(mn);
    if (std::fabs(range) < 1e-16) return 1;
    if (std::fabs(static_cast<double>(low) - static_cast<double>(mn)) < 1e-9 &&
        std::fabs(static_cast<double>(high) - static_cast<double>(mx)) < 1e-9)
        return 1;

    const float scale = 1.0f / static_cast<float>(mx - mn);
    const Stretch<T> s{mn,
                       static_cast<Calc>(scale),
                       static_cast<Calc>(outSpan),
                       static_cast<Calc>(static_cast<float>(low)),
                       static_cast<Calc>(RoundingOffset<T>()),
                       static_cast<double>(low),
                       static_cast<double>(high)};
    const Impl impl = ActiveImpl();
    // Bytes: a table of at most 256 entries and the vector table lookup beat the arithmetic.
    if constexpr (std::is_same_v<T, uint8_t>) {
        if (impl != Impl::Reference && StretchByTable(src, dst, count, s, mx)) return 1;
    }
#if VELTRANO_HAS_AVX2_PATHS
    if (impl == Impl::Avx2) {
        StretchAvx2(src, dst, count, s);
        return 1;
    }
#endif
    if constexpr (std::is_integral_v<T>) {
        if (impl != Impl::Reference && StretchByTable(src, dst, count, s, mx)) return 1;
    }
    StretchPlain(src, dst, count, s);
    return 1;
}

}  // namespace
}  // namespace veltrano

using veltrano::NormalizeLinear;

int normalize_8U(const uint8_t* src, uint8_t* dst, uint32_t width, uint32_t height, uint8_t low,
                 uint8_t high) {
    return NormalizeLinear(src, dst, width, height, low, high);
}

int normalize_16U(const uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height, uint16_t low,
                  uint16_t high) {
    return NormalizeLinear(src, dst, width, height, low, high);
}

int normalize_32F(const float* src, float* dst, uint32_t width, uint32_t height, float low,
                  float high) {
    return NormalizeLinear(src, dst, width, height, low, high);
}

int normalize_64F(const double* src, double* dst, uint32_t width, uint32_t height, double low,
                  double high) {
    return NormalizeLinear(src, dst, width, height, low, high);
}

// Historically this allocated an unused scratch buffer when called in place and never freed it;
// that had no visible effect, so the leak is not reproduced.
int Normalize_TruncMinMax(uint8_t* src, uint8_t* dst, uint32_t, uint32_t, int32_t, int32_t) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    return 1;
}
