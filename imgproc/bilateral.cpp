// Bilateral filter.
//
// Two implementations. The straightforward one (the Reference level) evaluates every weight of
// every window. The fast one uses that a weight depends only on the two values it joins and on
// their distance: the weight of pixel P's tap at offset o and that of pixel P + o's tap at -o
// have value differences of opposite sign and equal square, the same distance term, so the same
// exponent bit for bit, and one exponential serves both. Per row it computes the weights of one
// half of the offsets for every column, keeps them in a ring of rows for as long as the rows
// below need them, and then sums each pixel's weights in the window's own order. At the Scalar
// level the exponentials are the C library's and the output equals the reference's; at the AVX2
// level a vector exponential (within 1 unit in the last place of the C library's, see ExpCore)
// replaces it.
#include "veltrano/bilateral.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/scratch_buffers.h"
#include "imgproc/window_helpers.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

constexpr int kMaxKernelSide = 2 * kMaxWindowRadius + 1;

// d * d * c, but 0 for d = 0 even when c is infinite (0 * inf would be NaN).
float ScaledSquare(float d, float c) { return d == 0.0f ? 0.0f : d * d * c; }

// The spatial term of an offset, in double precision; 0 at the centre even for an infinite cS.
double SpatialTerm(int di, int dj, float cS) {
    const int d2 = di * di + dj * dj;
    return d2 == 0 ? 0.0 : static_cast<double>(d2) * static_cast<double>(cS);
}

// ---------------------------------------------------------------------------------------------
// Reference: every weight of every window.

void ReferenceBilateral(const float* src, float* dst, int width, int height,
                        const struBilatralParam& p) {
    const int kw = p.k_w;
    const int kh = p.k_h;
    const int top = kh / 2;
    const int left = kw / 2;
    const std::vector<float> ext = ExtendMirrorAnyMargin(
        src, height, width, BorderMargins{top, kh - top - 1, left, kw - left - 1});
    const size_t extW = static_cast<size_t>(width) + kw - 1;
    const size_t taps = static_cast<size_t>(kw) * kh;

    const float cS = 1.0f / (2.0f * p.sigColor_x * p.sigColor_y);
    const float cR = 1.0f / (2.0f * p.sigSpace_x * p.sigColor_y);

    // The spatial term depends only on the position in the window (kept in double precision).
    std::vector<double> spatial(taps);
    for (int i = 0; i < kh; ++i)
        for (int j = 0; j < kw; ++j)
            spatial[static_cast<size_t>(i) * kw + j] = SpatialTerm(i - top, j - left, cS);

    // Allocated once; every pixel overwrites them.
    std::vector<float> patch(taps);
    std::vector<float> weight(taps);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float* window = ext.data() + static_cast<size_t>(y) * extW + x;
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j)
                    patch[static_cast<size_t>(i) * kw + j] =
                        window[static_cast<size_t>(i) * extW + j];
            const float centre = patch[static_cast<size_t>(top) * kw + left];

            float sum = 0.0f;
            for (size_t n = 0; n < taps; ++n) {
                const float d = patch[n] - centre;
                const float v =
                    static_cast<float>(spatial[n] + static_cast<double>(ScaledSquare(d, cR)));
                weight[n] = std::exp(-v);
                sum += weight[n];
            }
            const float inv = 1.0f / sum;
            float out = 0.0f;
            for (size_t n = 0; n < taps; ++n) {
                weight[n] *= inv;
                out += patch[n] * weight[n];
            }
            dst[static_cast<size_t>(y) * width + x] = out;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Fast path.

// exp(-v) of a single-precision float is 0 once v >= 104 (e^-104 is below half the smallest
// subnormal, 2^-150), so such weights need no exponential. Checked once against the library's
// own exp, in case a library rounds differently there; without that the exponentials are always
// evaluated.
constexpr float kUnderflow = 104.0f;

bool UnderflowKnown() {
    static const bool known = [] {
        volatile float v = kUnderflow;  // evaluated by the library at run time, not folded
        return std::exp(-v) == 0.0f;
    }();
    return known;
}

// The ring buffers budget: beyond this many floats (large kernels) the plain path runs instead.
constexpr uint64_t kMaxRingFloats = uint64_t(1) << 22;

