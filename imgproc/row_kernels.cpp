#include "imgproc/row_kernels.h"

#include "imgproc/scratch_buffers.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

// ---------------------------------------------------------------------------------------------
// Plain code

// The plain forms run over chunks of a row with the tap loop outside the pixel loop, which the
// compiler can turn into vector code of the baseline instruction set; each pixel still adds its
// products in tap order.
constexpr size_t kChunk = 64;

void SequentialSumRowPlain(const float* const* in, const float* weights, size_t taps, size_t width,
                           float* out) {
    for (size_t x0 = 0; x0 < width; x0 += kChunk) {
        const size_t n = std::min(kChunk, width - x0);
        float acc[kChunk] = {};
        for (size_t t = 0; t < taps; ++t) {
            const float w = weights[t];
            const float* p = in[t] + x0;
            for (size_t x = 0; x < n; ++x) acc[x] = acc[x] + w * p[x];
        }
        std::memcpy(out + x0, acc, n * sizeof(float));
    }
}

void SequentialSumRowsPlain(const float* const* in0, const float* const* in1, const float* weights,
                            size_t taps, size_t width, float* out0, float* out1) {
    SequentialSumRowPlain(in0, weights, taps, width, out0);
    if (out1 != nullptr) SequentialSumRowPlain(in1, weights, taps, width, out1);
}

void LaneSumRowPlain(const float* const* in, const float* weights, const uint32_t* groupBegin,
                     size_t width, float* out) {
    for (size_t x0 = 0; x0 < width; x0 += kChunk) {
        const size_t n = std::min(kChunk, width - x0);
        float sum[kChunk];
        float acc[kChunk];
        for (int l = 0; l < 8; ++l) {
            const uint32_t b = groupBegin[l];
            const uint32_t e = groupBegin[l + 1];
            if (b == e) break;  // only the last groups of a kernel under 8 taps are empty
            float* a = l == 0 ? sum : acc;
            for (size_t x = 0; x < n; ++x) a[x] = in[b][x0 + x] * weights[b];
            for (uint32_t t = b + 1; t < e; ++t) {
                const float w = weights[t];
                const float* p = in[t] + x0;
                for (size_t x = 0; x < n; ++x) a[x] = a[x] + p[x] * w;
            }
            if (l > 0)
                for (size_t x = 0; x < n; ++x) sum[x] = sum[x] + acc[x];
        }
        for (size_t x = 0; x < n; ++x) out[x0 + x] = sum[x] + 0.0f;
    }
}

template <class T>
void ColumnUpdatePlain(int32_t* col, const T* add, const T* sub, size_t n) {
    if (add != nullptr)
        for (size_t x = 0; x < n; ++x) col[x] += add[x];
    if (sub != nullptr)
        for (size_t x = 0; x < n; ++x) col[x] -= sub[x];
}

void WindowSumsPlain(const int32_t* ext, size_t n, size_t k, uint32_t* prefix, int32_t* sums) {
    uint32_t run = 0;
    prefix[0] = 0;
    for (size_t i = 0; i + 1 < n + k; ++i) {
        run += static_cast<uint32_t>(ext[i]);
        prefix[i + 1] = run;
    }
    for (size_t x = 0; x < n; ++x) sums[x] = static_cast<int32_t>(prefix[x + k] - prefix[x]);
}

// The mean of a window sum for the rows after the first. The floor of a float quotient lies
// within one of the true floor (|sum / a| <= 65536, so the quotient is off by less than 0.02);
// one step on the integer remainder makes it exact.
inline int32_t BoxMean(int32_t s, int32_t a, float inv) {
    const float q = static_cast<float>(s) * inv;
    int32_t t = static_cast<int32_t>(q);
    if (static_cast<float>(t) > q) --t;  // toward minus infinity
    int64_t rem = static_cast<int64_t>(s) - static_cast<int64_t>(t) * a;
    if (rem < 0) {
        --t;
        rem += a;
    } else if (rem >= a) {
        ++t;
        rem -= a;
    }
    // t is the floor now; toward zero it is one more for a negative sum that does not divide.
    if (s < 0 && rem != 0) ++t;
    return t < 0 ? t + 1 : t;
}

