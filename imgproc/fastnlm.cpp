// Fast non-local-means denoising.
//
// Two implementations give the same bytes. The reference one follows the textbook form: for each
// displacement an integral image of squared differences over the whole patch-extended image,
// then four lookups per pixel. The fast one walks the image one output row at a time and keeps,
// for every displacement, the sums of squared differences down each column of the patch height
// (one row of them, added to and taken from as the patch moves down), so a row of distances
// costs two rows of squares and a short horizontal sum, and everything a row needs stays in the
// processor's caches. Displacements d and -d share their distances and weights (see
// PairedFilter). Distances are exact integers either way, the weights come from the same table
// and the same exp call, and each pixel accumulates its weights in the same displacement order,
// so the single-precision sums are the same too.
#include "veltrano/fastnlm.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/scratch_buffers.h"
#include "imgproc/window_helpers.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

constexpr int kTooLarge = -5;

// Distances below this come from a table of exponentials; larger ones call exp directly.
constexpr uint64_t kWeightTableSize = 65536;

// exp(-110) is about 1.7e-48, far below half the smallest float (7e-46), so every weight whose
// single-precision exponent reaches -110 rounds to exactly 0, whatever the C library's exp
// returns in its last bits. Distances from there on need no exp call; their weight is 0.
constexpr float kZeroWeightExponent = 110.0f;

// At most this many exp results past the table are kept (4 MiB).
constexpr uint64_t kMaxKeptWeights = uint64_t{1} << 20;

// Column sums and kept weights of symmetric displacements up to this many bytes take the paired
// path; larger search windows take every displacement on its own.
constexpr uint64_t kPairedBytes = uint64_t{2} << 20;

// Column sums of this many bytes (all displacements for one row) are kept at once; wider images
// or larger search windows take the displacements in groups.
constexpr size_t kColumnSumBytes = size_t{1} << 20;

float WeightOf(uint64_t distance, float k) {
    const float exponent = -static_cast<float>(distance) * k;
    return static_cast<float>(std::exp(static_cast<double>(exponent)));
}

// The radii in effect and the filtering constant. A patch or search window wider than the image
// is cut to the image's width or height minus one on that axis (see the header); the described
// filter is defined only up to there, and beyond it the work would grow without bound.
struct Settings {
    int width = 0;
    int height = 0;
    int px = 0, py = 0;  // patch radii across and down
    int sx = 0, sy = 0;  // search radii across and down
    float k = 0.0f;      // 1 / (h^2 x patch area), in single precision

    Settings(int w, int h, float strength, int p, int s) : width(w), height(h) {
        px = std::min(p, std::max(w, 1) - 1);
        py = std::min(p, std::max(h, 1) - 1);
        sx = std::min(s, std::max(w, 1) - 1);
        sy = std::min(s, std::max(h, 1) - 1);
        const ptrdiff_t area =
            (2 * static_cast<ptrdiff_t>(px) + 1) * (2 * static_cast<ptrdiff_t>(py) + 1);
        k = 1.0f / (strength * strength * static_cast<float>(area));
    }
    int patchW() const { return 2 * px + 1; }
    int patchH() const { return 2 * py + 1; }
    int reachX() const { return px + sx; }
    int reachY() const { return py + sy; }
    // The largest possible distance: every squared difference 255^2.
    uint64_t maxDistance() const {
        return static_cast<uint64_t>(patchW()) * static_cast<uint64_t>(patchH()) * 255u * 255u;
    }
};

// The source mirrored by the reach of patch plus search on every side; it serves as the
// reference image, the displaced image and the value image, so the loops need no border tests.
struct Extended {
    std::vector<uint8_t> pixels;
    ptrdiff_t stride = 0;
    int rx = 0, ry = 0;

    bool build(const uint8_t* src, const Settings& st) {
        rx = st.reachX();
        ry = st.reachY();
        stride = static_cast<ptrdiff_t>(st.width) + 2 * static_cast<ptrdiff_t>(rx);
        const uint64_t rows = static_cast<uint64_t>(st.height) + 2 * static_cast<uint64_t>(ry);
        if (!ScratchFits<uint8_t>(SaturatingProduct(static_cast<uint64_t>(stride), rows)))
            return false;
        pixels = ExtendMirrorAnyMargin(src, st.height, st.width, BorderMargins{ry, ry, rx, rx});
        return true;
    }
    const uint8_t* at(ptrdiff_t x, ptrdiff_t y) const {
        return pixels.data() + (y + ry) * stride + x + rx;
    }
};