// One offset whose weights are computed: the forward member of a pair (o and -o both in the
// window), or an offset without a partner (even kernel sizes).
struct Offset {
    int di = 0, dj = 0;
    double spatial = 0.0;
    float spatialF = 0.0f;
    bool floatSum = false;  // spatial is a float: float(spatial + q) is then the float sum
    bool paired = false;
    int rows = 1;        // ring rows: a pair's weights of row r serve rows r to r + di
    size_t base = 0;     // first float of its ring
    int x0 = 0, x1 = 0;  // columns computed
};

// A tap of the window in the window's order: where its weight comes from.
struct Tap {
    int di = 0, dj = 0;
    enum Kind { kCentre, kComputed, kMirrored } kind = kCentre;
    int offset = -1;  // kComputed: that offset's own weight; kMirrored: the partner's weight
};

struct Plan {
    int width = 0, height = 0;
    int top = 0, bottom = 0, left = 0, right = 0;
    int pairRows = 0;  // largest di of a pair: the first row computed is -pairRows
    int pairCols = 0;  // largest |dj| of a pair
    float cS = 0.0f, cR = 0.0f;
    bool cRFinite = true;
    std::vector<Offset> offsets;
    std::vector<Tap> taps;
    size_t ringLen = 0;  // floats per ring row
    size_t extLen = 0;   // floats per extended source row

    // Returns false when the rings would exceed the budget.
    bool build(int w, int h, const struBilatralParam& p) {
        width = w;
        height = h;
        top = p.k_h / 2;
        bottom = p.k_h - top - 1;
        left = p.k_w / 2;
        right = p.k_w - left - 1;
        const int pr = std::min(top, bottom), pc = std::min(left, right);
        cS = 1.0f / (2.0f * p.sigColor_x * p.sigColor_y);
        cR = 1.0f / (2.0f * p.sigSpace_x * p.sigColor_y);
        cRFinite = std::isfinite(cR);
        pairRows = 0;
        pairCols = 0;
        std::vector<int> forwardIndex(static_cast<size_t>(2 * pr + 1) * (2 * pc + 1), -1);
        auto pairSlot = [&](int di, int dj) {
            return static_cast<size_t>(di + pr) * (2 * pc + 1) + (dj + pc);
        };
        for (int di = -top; di <= bottom; ++di) {
            for (int dj = -left; dj <= right; ++dj) {
                Tap t;
                t.di = di;
                t.dj = dj;
                const bool paired = std::abs(di) <= pr && std::abs(dj) <= pc;
                if (di == 0 && dj == 0) {
                    t.kind = Tap::kCentre;
                } else if (paired && (di < 0 || (di == 0 && dj < 0))) {
                    t.kind = Tap::kMirrored;  // its partner (-di, -dj) comes later in the window
                } else {
                    t.kind = Tap::kComputed;
                    t.offset = static_cast<int>(offsets.size());
                    Offset o;
                    o.di = di;
                    o.dj = dj;
                    o.spatial = SpatialTerm(di, dj, cS);
                    o.spatialF = static_cast<float>(o.spatial);
                    // Rounding a double sum of two floats to float gives the float sum, so a
                    // float spatial term needs no double arithmetic.
                    o.floatSum = static_cast<double>(o.spatialF) == o.spatial;
                    o.paired = paired;
                    o.rows = paired ? di + 1 : 1;
                    o.x0 = paired ? std::min(0, -dj) : 0;
                    o.x1 = paired ? w + std::max(0, -dj) : w;
                    if (paired) {
                        forwardIndex[pairSlot(di, dj)] = t.offset;
                        pairRows = std::max(pairRows, di);
                        pairCols = std::max(pairCols, std::abs(dj));
                    }
                    offsets.push_back(o);
                }
                taps.push_back(t);
            }
        }
        for (Tap& t : taps)
            if (t.kind == Tap::kMirrored) t.offset = forwardIndex[pairSlot(-t.di, -t.dj)];

        // Rows are padded so that the vector loops, which run up to 16 (weights) and 24 (outputs)
        // columns past the last one, stay inside.
        ringLen = static_cast<size_t>(w) + 2 * static_cast<size_t>(pc) + 32;
        extLen = static_cast<size_t>(w) + left + right + static_cast<size_t>(pc) + 32;
        uint64_t total = 0;
        for (Offset& o : offsets) {
            o.base = static_cast<size_t>(total);
            total += static_cast<uint64_t>(o.rows) * ringLen;
        }
        total += static_cast<uint64_t>(p.k_h + bottom + 1) * extLen;
        return total <= kMaxRingFloats;
    }
};