template <class T>
void BoxMeanRowPlain(const int32_t* sums, size_t n, int32_t a, T* out) {
    const float inv = 1.0f / static_cast<float>(a);
    for (size_t x = 0; x < n; ++x) out[x] = static_cast<T>(BoxMean(sums[x], a, inv));
}

void StoreClampedU16Plain(const float* in, size_t n, uint16_t* out) {
    for (size_t i = 0; i < n; ++i) {
        float v = in[i];
        if (v > 65535.0f) v = 65535.0f;
        if (!(v > 0.0f)) v = 0.0f;  // also NaN
        out[i] = static_cast<uint16_t>(v);
    }
}

// ---------------------------------------------------------------------------------------------
// AVX2

#if VELTRANO_HAS_AVX2_PATHS

// Rows x V vectors of eight pixels, one sequential sum each.
template <int Rows, int V>
VELTRANO_TARGET_AVX2 inline void SequentialBlock(const float* const* in0, const float* const* in1,
                                                 const float* weights, size_t taps, size_t x,
                                                 float* out0, float* out1) {
    __m256 acc[Rows][V];
    for (int r = 0; r < Rows; ++r)
        for (int v = 0; v < V; ++v) acc[r][v] = _mm256_setzero_ps();
    for (size_t t = 0; t < taps; ++t) {
        const __m256 w = _mm256_broadcast_ss(weights + t);
        const float* p0 = in0[t] + x;
        for (int v = 0; v < V; ++v)
            acc[0][v] = _mm256_add_ps(acc[0][v], _mm256_mul_ps(w, _mm256_loadu_ps(p0 + 8 * v)));
        if constexpr (Rows == 2) {
            const float* p1 = in1[t] + x;
            for (int v = 0; v < V; ++v)
                acc[Rows - 1][v] =
                    _mm256_add_ps(acc[Rows - 1][v], _mm256_mul_ps(w, _mm256_loadu_ps(p1 + 8 * v)));
        }
    }
    for (int v = 0; v < V; ++v) _mm256_storeu_ps(out0 + x + 8 * v, acc[0][v]);
    if constexpr (Rows == 2)
        for (int v = 0; v < V; ++v) _mm256_storeu_ps(out1 + x + 8 * v, acc[Rows - 1][v]);
}

VELTRANO_TARGET_AVX2 void SequentialSumRowsAvx2(const float* const* in0, const float* const* in1,
                                                const float* weights, size_t taps, size_t width,
                                                float* out0, float* out1) {
    size_t x = 0;
    if (out1 != nullptr) {
        for (; x + 32 <= width; x += 32)
            SequentialBlock<2, 4>(in0, in1, weights, taps, x, out0, out1);
        for (; x + 8 <= width; x += 8)
            SequentialBlock<2, 1>(in0, in1, weights, taps, x, out0, out1);
    } else {
        for (; x + 64 <= width; x += 64)
            SequentialBlock<1, 8>(in0, in1, weights, taps, x, out0, out1);
        for (; x + 8 <= width; x += 8)
            SequentialBlock<1, 1>(in0, in1, weights, taps, x, out0, out1);
    }
    if (x == width) return;
    // The last pixels, fewer than eight: one more vector ending at the row's end (recomputing a
    // few pixels with the same result), or the plain form for a row under eight pixels.
    if (width < 8) {
        SequentialSumRowsPlain(in0, in1, weights, taps, width, out0, out1);
    } else if (out1 != nullptr) {
        SequentialBlock<2, 1>(in0, in1, weights, taps, width - 8, out0, out1);
    } else {
        SequentialBlock<1, 1>(in0, in1, weights, taps, width - 8, out0, out1);
    }
}