// table[d] = exp(-d k) for every distance below `limit`, and 0 at `limit` itself. Distances from
// `zeroFrom` on have weight 0; `limit` is the smaller of zeroFrom and the table size, so a
// distance d reads table[min(d, limit)] unless kWeightTableSize <= d < zeroFrom, where the
// weight is exp called directly. Those direct results are kept, for up to `lookups` distances
// (there is no point keeping more than the filter will ask for), since a strong filter on a
// noisy image asks for the same large distances again and again.
struct Weights {
    std::vector<float> table;
    std::vector<float> beyond;  // exp results of distances from kWeightTableSize on; -1 not yet
    uint64_t limit = 0;
    uint64_t zeroFrom = 0;
    float k = 0.0f;

    bool build(const Settings& st, uint64_t lookups) {
        k = st.k;
        // The smallest distance whose exponent reaches the zero bound; float(d) * k grows with d,
        // so a binary search finds it. Past the largest possible distance it does not matter.
        const uint64_t never = st.maxDistance() + 1;
        uint64_t lo = 0, hi = never;
        while (lo < hi) {
            const uint64_t mid = lo + (hi - lo) / 2;
            if (static_cast<float>(mid) * k >= kZeroWeightExponent)
                hi = mid;
            else
                lo = mid + 1;
        }
        zeroFrom = lo;
        limit = std::min(zeroFrom, kWeightTableSize);
        if (!TryResize(table, limit + 1)) return false;
        for (uint64_t d = 0; d < limit; ++d) table[d] = WeightOf(d, k);
        table[limit] = 0.0f;
        if (zeroFrom > kWeightTableSize) {
            if (!TryResize(beyond,
                           std::min({zeroFrom - kWeightTableSize, kMaxKeptWeights, lookups})))
                return false;
            std::fill(beyond.begin(), beyond.end(), -1.0f);
        }
        return true;
    }
    // True when every distance reads the table: past `limit` all weights are 0.
    bool tableOnly() const { return zeroFrom <= kWeightTableSize; }
    // Distances are clamped to `limit` when they read the table only; otherwise they stay as
    // they are, for the exp calls.
    template <class Sum>
    Sum clampAt() const {
        return tableOnly() ? static_cast<Sum>(limit) : std::numeric_limits<Sum>::max();
    }

    float operator()(uint64_t d) {
        if (d < limit) return table[d];
        if (d >= zeroFrom) return 0.0f;
        if (d - kWeightTableSize >= beyond.size()) return WeightOf(d, k);
        float& w = beyond[d - kWeightTableSize];
        if (w < 0.0f) w = WeightOf(d, k);
        return w;
    }
};

// Rounds half up and clamps as the filter's last step.
uint8_t FinalValue(float valueSum, float weightSum) {
    float v = valueSum / weightSum + 0.5f;
    if (!(v < 255.0f)) v = 255.0f;
    if (!(v > 0.0f)) v = 0.0f;
    return static_cast<uint8_t>(v);
}

void FinishRow(const float* values, const float* weights, uint8_t* out, int width) {
    for (int x = 0; x < width; ++x) out[x] = FinalValue(values[x], weights[x]);
}

// ---- The reference implementation: one integral image per displacement. ----