// The exponent of a weight as the reference forms it: the spatial term in double precision plus
// the scaled squared difference in single precision, rounded to single precision.
inline float Exponent(float a, float b, const Offset& o, float cR) {
    return static_cast<float>(o.spatial + static_cast<double>(ScaledSquare(b - a, cR)));
}

inline float Weight(float v, bool skip) { return skip && v >= kUnderflow ? 0.0f : std::exp(-v); }

#if VELTRANO_HAS_AVX2_PATHS
// exp(x) for eight floats, without fused multiply-add: x = n ln2 + r with |r| <= ln2 / 2 (ln2 in
// two parts, the first exact when multiplied by n), e^r = 1 + r + r^2 p(r) with a degree-5
// polynomial p, and 2^n applied in one step or, where a result may be subnormal or n reaches 128,
// in two halves, so that every result rounds once (both give the same result where one step
// suffices). Compared with glibc's expf on every float from -104.5 to 88.8: never more than 1
// unit in the last place apart, and 0.8 % of them differ at all. The callers give 0 for x at or
// below -104 (as expf does), infinity above 88.7228; NaN stays NaN.
template <bool kTwoSteps>
VELTRANO_TARGET_AVX2 inline __m256 ExpCore(__m256 x) {
    const __m256 n = _mm256_round_ps(_mm256_mul_ps(x, _mm256_set1_ps(1.44269504088896341f)),
                                     _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    __m256 r = _mm256_sub_ps(x, _mm256_mul_ps(n, _mm256_set1_ps(0.693359375f)));
    r = _mm256_sub_ps(r, _mm256_mul_ps(n, _mm256_set1_ps(-2.12194440e-4f)));
    __m256 p = _mm256_set1_ps(1.9875691500e-4f);
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(1.3981999507e-3f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(8.3334519073e-3f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(4.1665795894e-2f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(1.6666665459e-1f));
    p = _mm256_add_ps(_mm256_mul_ps(p, r), _mm256_set1_ps(5.0000001201e-1f));
    p = _mm256_mul_ps(p, _mm256_mul_ps(r, r));
    p = _mm256_add_ps(_mm256_add_ps(p, r), _mm256_set1_ps(1.0f));
    const __m256i ni = _mm256_cvtps_epi32(n);
    const __m256i bias = _mm256_set1_epi32(127);
    if constexpr (!kTwoSteps) {
        return _mm256_mul_ps(
            p, _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(ni, bias), 23)));
    } else {
        const __m256i n1 = _mm256_srai_epi32(ni, 1);
        const __m256i n2 = _mm256_sub_epi32(ni, n1);
        const __m256 s1 = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(n1, bias), 23));
        const __m256 s2 = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(n2, bias), 23));
        return _mm256_mul_ps(_mm256_mul_ps(p, s1), s2);
    }
}

// Exponents of eight pairs of values (b - a their differences).
VELTRANO_TARGET_AVX2 inline __m256 Exponent8(__m256 a, __m256 b, const Offset& o, __m256 cR,
                                             bool cRFinite) {
    const __m256 d = _mm256_sub_ps(b, a);
    __m256 q = _mm256_mul_ps(_mm256_mul_ps(d, d), cR);
    if (!cRFinite) q = _mm256_andnot_ps(_mm256_cmp_ps(d, _mm256_setzero_ps(), _CMP_EQ_OQ), q);
    if (o.floatSum) return _mm256_add_ps(_mm256_set1_ps(o.spatialF), q);
    const __m256d s = _mm256_set1_pd(o.spatial);
    const __m128 lo = _mm256_cvtpd_ps(_mm256_add_pd(s, _mm256_cvtps_pd(_mm256_castps256_ps128(q))));
    const __m128 hi =
        _mm256_cvtpd_ps(_mm256_add_pd(s, _mm256_cvtps_pd(_mm256_extractf128_ps(q, 1))));
    return _mm256_set_m128(hi, lo);
}