// The sum of one group of taps for V vectors of pixels, starting from its first product.
template <int V>
VELTRANO_TARGET_AVX2 inline void LaneGroup(const float* const* in, const float* weights, uint32_t b,
                                           uint32_t e, size_t x, __m256* acc) {
    __m256 w = _mm256_broadcast_ss(weights + b);
    for (int v = 0; v < V; ++v) acc[v] = _mm256_mul_ps(_mm256_loadu_ps(in[b] + x + 8 * v), w);
    for (uint32_t t = b + 1; t < e; ++t) {
        w = _mm256_broadcast_ss(weights + t);
        const float* p = in[t] + x;
        for (int v = 0; v < V; ++v)
            acc[v] = _mm256_add_ps(acc[v], _mm256_mul_ps(_mm256_loadu_ps(p + 8 * v), w));
    }
}

template <int V>
VELTRANO_TARGET_AVX2 inline void LaneSumBlock(const float* const* in, const float* weights,
                                              const uint32_t* groupBegin, size_t x, float* out) {
    __m256 sum[V];
    __m256 acc[V];
    LaneGroup<V>(in, weights, groupBegin[0], groupBegin[1], x, sum);  // group 0 is never empty
    for (int l = 1; l < 8 && groupBegin[l] != groupBegin[l + 1]; ++l) {
        LaneGroup<V>(in, weights, groupBegin[l], groupBegin[l + 1], x, acc);
        for (int v = 0; v < V; ++v) sum[v] = _mm256_add_ps(sum[v], acc[v]);
    }
    const __m256 zero = _mm256_setzero_ps();
    for (int v = 0; v < V; ++v) _mm256_storeu_ps(out + x + 8 * v, _mm256_add_ps(sum[v], zero));
}

VELTRANO_TARGET_AVX2 void LaneSumRowAvx2(const float* const* in, const float* weights,
                                         const uint32_t* groupBegin, size_t width, float* out) {
    size_t x = 0;
    for (; x + 48 <= width; x += 48) LaneSumBlock<6>(in, weights, groupBegin, x, out);
    for (; x + 8 <= width; x += 8) LaneSumBlock<1>(in, weights, groupBegin, x, out);
    if (x == width) return;
    // The last pixels, fewer than eight: one more vector ending at the row's end (recomputing a
    // few pixels with the same result), or the plain form for a row under eight pixels.
    if (width < 8) {
        LaneSumRowPlain(in, weights, groupBegin, width, out);
    } else {
        LaneSumBlock<1>(in, weights, groupBegin, width - 8, out);
    }
}

// The same for a kernel size known at compile time (the common 3 x 3 and 5 x 5): the taps'
// positions become constants, which saves a pointer load per tap and vector block.
template <int KW, int KH, int V>
VELTRANO_TARGET_AVX2 inline void LaneSumFixedBlock(const float* const* rows, const float* kernel,
                                                   size_t x, float* out) {
    constexpr int kTaps = KW * KH;
    __m256 sum[V];
    __m256 acc[V];
    // Unrolled in full, so that every position is a constant offset from a row pointer.
#pragma GCC unroll 8
    for (int l = 0; l < 8 && l < kTaps; ++l) {
#pragma GCC unroll 8
        for (int t = l; t < kTaps; t += 8) {
            const __m256 w = _mm256_broadcast_ss(kernel + t);
            const float* p = rows[t / KW] + x + t % KW;
#pragma GCC unroll 8
            for (int v = 0; v < V; ++v) {
                const __m256 product = _mm256_mul_ps(_mm256_loadu_ps(p + 8 * v), w);
                acc[v] = t == l ? product : _mm256_add_ps(acc[v], product);
            }
        }
        for (int v = 0; v < V; ++v) sum[v] = l == 0 ? acc[v] : _mm256_add_ps(sum[v], acc[v]);
    }
    const __m256 zero = _mm256_setzero_ps();
    for (int v = 0; v < V; ++v) _mm256_storeu_ps(out + x + 8 * v, _mm256_add_ps(sum[v], zero));
}