bool DenoiseReference(const Extended& e, uint8_t* out, const Settings& st) {
    const ptrdiff_t w = st.width, ht = st.height;
    const ptrdiff_t pw = st.patchW(), ph = st.patchH();
    const ptrdiff_t intW = w + pw, intH = ht + ph;
    std::vector<uint64_t> integral;
    std::vector<float> weightSum, valueSum, table;
    if (!TryResize(integral,
                   SaturatingProduct(static_cast<uint64_t>(intW), static_cast<uint64_t>(intH))) ||
        !TryResize(weightSum, PixelCount(w, ht)) || !TryResize(valueSum, PixelCount(w, ht)) ||
        !TryResize(table, kWeightTableSize))
        return false;
    for (uint64_t d = 0; d < kWeightTableSize; ++d) table[d] = WeightOf(d, st.k);

    for (ptrdiff_t dy = -st.sy; dy <= st.sy; ++dy) {
        for (ptrdiff_t dx = -st.sx; dx <= st.sx; ++dx) {
            // Integral image of squared differences between the image and its displaced copy,
            // both over the patch-extended area. Row and column 0 stay 0.
            for (ptrdiff_t i = 0; i < intH - 1; ++i) {
                const uint8_t* ref = e.at(-st.px, i - st.py);
                const uint8_t* moved = e.at(-st.px + dx, i - st.py + dy);
                const uint64_t* above = integral.data() + i * intW + 1;
                uint64_t* row = integral.data() + (i + 1) * intW + 1;
                uint64_t running = 0;
                for (ptrdiff_t j = 0; j < intW - 1; ++j) {
                    const int64_t diff = static_cast<int64_t>(ref[j]) - moved[j];
                    running += static_cast<uint64_t>(diff * diff);
                    row[j] = above[j] + running;
                }
            }
            for (ptrdiff_t y = 0; y < ht; ++y) {
                const uint64_t* top = integral.data() + y * intW;
                const uint64_t* bottom = integral.data() + (y + ph) * intW;
                const uint8_t* values = e.at(dx, y + dy);
                float* ws = weightSum.data() + y * w;
                float* vs = valueSum.data() + y * w;
                for (ptrdiff_t x = 0; x < w; ++x) {
                    // Unsigned wrap-around cancels in the sum, which is never negative.
                    const uint64_t distance = bottom[x + pw] - top[x + pw] - bottom[x] + top[x];
                    const float weight =
                        distance < kWeightTableSize ? table[distance] : WeightOf(distance, st.k);
                    ws[x] += weight;
                    vs[x] += weight * static_cast<float>(values[x]);
                }
            }
        }
    }
    for (ptrdiff_t y = 0; y < ht; ++y)
        FinishRow(valueSum.data() + y * w, weightSum.data() + y * w, out + y * w, st.width);
    return true;
}

// ---- The fast implementation, in plain code. ----

// sums[j] += (ref[j] - moved[j])^2 - (refOld[j] - movedOld[j])^2: the patch column moves down by
// one row. With refOld == movedOld it only adds a row.
template <class Sum>
void MoveColumnSums(Sum* sums, const uint8_t* ref, const uint8_t* moved, const uint8_t* refOld,
                    const uint8_t* movedOld, ptrdiff_t from, ptrdiff_t n) {
    for (ptrdiff_t j = from; j < n; ++j) {
        const int a = ref[j] - moved[j], b = refOld[j] - movedOld[j];
        sums[j] = sums[j] + static_cast<Sum>(a * a) - static_cast<Sum>(b * b);
    }
}

// distances[x] = sums[x] + ... + sums[x + patchW - 1], as a running window sum, but no larger
// than clampAt (see Weights::clampAt). Unsigned wrap-around in the running value cancels: every
// window sum itself is in range.
template <class Sum>
void WindowSums(const Sum* sums, Sum* distances, ptrdiff_t n, int patchW, Sum clampAt) {
    Sum s = 0;
    for (int t = 0; t < patchW; ++t) s += sums[t];
    distances[0] = std::min(s, clampAt);
    for (ptrdiff_t x = 1; x < n; ++x) {
        s = s + sums[x + patchW - 1] - sums[x - 1];
        distances[x] = std::min(s, clampAt);
    }
}

// The weight of every distance of a row. Plain loads: on the processors this was measured on,
// eight of them cost about half of one vector gather instruction.
template <class Sum>
void LookUpWeights(const Sum* distances, float* out, ptrdiff_t n, Weights& weights) {
    if (weights.tableOnly()) {  // the distances come clamped to the table
        const float* table = weights.table.data();
        for (ptrdiff_t x = 0; x < n; ++x) out[x] = table[distances[x]];
    } else {
        for (ptrdiff_t x = 0; x < n; ++x) out[x] = weights(distances[x]);
    }
}