// exp(-v) for eight exponents, for any v: 0 at or beyond the underflow, the careful form where a
// lane may be subnormal or overflow.
VELTRANO_TARGET_AVX2 inline __m256 WeightSlow(__m256 v) {
    const __m256 under = _mm256_cmp_ps(v, _mm256_set1_ps(kUnderflow), _CMP_GE_OQ);
    if (_mm256_movemask_ps(under) == 0xFF) return _mm256_setzero_ps();  // nothing to evaluate
    __m256 x = _mm256_sub_ps(_mm256_setzero_ps(), v);
    const __m256 over = _mm256_cmp_ps(x, _mm256_set1_ps(88.72283935546875f), _CMP_GT_OQ);
    // Lanes beyond the underflow are replaced by 0 below; bounding them first keeps the
    // arithmetic in range (NaN passes: max with the bound first).
    x = _mm256_max_ps(_mm256_set1_ps(-kUnderflow - 1.0f), x);
    __m256 e = ExpCore<true>(x);
    e = _mm256_blendv_ps(e, _mm256_set1_ps(HUGE_VALF), over);
    return _mm256_andnot_ps(under, e);
}

// Weights of one offset for columns [x0, x1) (rounded up to whole vectors, which the padding of
// the rows holds): `a` is the row of the pixels, `b` the row di below, both indexed by column.
// Two vectors at a time, so that their long chains overlap; where all sixteen exponents lie in
// [0, 87] (results normal, none to cut off) a branch-free one-step form serves, otherwise each
// vector takes the careful one. Both give the same weights there.
VELTRANO_TARGET_AVX2 void OffsetRowAvx2(const float* a, const float* b, float* w, const Offset& o,
                                        float cRs, bool cRFinite) {
    const __m256 cR = _mm256_set1_ps(cRs);
    const __m256 zero = _mm256_setzero_ps();
    const __m256 normal = _mm256_set1_ps(87.0f);
    const int dj = o.dj;
    int x = o.x0;
    for (; x < o.x1; x += 16) {
        const __m256 v0 =
            Exponent8(_mm256_loadu_ps(a + x), _mm256_loadu_ps(b + x + dj), o, cR, cRFinite);
        const __m256 v1 =
            Exponent8(_mm256_loadu_ps(a + x + 8), _mm256_loadu_ps(b + x + 8 + dj), o, cR, cRFinite);
        // In [0, 87], NaN excluded.
        const __m256 in0 = _mm256_and_ps(_mm256_cmp_ps(v0, zero, _CMP_GE_OQ),
                                         _mm256_cmp_ps(v0, normal, _CMP_LE_OQ));
        const __m256 in1 = _mm256_and_ps(_mm256_cmp_ps(v1, zero, _CMP_GE_OQ),
                                         _mm256_cmp_ps(v1, normal, _CMP_LE_OQ));
        if (_mm256_movemask_ps(_mm256_and_ps(in0, in1)) == 0xFF) {
            _mm256_storeu_ps(w + x, ExpCore<false>(_mm256_sub_ps(zero, v0)));
            _mm256_storeu_ps(w + x + 8, ExpCore<false>(_mm256_sub_ps(zero, v1)));
        } else {
            _mm256_storeu_ps(w + x, WeightSlow(v0));
            _mm256_storeu_ps(w + x + 8, WeightSlow(v1));
        }
    }
}