template <int KW, int KH>
VELTRANO_TARGET_AVX2 void LaneSumFixedRowAvx2(const float* const* rows, const float* kernel,
                                              size_t width, float* out) {
    const float* r[KH];
    for (int i = 0; i < KH; ++i) r[i] = rows[i];
    size_t x = 0;
    for (; x + 48 <= width; x += 48) LaneSumFixedBlock<KW, KH, 6>(r, kernel, x, out);
    for (; x + 8 <= width; x += 8) LaneSumFixedBlock<KW, KH, 1>(r, kernel, x, out);
    if (x < width) LaneSumFixedBlock<KW, KH, 1>(r, kernel, width - 8, out);  // width >= 8 here
}

// Eight elements widened to 32-bit integers.
VELTRANO_TARGET_AVX2 inline __m256i Widen8(const uint8_t* p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}
VELTRANO_TARGET_AVX2 inline __m256i Widen8(const uint16_t* p) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
VELTRANO_TARGET_AVX2 inline __m256i Widen8(const int16_t* p) {
    return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

template <class T>
VELTRANO_TARGET_AVX2 void ColumnUpdateAvx2(int32_t* col, const T* add, const T* sub, size_t n) {
    size_t x = 0;
    for (; x + 8 <= n; x += 8) {
        __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(col + x));
        if (add != nullptr) c = _mm256_add_epi32(c, Widen8(add + x));
        if (sub != nullptr) c = _mm256_sub_epi32(c, Widen8(sub + x));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(col + x), c);
    }
    for (; x < n; ++x) {
        if (add != nullptr) col[x] += add[x];
        if (sub != nullptr) col[x] -= sub[x];
    }
}

VELTRANO_TARGET_AVX2 void WindowSumsAvx2(const int32_t* ext, size_t n, size_t k, uint32_t* prefix,
                                         int32_t* sums) {
    const size_t len = n + k - 1;  // elements of ext
    prefix[0] = 0;
    __m256i carry = _mm256_setzero_si256();
    const __m256i last = _mm256_set1_epi32(7);
    const __m256i third = _mm256_set1_epi32(3);
    size_t i = 0;
    for (; i + 8 <= len; i += 8) {
        __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(ext + i));
        v = _mm256_add_epi32(v, _mm256_slli_si256(v, 4));
        v = _mm256_add_epi32(v, _mm256_slli_si256(v, 8));
        // Each 128-bit half holds its own prefix sums; the upper half also gets the lower's total.
        const __m256i low = _mm256_permutevar8x32_epi32(v, third);
        v = _mm256_add_epi32(v, _mm256_blend_epi32(_mm256_setzero_si256(), low, 0xF0));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(prefix + i + 1), _mm256_add_epi32(v, carry));
        // The running total takes one addition per vector; the shuffle stays off that chain.
        carry = _mm256_add_epi32(carry, _mm256_permutevar8x32_epi32(v, last));
    }
    uint32_t run = prefix[i];
    for (; i < len; ++i) {
        run += static_cast<uint32_t>(ext[i]);
        prefix[i + 1] = run;
    }
    size_t x = 0;
    for (; x + 8 <= n; x += 8) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x + k));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums + x), _mm256_sub_epi32(a, b));
    }
    for (; x < n; ++x) sums[x] = static_cast<int32_t>(prefix[x + k] - prefix[x]);
}