// Adds the contributions of `count` displacements, in order, to each pixel's sums: weights[i] and
// values[i] hold those of displacement i for the pixels of the row.
void AccumulateRow(const float* const* weights, const uint8_t* const* values, size_t count,
                   float* ws, float* vs, ptrdiff_t from, ptrdiff_t n) {
    for (size_t i = 0; i < count; ++i) {
        const float* w = weights[i];
        const uint8_t* v = values[i];
        for (ptrdiff_t x = from; x < n; ++x) {
            ws[x] += w[x];
            vs[x] += w[x] * static_cast<float>(v[x]);
        }
    }
}

// ---- The same steps with AVX2 vectors, for 32-bit sums. ----

#if VELTRANO_HAS_AVX2_PATHS
VELTRANO_TARGET_AVX2 __m256i Widen16(const uint8_t* p) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

VELTRANO_TARGET_AVX2 void MoveColumnSumsAvx2(uint32_t* sums, const uint8_t* ref,
                                             const uint8_t* moved, const uint8_t* refOld,
                                             const uint8_t* movedOld, ptrdiff_t n) {
    ptrdiff_t j = 0;
    for (; j + 16 <= n; j += 16) {
        // Differences lie in -255..255 and their squares below 65536: 16-bit lanes hold them.
        const __m256i a = _mm256_sub_epi16(Widen16(ref + j), Widen16(moved + j));
        const __m256i b = _mm256_sub_epi16(Widen16(refOld + j), Widen16(movedOld + j));
        const __m256i aa = _mm256_mullo_epi16(a, a), bb = _mm256_mullo_epi16(b, b);
        __m256i* s = reinterpret_cast<__m256i*>(sums + j);
        const __m256i lo = _mm256_sub_epi32(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(aa)),
                                            _mm256_cvtepu16_epi32(_mm256_castsi256_si128(bb)));
        const __m256i hi = _mm256_sub_epi32(_mm256_cvtepu16_epi32(_mm256_extracti128_si256(aa, 1)),
                                            _mm256_cvtepu16_epi32(_mm256_extracti128_si256(bb, 1)));
        _mm256_storeu_si256(s, _mm256_add_epi32(_mm256_loadu_si256(s), lo));
        _mm256_storeu_si256(s + 1, _mm256_add_epi32(_mm256_loadu_si256(s + 1), hi));
    }
    MoveColumnSums<uint32_t>(sums, ref, moved, refOld, movedOld, j, n);
}

// Narrow patches add their columns directly; wide ones take the running sum.
VELTRANO_TARGET_AVX2 void WindowSumsAvx2(const uint32_t* sums, uint32_t* distances, ptrdiff_t n,
                                         int patchW, uint32_t clampAt) {
    if (patchW > 9) return WindowSums<uint32_t>(sums, distances, n, patchW, clampAt);
    const __m256i top = _mm256_set1_epi32(static_cast<int>(clampAt));
    ptrdiff_t x = 0;
    for (; x + 8 <= n; x += 8) {
        __m256i s = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + x));
        for (int t = 1; t < patchW; ++t)
            s = _mm256_add_epi32(
                s, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sums + x + t)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(distances + x), _mm256_min_epu32(s, top));
    }
    for (; x < n; ++x) {
        uint32_t s = 0;
        for (int t = 0; t < patchW; ++t) s += sums[x + t];
        distances[x] = std::min(s, clampAt);
    }
}

// The sums of eight pixels stay in registers while all displacements are added, in order. The
// products are rounded to single precision before they are added, as in AccumulateRow.
VELTRANO_TARGET_AVX2 void AccumulateRowAvx2(const float* const* weights,
                                            const uint8_t* const* values, size_t count, float* ws,
                                            float* vs, ptrdiff_t n) {
    ptrdiff_t x = 0;
    for (; x + 8 <= n; x += 8) {
        __m256 wsum = _mm256_loadu_ps(ws + x), vsum = _mm256_loadu_ps(vs + x);
        for (size_t i = 0; i < count; ++i) {
            const __m256 w = _mm256_loadu_ps(weights[i] + x);
            const __m256 v = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(
                _mm_loadl_epi64(reinterpret_cast<const __m128i*>(values[i] + x))));
            wsum = _mm256_add_ps(wsum, w);
            vsum = _mm256_add_ps(vsum, _mm256_mul_ps(w, v));
        }
        _mm256_storeu_ps(ws + x, wsum);
        _mm256_storeu_ps(vs + x, vsum);
    }
    AccumulateRow(weights, values, count, ws, vs, x, n);
}