// One output row: weights summed in the window's order, then the weighted values, with the
// reference's operations and order for each pixel. Three blocks of eight pixels at a time, whose
// independent chains of sums overlap.
VELTRANO_TARGET_AVX2 void OutputRowAvx2(const float* const* weights, const float* const* values,
                                        size_t taps, float* out, int width) {
    const __m256 one = _mm256_set1_ps(1.0f);
    for (int x = 0; x < width; x += 24) {
        __m256 s0 = _mm256_setzero_ps(), s1 = s0, s2 = s0;
        for (size_t t = 0; t < taps; ++t) {
            const float* w = weights[t] + x;
            s0 = _mm256_add_ps(s0, _mm256_loadu_ps(w));
            s1 = _mm256_add_ps(s1, _mm256_loadu_ps(w + 8));
            s2 = _mm256_add_ps(s2, _mm256_loadu_ps(w + 16));
        }
        const __m256 i0 = _mm256_div_ps(one, s0), i1 = _mm256_div_ps(one, s1),
                     i2 = _mm256_div_ps(one, s2);
        __m256 a0 = _mm256_setzero_ps(), a1 = a0, a2 = a0;
        for (size_t t = 0; t < taps; ++t) {
            const float* w = weights[t] + x;
            const float* p = values[t] + x;
            a0 = _mm256_add_ps(
                a0, _mm256_mul_ps(_mm256_loadu_ps(p), _mm256_mul_ps(_mm256_loadu_ps(w), i0)));
            a1 = _mm256_add_ps(a1, _mm256_mul_ps(_mm256_loadu_ps(p + 8),
                                                 _mm256_mul_ps(_mm256_loadu_ps(w + 8), i1)));
            a2 = _mm256_add_ps(a2, _mm256_mul_ps(_mm256_loadu_ps(p + 16),
                                                 _mm256_mul_ps(_mm256_loadu_ps(w + 16), i2)));
        }
        if (x + 24 <= width) {
            _mm256_storeu_ps(out + x, a0);
            _mm256_storeu_ps(out + x + 8, a1);
            _mm256_storeu_ps(out + x + 16, a2);
        } else {
            alignas(32) float last[24];
            _mm256_store_ps(last, a0);
            _mm256_store_ps(last + 8, a1);
            _mm256_store_ps(last + 16, a2);
            std::memcpy(out + x, last, static_cast<size_t>(width - x) * sizeof(float));
        }
    }
}
#endif

void OffsetRowScalar(const float* a, const float* b, float* w, const Offset& o, float cR,
                     bool skip) {
    for (int x = o.x0; x < o.x1; ++x) w[x] = Weight(Exponent(a[x], b[x + o.dj], o, cR), skip);
}

void OutputRowScalar(const float* const* weights, const float* const* values, size_t taps,
                     float* out, int width) {
    for (int x = 0; x < width; ++x) {
        float sum = 0.0f;
        for (size_t t = 0; t < taps; ++t) sum += weights[t][x];
        const float inv = 1.0f / sum;
        float acc = 0.0f;
        for (size_t t = 0; t < taps; ++t) acc += values[t][x] * (weights[t][x] * inv);
        out[x] = acc;
    }
}