// BoxMean on eight sums.
VELTRANO_TARGET_AVX2 inline __m256i BoxMean8(__m256i s, __m256i a, __m256 inv, bool isSigned) {
    const __m256i one = _mm256_set1_epi32(1);
    __m256i t = _mm256_cvttps_epi32(_mm256_floor_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(s), inv)));
    __m256i rem = _mm256_sub_epi32(s, _mm256_mullo_epi32(t, a));
    const __m256i below = _mm256_cmpgt_epi32(_mm256_setzero_si256(), rem);    // rem < 0
    const __m256i above = _mm256_cmpgt_epi32(rem, _mm256_sub_epi32(a, one));  // rem >= a
    t = _mm256_add_epi32(t, below);                                           // -1 where below
    rem = _mm256_add_epi32(rem, _mm256_and_si256(below, a));
    t = _mm256_sub_epi32(t, above);  // +1 where above
    rem = _mm256_sub_epi32(rem, _mm256_and_si256(above, a));
    if (!isSigned) return t;
    const __m256i negative = _mm256_cmpgt_epi32(_mm256_setzero_si256(), s);
    const __m256i inexact =
        _mm256_xor_si256(_mm256_cmpeq_epi32(rem, _mm256_setzero_si256()), _mm256_set1_epi32(-1));
    t = _mm256_sub_epi32(t, _mm256_and_si256(negative, inexact));
    return _mm256_sub_epi32(t, _mm256_cmpgt_epi32(_mm256_setzero_si256(), t));  // +1 below 0
}

template <class T>
VELTRANO_TARGET_AVX2 void BoxMeanRowAvx2(const int32_t* sums, size_t n, int32_t a, T* out) {
    const float invScalar = 1.0f / static_cast<float>(a);
    const __m256 inv = _mm256_set1_ps(invScalar);
    const __m256i av = _mm256_set1_epi32(a);
    constexpr bool isSigned = std::is_signed_v<T>;
    size_t x = 0;
    for (; x + 16 <= n; x += 16) {
        const __m256i lo = BoxMean8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + x)),
                                    av, inv, isSigned);
        const __m256i hi = BoxMean8(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + x + 8)), av, inv, isSigned);
        // Means lie in the pixel type's range, so the saturating packs only narrow them.
        __m256i packed = isSigned ? _mm256_packs_epi32(lo, hi) : _mm256_packus_epi32(lo, hi);
        packed = _mm256_permute4x64_epi64(packed, 0xD8);
        if constexpr (sizeof(T) == 2) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), packed);
        } else {
            const __m128i bytes = _mm_packus_epi16(_mm256_castsi256_si128(packed),
                                                   _mm256_extracti128_si256(packed, 1));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), bytes);
        }
    }
    for (; x < n; ++x) out[x] = static_cast<T>(BoxMean(sums[x], a, invScalar));
}

// Values not above 0 (NaN among them) become 0 first, then the rest is capped at 65535: the same
// values as capping first.
VELTRANO_TARGET_AVX2 inline __m256i ClampToU16(__m256 v) {
    v = _mm256_and_ps(v, _mm256_cmp_ps(v, _mm256_setzero_ps(), _CMP_GT_OQ));
    return _mm256_cvttps_epi32(_mm256_min_ps(v, _mm256_set1_ps(65535.0f)));
}

VELTRANO_TARGET_AVX2 void StoreClampedU16Avx2(const float* in, size_t n, uint16_t* out) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i lo = ClampToU16(_mm256_loadu_ps(in + i));
        const __m256i hi = ClampToU16(_mm256_loadu_ps(in + i + 8));
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(lo, hi), 0xD8);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), packed);
    }
    StoreClampedU16Plain(in + i, n - i, out + i);
}

#endif  // VELTRANO_HAS_AVX2_PATHS

}  // namespace

bool UseAvx2(Impl impl) { return VELTRANO_HAS_AVX2_PATHS && impl == Impl::Avx2; }

#if VELTRANO_HAS_AVX2_PATHS
#define VELTRANO_PICK(impl, avx2Call, plainCall) \
    do {                                         \
        if (UseAvx2(impl)) {                     \
            avx2Call;                            \
        } else {                                 \
            plainCall;                           \
        }                                        \
    } while (false)
#else
#define VELTRANO_PICK(impl, avx2Call, plainCall) \
    do {                                         \
        (void)(impl);                            \
        plainCall;                               \
    } while (false)
#endif

void SequentialSumRows(Impl impl, const float* const* in0, const float* const* in1,
                       const float* weights, size_t taps, size_t width, float* out0, float* out1) {
    VELTRANO_PICK(impl, SequentialSumRowsAvx2(in0, in1, weights, taps, width, out0, out1),
                  SequentialSumRowsPlain(in0, in1, weights, taps, width, out0, out1));
}