// The final rounding of FinalValue; no sum is NaN (every weight sum is at least 1), so min and
// max clamp the same way as its comparisons.
VELTRANO_TARGET_AVX2 void FinishRowAvx2(const float* values, const float* weights, uint8_t* out,
                                        int width) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 v =
            _mm256_add_ps(_mm256_div_ps(_mm256_loadu_ps(values + x), _mm256_loadu_ps(weights + x)),
                          _mm256_set1_ps(0.5f));
        v = _mm256_max_ps(_mm256_min_ps(v, _mm256_set1_ps(255.0f)), _mm256_setzero_ps());
        const __m256i i = _mm256_cvttps_epi32(v);
        const __m128i words =
            _mm_packus_epi32(_mm256_castsi256_si128(i), _mm256_extracti128_si256(i, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
    }
    for (; x < width; ++x) out[x] = FinalValue(values[x], weights[x]);
}
#endif

// The row steps of one implementation level. Sums of 64 bits (patches too large for 32) have
// only the plain steps.
template <class Sum>
struct RowSteps {
    bool avx2 = false;

#if VELTRANO_HAS_AVX2_PATHS
    static constexpr bool kVector = std::is_same_v<Sum, uint32_t>;
#else
    static constexpr bool kVector = false;
#endif

    void move(Sum* sums, const uint8_t* ref, const uint8_t* moved, const uint8_t* refOld,
              const uint8_t* movedOld, ptrdiff_t n) const {
#if VELTRANO_HAS_AVX2_PATHS
        if constexpr (kVector) {
            if (avx2) return MoveColumnSumsAvx2(sums, ref, moved, refOld, movedOld, n);
        }
#endif
        MoveColumnSums<Sum>(sums, ref, moved, refOld, movedOld, 0, n);
    }
    void window(const Sum* sums, Sum* distances, ptrdiff_t n, int patchW, Sum clampAt) const {
#if VELTRANO_HAS_AVX2_PATHS
        if constexpr (kVector) {
            if (avx2) return WindowSumsAvx2(sums, distances, n, patchW, clampAt);
        }
#endif
        WindowSums<Sum>(sums, distances, n, patchW, clampAt);
    }
    void accumulate(const float* const* weights, const uint8_t* const* values, size_t count,
                    float* ws, float* vs, ptrdiff_t n) const {
#if VELTRANO_HAS_AVX2_PATHS
        if (avx2) return AccumulateRowAvx2(weights, values, count, ws, vs, n);
#endif
        AccumulateRow(weights, values, count, ws, vs, 0, n);
    }
    void finish(const float* values, const float* weights, uint8_t* out, int width) const {
#if VELTRANO_HAS_AVX2_PATHS
        if (avx2) return FinishRowAvx2(values, weights, out, width);
#endif
        FinishRow(values, weights, out, width);
    }
};

// The distances of one displacement (a, b), row after row, over the columns first .. first+n-1:
// per column of the patch-extended row, the squared differences summed over the patch height
// around the current row, then summed across the patch width.
template <class Sum>
struct DistanceRows {
    const Extended* e = nullptr;
    const Settings* st = nullptr;
    ptrdiff_t a = 0, b = 0, first = 0, n = 0;
    Sum* sums = nullptr;  // n + patch width - 1 of them

    const uint8_t* ref(ptrdiff_t row) const { return e->at(first - st->px, row); }
    const uint8_t* moved(ptrdiff_t row) const { return e->at(first - st->px + a, row + b); }