// Runs the fast path; false when its buffers cannot be had (the caller then takes the plain one).
bool SharedBilateral(const float* src, float* dst, const Plan& plan, bool avx2) {
    const int width = plan.width, height = plan.height;
    const int kh = plan.top + plan.bottom + 1;
    std::vector<float> rings, ext, tail, centre;
    std::vector<ptrdiff_t> colIndex;
    uint64_t ringFloats = 0;
    for (const Offset& o : plan.offsets) ringFloats += static_cast<uint64_t>(o.rows) * plan.ringLen;
    if (!TryResize(rings, ringFloats) || !TryResize(ext, static_cast<uint64_t>(kh) * plan.extLen) ||
        !TryResize(tail, static_cast<uint64_t>(plan.bottom) * width) ||
        !TryResize(centre, plan.ringLen) ||
        !TryResize(colIndex, static_cast<uint64_t>(width) + plan.left + plan.right))
        return false;
    for (size_t j = 0; j < colIndex.size(); ++j)
        colIndex[j] = MirrorIndex(static_cast<ptrdiff_t>(j) - plan.left, width);

    // The source rows that the extension repeats below the image are copied before any output is
    // written, so that an in-place call reads them unchanged; every other source row is read
    // before its own output row is written.
    for (int k = 0; k < plan.bottom; ++k)
        std::copy_n(src + MirrorIndex(height + k, height) * static_cast<size_t>(width), width,
                    tail.data() + static_cast<size_t>(k) * width);

    // Extended row e (from -top to height + bottom - 1), column x at index x + left.
    auto extRow = [&](int e) {
        return ext.data() + static_cast<size_t>((e + plan.top) % kh) * plan.extLen;
    };
    int built = -plan.top - 1;
    auto buildUpTo = [&](int last) {
        while (built < last) {
            ++built;
            const float* s = built >= height
                                 ? tail.data() + static_cast<size_t>(built - height) * width
                                 : src + MirrorIndex(built, height) * static_cast<size_t>(width);
            float* d = extRow(built);
            for (size_t j = 0; j < colIndex.size(); ++j) d[j] = s[colIndex[j]];
        }
    };
    // Ring row of offset o for image row r, column x at index x.
    auto ringRow = [&](const Offset& o, int r) {
        const int slot = ((r % o.rows) + o.rows) % o.rows;
        return rings.data() + o.base + static_cast<size_t>(slot) * plan.ringLen + plan.pairCols;
    };

    const bool skip = UnderflowKnown();
    const size_t taps = plan.taps.size();
    std::vector<const float*> weights(taps), values(taps);
    for (int r = -plan.pairRows; r < height; ++r) {
        buildUpTo(r + plan.bottom);
        for (const Offset& o : plan.offsets) {
            if (r < (o.paired ? -o.di : 0)) continue;  // rows above the image serve pairs only
            const float* a = extRow(r) + plan.left;
            const float* b = extRow(r + o.di) + plan.left;
#if VELTRANO_HAS_AVX2_PATHS
            if (avx2) {
                OffsetRowAvx2(a, b, ringRow(o, r), o, plan.cR, plan.cRFinite);
                continue;
            }
#endif
            OffsetRowScalar(a, b, ringRow(o, r), o, plan.cR, skip);
        }
        if (r < 0) continue;

        // The centre weight is exp(-0) = 1, or NaN for a value that is not finite (its
        // difference from itself is NaN), as the reference evaluates it.
        const float* c = extRow(r) + plan.left;
        for (int x = 0; x < width; ++x) centre[x] = 1.0f + (c[x] - c[x]);
        for (size_t t = 0; t < taps; ++t) {
            const Tap& tap = plan.taps[t];
            values[t] = extRow(r + tap.di) + plan.left + tap.dj;
            if (tap.kind == Tap::kCentre) {
                weights[t] = centre.data();
            } else if (tap.kind == Tap::kComputed) {
                weights[t] = ringRow(plan.offsets[tap.offset], r);
            } else {
                const Offset& o = plan.offsets[tap.offset];
                weights[t] = ringRow(o, r - o.di) - o.dj;
            }
        }
        float* out = dst + static_cast<size_t>(r) * width;
#if VELTRANO_HAS_AVX2_PATHS
        if (avx2) {
            OutputRowAvx2(weights.data(), values.data(), taps, out, width);
            continue;
        }
#endif
        OutputRowScalar(weights.data(), values.data(), taps, out, width);
    }
    return true;
}

void Bilateral(const float* src, float* dst, int width, int height, const struBilatralParam& p) {
    const Impl impl = ActiveImpl();
    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    // The fast path writes rows while it still reads later ones, which is safe for the same
    // buffer but not for buffers that merely overlap.
    const bool overlap = dst != src && dst < src + count && src < dst + count;
    if (impl != Impl::Reference && !overlap) {
        Plan plan;
        if (plan.build(width, height, p) && SharedBilateral(src, dst, plan, impl == Impl::Avx2))
            return;
    }
    ReferenceBilateral(src, dst, width, height, p);
}

}  // namespace
}  // namespace veltrano

int bilateralFilter_32F(float* src, float* dst, int width, int height, struBilatralParam* param) {
    if (src == nullptr || dst == nullptr || param == nullptr) return 1;
    if (width < 1 || height < 1) return 1;
    const int kw = param->k_w, kh = param->k_h;
    if (kw < 1 || kh < 1 || kw > veltrano::kMaxKernelSide || kh > veltrano::kMaxKernelSide)
        return 1;
    if (veltrano::PixelCount(width, height) > veltrano::kMaxElements) return 1;
    veltrano::Bilateral(src, dst, width, height, *param);
    return 1;
}

int bilateralFilter_16U(uint16_t* src, uint16_t* dst, int, int, struBilatralParam*) {
    if (src == nullptr || dst == nullptr) return -1;
    return 1;
}