bool LaneTaps::build(const float* k, int width, int height) {
    kernel = k;
    kw = width;
    kh = height;
    const uint64_t taps = static_cast<uint64_t>(kw) * static_cast<uint64_t>(kh);
    if (!TryResize(weights, taps) || !TryResize(rows, taps) || !TryResize(cols, taps)) return false;
    size_t n = 0;
    for (size_t l = 0; l < 8; ++l) {
        groupBegin[l] = static_cast<uint32_t>(n);
        for (size_t t = l; t < taps; t += 8, ++n) {
            weights[n] = kernel[t];
            rows[n] = static_cast<uint32_t>(t / static_cast<size_t>(kw));
            cols[n] = static_cast<uint32_t>(t % static_cast<size_t>(kw));
        }
    }
    groupBegin[8] = static_cast<uint32_t>(n);
    return true;
}

void LaneSumRow(Impl impl, const LaneTaps& taps, const float* const* rows, const float** scratch,
                size_t width, float* out) {
#if VELTRANO_HAS_AVX2_PATHS
    if (UseAvx2(impl) && width >= 8) {
        if (taps.kw == 5 && taps.kh == 5)
            return LaneSumFixedRowAvx2<5, 5>(rows, taps.kernel, width, out);
        if (taps.kw == 3 && taps.kh == 3)
            return LaneSumFixedRowAvx2<3, 3>(rows, taps.kernel, width, out);
    }
#endif
    for (size_t t = 0; t < taps.weights.size(); ++t) scratch[t] = rows[taps.rows[t]] + taps.cols[t];
    VELTRANO_PICK(impl, LaneSumRowAvx2(scratch, taps.weights.data(), taps.groupBegin, width, out),
                  LaneSumRowPlain(scratch, taps.weights.data(), taps.groupBegin, width, out));
}

void ColumnUpdate(Impl impl, int32_t* col, const uint8_t* add, const uint8_t* sub, size_t n) {
    VELTRANO_PICK(impl, ColumnUpdateAvx2(col, add, sub, n), ColumnUpdatePlain(col, add, sub, n));
}
void ColumnUpdate(Impl impl, int32_t* col, const uint16_t* add, const uint16_t* sub, size_t n) {
    VELTRANO_PICK(impl, ColumnUpdateAvx2(col, add, sub, n), ColumnUpdatePlain(col, add, sub, n));
}
void ColumnUpdate(Impl impl, int32_t* col, const int16_t* add, const int16_t* sub, size_t n) {
    VELTRANO_PICK(impl, ColumnUpdateAvx2(col, add, sub, n), ColumnUpdatePlain(col, add, sub, n));
}

void WindowSums(Impl impl, const int32_t* ext, size_t n, size_t k, uint32_t* prefix,
                int32_t* sums) {
    VELTRANO_PICK(impl, WindowSumsAvx2(ext, n, k, prefix, sums),
                  WindowSumsPlain(ext, n, k, prefix, sums));
}

void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, uint8_t* out) {
    VELTRANO_PICK(impl, BoxMeanRowAvx2(sums, n, a, out), BoxMeanRowPlain(sums, n, a, out));
}
void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, uint16_t* out) {
    VELTRANO_PICK(impl, BoxMeanRowAvx2(sums, n, a, out), BoxMeanRowPlain(sums, n, a, out));
}
void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, int16_t* out) {
    VELTRANO_PICK(impl, BoxMeanRowAvx2(sums, n, a, out), BoxMeanRowPlain(sums, n, a, out));
}

void StoreClampedU16(Impl impl, const float* in, size_t n, uint16_t* out) {
    VELTRANO_PICK(impl, StoreClampedU16Avx2(in, n, out), StoreClampedU16Plain(in, n, out));
}

#undef VELTRANO_PICK

}  // namespace veltrano