    // Writes the distances of row y: the column sums are set up afresh for the first row and
    // moved down by one row for each next one.
    void row(ptrdiff_t y, bool first, Sum* distances, const RowSteps<Sum>& steps,
             Sum clampAt) const {
        const ptrdiff_t cols = n + st->patchW() - 1;
        if (first) {
            std::fill(sums, sums + cols, Sum(0));
            for (ptrdiff_t r = y - st->py; r <= y + st->py; ++r)
                steps.move(sums, ref(r), moved(r), ref(r), ref(r), cols);
        } else {
            const ptrdiff_t in = y + st->py, out = y - st->py - 1;
            steps.move(sums, ref(in), moved(in), ref(out), moved(out), cols);
        }
        steps.window(sums, distances, n, st->patchW(), clampAt);
    }
};

// Symmetric displacements share their work: the squared differences of -d are those of d shifted
// by d, so the weight of pixel (x, y) at displacement -d is the weight of (x - a, y - b) at
// d = (a, b). For each d of one half of the search window (b > 0, or b = 0 and a > 0) the weights
// are computed once, over w + |a| columns, and kept for the b + 1 rows until -d needs them. Each
// output row then adds the contributions of every displacement in the order dy outer, dx inner,
// the order in which each pixel's single-precision sums must grow.
template <class Sum>
class PairedFilter {
public:
    // Bytes of column sums and kept weights the filter needs; beyond kPairedBytes the grouped
    // path runs instead.
    static uint64_t WorkBytes(const Settings& st) {
        const uint64_t w = static_cast<uint64_t>(st.width), sx = static_cast<uint64_t>(st.sx);
        // Columns n = w + |a| summed over a = -sx .. sx, and over a = 1 .. sx for b = 0.
        const uint64_t fullRow = (2 * sx + 1) * w + sx * (sx + 1),
                       halfRow = sx * w + sx * (sx + 1) / 2;
        const uint64_t halfCount = sx + static_cast<uint64_t>(st.sy) * (2 * sx + 1);
        uint64_t bytes =
            (halfRow + static_cast<uint64_t>(st.sy) * fullRow + halfCount * st.patchW()) *
            sizeof(Sum);
        for (uint64_t b = 0; b <= static_cast<uint64_t>(st.sy); ++b)
            bytes += (b + 1) * (b == 0 ? halfRow : fullRow) * sizeof(float);
        return bytes;
    }

    PairedFilter(const Extended& e, const Settings& st, Weights& weights, RowSteps<Sum> steps)
        : e_(e), st_(st), weights_(weights), steps_(steps) {
        for (ptrdiff_t b = 0; b <= st.sy; ++b)
            for (ptrdiff_t a = b == 0 ? 1 : -st.sx; a <= st.sx; ++a) {
                Half h;
                h.rows.e = &e;
                h.rows.st = &st;
                h.rows.a = a;
                h.rows.b = b;
                h.rows.first = -std::max<ptrdiff_t>(a, 0);
                h.rows.n = st.width + std::abs(a);
                half_.push_back(h);
            }
    }

    bool run(uint8_t* out) {
        const ptrdiff_t w = st_.width, widest = w + st_.sx;
        std::vector<Sum> sums, distances;
        std::vector<float> kept, ws, vs;
        std::vector<const float*> rowWeights;  // one row of the search window at a time
        std::vector<const uint8_t*> rowValues;
        const uint64_t side = 2 * static_cast<uint64_t>(st_.sx) + 1;
        if (!TryResize(rowWeights, side) || !TryResize(rowValues, side)) return false;
        if (!TryResize(ones_, static_cast<uint64_t>(w))) return false;
        std::fill(ones_.begin(), ones_.end(), 1.0f);
        uint64_t sumCount = 0, keptCount = 0;
        for (const Half& h : half_) {
            sumCount += static_cast<uint64_t>(h.rows.n) + st_.patchW() - 1;
            keptCount += static_cast<uint64_t>(h.rows.b + 1) * static_cast<uint64_t>(h.rows.n);
        }
        if (!TryResize(sums, sumCount) || !TryResize(kept, keptCount) ||
            !TryResize(distances, static_cast<uint64_t>(widest)) ||
            !TryResize(ws, static_cast<uint64_t>(w)) || !TryResize(vs, static_cast<uint64_t>(w)))
            return false;
        Sum* nextSums = sums.data();
        float* nextKept = kept.data();
        for (Half& h : half_) {
            h.rows.sums = nextSums;
            h.kept = nextKept;
            nextSums += h.rows.n + st_.patchW() - 1;
            nextKept += (h.rows.b + 1) * h.rows.n;
        }

        // Rows above the image hold the weights that -d needs on the first rows.
        for (ptrdiff_t y = -st_.sy; y < st_.height; ++y) {
            for (const Half& h : half_) {
                if (y < -h.rows.b) continue;
                h.rows.row(y, y == -h.rows.b, distances.data(), steps_, weights_.clampAt<Sum>());
                LookUpWeights(distances.data(), keptRow(h, y), h.rows.n, weights_);
            }
            if (y < 0) continue;
            std::fill(ws.begin(), ws.end(), 0.0f);
            std::fill(vs.begin(), vs.end(), 0.0f);
            for (ptrdiff_t dy = -st_.sy; dy <= st_.sy; ++dy) {
                for (ptrdiff_t dx = -st_.sx; dx <= st_.sx; ++dx) {
                    rowWeights[static_cast<size_t>(dx + st_.sx)] = weightsAt(dx, dy, y);
                    rowValues[static_cast<size_t>(dx + st_.sx)] = e_.at(dx, y + dy);
                }
                steps_.accumulate(rowWeights.data(), rowValues.data(), rowWeights.size(), ws.data(),
                                  vs.data(), w);
            }
            steps_.finish(vs.data(), ws.data(), out + y * w, st_.width);
        }
        return true;
    }

private:
    struct Half {
        DistanceRows<Sum> rows;
        float* kept = nullptr;  // b + 1 rows of n weights, row y at (y + b) mod (b + 1)
    };

    float* keptRow(const Half& h, ptrdiff_t y) const {
        return h.kept + ((y + h.rows.b) % (h.rows.b + 1)) * h.rows.n;
    }

    // The weights of pixels 0 .. w-1 of row y at displacement (dx, dy).
    const float* weightsAt(ptrdiff_t dx, ptrdiff_t dy, ptrdiff_t y) {
        if (dx == 0 && dy == 0) return ones_.data();  // distance 0, weight exp(0) = 1
        const bool own = dy > 0 || (dy == 0 && dx > 0);
        const ptrdiff_t a = own ? dx : -dx, b = own ? dy : -dy;
        const Half& h = half_[static_cast<size_t>(
            b == 0 ? a - 1 : st_.sx + (b - 1) * (2 * st_.sx + 1) + a + st_.sx)];
        // Own: pixel x is column x of the row. Mirrored: pixel x takes column x - a of row y - b.
        return own ? keptRow(h, y) - h.rows.first : keptRow(h, y - b) + (-a - h.rows.first);
    }

    const Extended& e_;
    const Settings& st_;
    Weights& weights_;
    RowSteps<Sum> steps_;
    std::vector<Half> half_;
    std::vector<float> ones_;  // the weights of the zero displacement
};

// The fallback for search windows too large to keep the weights of half of them: every
// displacement on its own. Each output row gets the contributions of every displacement in
// order; when the column sums of all displacements do not fit in kColumnSumBytes, the
// displacements are taken in groups (still in order), each group over the whole image, and the
// per-pixel sums span the whole image instead of one row.
template <class Sum>
bool DenoiseGrouped(const Extended& e, uint8_t* out, const Settings& st, Weights& weights,
                    RowSteps<Sum> steps) {
    const int w = st.width, ht = st.height;
    const ptrdiff_t cols = static_cast<ptrdiff_t>(w) + st.patchW() - 1;
    const ptrdiff_t perGroup =
        std::max<ptrdiff_t>(1, static_cast<ptrdiff_t>(kColumnSumBytes / (sizeof(Sum) * cols)));
    const ptrdiff_t side = 2 * static_cast<ptrdiff_t>(st.sx) + 1;
    const ptrdiff_t count = side * (2 * static_cast<ptrdiff_t>(st.sy) + 1);
    const ptrdiff_t group = std::min(count, perGroup);
    const bool oneGroup = group == count;
    const uint64_t accumulated = oneGroup ? static_cast<uint64_t>(w) : PixelCount(w, ht);

    std::vector<Sum> sums, distances;
    std::vector<float> rowWeights, ws, vs;
    if (!TryResize(sums, static_cast<uint64_t>(group) * static_cast<uint64_t>(cols)) ||
        !TryResize(distances, static_cast<uint64_t>(w)) ||
        !TryResize(rowWeights, static_cast<uint64_t>(w)) || !TryResize(ws, accumulated) ||
        !TryResize(vs, accumulated))
        return false;

    for (ptrdiff_t first = 0; first < count; first += group) {
        const ptrdiff_t last = std::min(count, first + group);
        for (ptrdiff_t y = 0; y < ht; ++y) {
            float* wRow = ws.data() + (oneGroup ? 0 : y * w);
            float* vRow = vs.data() + (oneGroup ? 0 : y * w);
            if (oneGroup) {
                std::fill(wRow, wRow + w, 0.0f);
                std::fill(vRow, vRow + w, 0.0f);
            }
            for (ptrdiff_t i = first; i < last; ++i) {
                DistanceRows<Sum> rows;
                rows.e = &e;
                rows.st = &st;
                rows.a = i % side - st.sx;
                rows.b = i / side - st.sy;
                rows.n = w;
                rows.sums = sums.data() + (i - first) * cols;
                rows.row(y, y == 0, distances.data(), steps, weights.clampAt<Sum>());
                LookUpWeights(distances.data(), rowWeights.data(), w, weights);
                const float* weightRow = rowWeights.data();
                const uint8_t* valueRow = e.at(rows.a, y + rows.b);
                steps.accumulate(&weightRow, &valueRow, 1, wRow, vRow, w);
            }
            if (last == count) steps.finish(vRow, wRow, out + y * static_cast<ptrdiff_t>(w), w);
        }
    }
    return true;
}

template <class Sum>
bool DenoiseFast(const Extended& e, uint8_t* out, const Settings& st, Weights& weights,
                 RowSteps<Sum> steps) {
    if (PairedFilter<Sum>::WorkBytes(st) > kPairedBytes)
        return DenoiseGrouped<Sum>(e, out, st, weights, steps);
    return PairedFilter<Sum>(e, st, weights, steps).run(out);
}

int Denoise(const uint8_t* src, uint8_t* dst, const Settings& st) {
    Extended e;
    if (!e.build(src, st)) return kTooLarge;
    const Impl level = ActiveImpl();
    if (level == Impl::Reference) return DenoiseReference(e, dst, st) ? 1 : kTooLarge;
    Weights weights;
    const uint64_t lookups = SaturatingProduct(PixelCount(st.width, st.height),
                                               PixelCount(2 * st.sx + 1, 2 * st.sy + 1));
    if (!weights.build(st, lookups)) return kTooLarge;
    bool done = false;
    if (st.maxDistance() < (uint64_t{1} << 32)) {
        done = DenoiseFast<uint32_t>(e, dst, st, weights, RowSteps<uint32_t>{level >= Impl::Avx2});
    } else {
        done = DenoiseFast<uint64_t>(e, dst, st, weights, RowSteps<uint64_t>{level >= Impl::Avx2});
    }
    return done ? 1 : kTooLarge;
}

}  // namespace
}  // namespace veltrano

int FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p, int s) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (p < 0 || s < 0 || p > veltrano::kMaxWindowRadius || s > veltrano::kMaxWindowRadius)
        return -4;
    const veltrano::Settings settings(width, height, h, p, s);
    // h = 0 (or an h so small that h^2 underflows) makes k infinite and every weight 0 * inf.
    if (!std::isfinite(h) || !std::isfinite(settings.k)) return -3;
    if (width < 1 || height < 1) return 1;
    // An absurd size is refused before anything is allocated or read, and a failed allocation
    // is reported (below) rather than left to crash the host.
    if (veltrano::PixelCount(width, height) > veltrano::kMaxElements) return veltrano::kTooLarge;
    // Both implementations read only their own mirrored copy of the source, made before anything
    // is written, so an in-place call needs no temporary output.
    try {
        return veltrano::Denoise(src, dst, settings);
    } catch (const std::bad_alloc&) {
        return veltrano::kTooLarge;  // nothing has been written yet when an allocation fails
    }
}
