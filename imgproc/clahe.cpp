// Contrast-limited adaptive histogram equalisation: one implementation for the four element
// types and their _Manual forms.
//
// Two implementations give the same result bit for bit. The straightforward one (the Reference
// level) counts float histograms tile by tile and maps pixel by pixel, as the algorithm is
// written down. The fast one counts integers a tile row at a time, builds the tile row's
// mapping functions side by side, and maps a whole image row at once, eight pixels to a vector
// where the processor has AVX2.
#include "veltrano/clahe.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>
#endif

namespace veltrano {
namespace {

constexpr int kTableFailed = -2;
constexpr int kHistogramFailed = -3;
constexpr int kMappingFailed = -4;

struct FreeDeleter {
    void operator()(float* p) const { std::free(p); }
};
using FloatTable = std::unique_ptr<float[], FreeDeleter>;

// Zeroed table of `count` floats, or null when it cannot be had.
FloatTable AllocateTable(size_t count) {
    return FloatTable(static_cast<float*>(std::calloc(count, sizeof(float))));
}

// Tile layout and the per-call constants shared by both stages.
struct Tiling {
    int width = 0;
    int height = 0;
    int nx = 0;
    int ny = 0;
    int tileW = 0;
    int tileH = 0;
    int bins = 0;
    float binScale = 0.0f;
};

template <class T>
int BinOf(T v, const Tiling& t) {
    // Converting a double beyond the float range is not defined; such values land in the top
    // bin either way.
    double d = static_cast<double>(v);
    if (d > FLT_MAX) d = FLT_MAX;
    if (d < -FLT_MAX) d = -FLT_MAX;
    const float scaled = static_cast<float>(d) * t.binScale;
    if (scaled > static_cast<float>(t.bins - 1)) return t.bins - 1;
    if (!(scaled > 0.0f)) return 0;  // negative values and NaN
    return static_cast<int>(scaled);
}

// Where a pixel lies along one axis relative to the tile centres: before the first centre,
// after the last one, or between centres `index` and index + 1 with weight w for the latter.
struct AxisPlace {
    enum Kind { kFirst, kLast, kBetween } kind;
    int index;
    float weight;
};

AxisPlace PlaceOnAxis(int pos, int tile, int count) {
    const int half = tile / 2;
    const int last = (count - 1) * tile + half;
    if (pos <= half) return {AxisPlace::kFirst, 0, 0.0f};
    if (pos >= last) return {AxisPlace::kLast, count - 1, 0.0f};
    const int index = (pos - half) / tile;
    const float weight = static_cast<float>(pos - (index * tile + half)) / static_cast<float>(tile);
    return {AxisPlace::kBetween, index, weight};
}

template <class T>
T StoreMapped(float r, float outMax) {
    float v = r * outMax;
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(v);
    } else {
        const float high = std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f;
        v = v + 0.5f;
        if (v > high) v = high;
        if (!(v >= 0.0f)) v = 0.0f;  // also a NaN mapping
        return static_cast<T>(v + 0.5f);
    }
}

// ---------------------------------------------------------------------------------------------
// Reference: float histograms per tile, then every pixel on its own.

// Clip, redistribution and cumulative mapping of one tile's histogram.
void BuildMapping(float* hist, float* map, const Tiling& t, int peak) {
    const int bins = t.bins;
    const float limit = static_cast<float>(peak);
    int64_t excess = 0;  // 64 bits: a very negative peak adds more than 2^31 in total
    for (int b = 0; b < bins; ++b) {
        if (hist[b] > limit) {
            excess += static_cast<int64_t>(hist[b] - limit);
            hist[b] = limit;
        }
    }

    // k is one past the first occupied bin. When no bin is occupied (a peak of 0 clips them
    // all) there is nothing to map: k stays at the end and the mapping stays 0.
    int k = 0;
    while (k < bins && !(std::fabs(hist[k]) >= 1e-16f)) ++k;
    if (k < bins) ++k;

    // Nothing goes to the first occupied bin or below it, and there is no second clip.
    const int spread = bins - k > 1 ? bins - k : 1;
    const float inc = static_cast<float>(excess) / static_cast<float>(spread);
    for (int b = k; b < bins; ++b) hist[b] += inc;

    // The denominator takes the count of bin k, one past the first occupied bin; hosts' images
    // were calibrated against exactly this curve. A tile whose only occupied bin is the last one
    // leaves k at the end, and its mapping at 0.
    if (k >= bins) return;
    const float tileArea = static_cast<float>(static_cast<int64_t>(t.tileW) * t.tileH);
    const float norm = 1.0f / (tileArea - hist[k]);
    map[k] = 0.0f;
    for (int b = k; b < bins; ++b) map[b] = hist[b] * norm + map[b - 1];
}

template <class T>
bool HistogramStage(const T* src, float* hists, float* maps, const Tiling& t, int peak) {
    if (src == nullptr || hists == nullptr || maps == nullptr) return false;
    const size_t bins = static_cast<size_t>(t.bins);
    for (int tx = 0; tx < t.nx; ++tx) {
        for (int ty = 0; ty < t.ny; ++ty) {
            const size_t tile = static_cast<size_t>(ty) * t.nx + tx;
            float* hist = hists + tile * bins;
            for (int y = ty * t.tileH; y < ty * t.tileH + t.tileH; ++y) {
                const T* row = src + static_cast<size_t>(y) * t.width;
                for (int x = tx * t.tileW; x < tx * t.tileW + t.tileW; ++x)
                    hist[BinOf(row[x], t)] += 1.0f;
            }
            BuildMapping(hist, maps + tile * bins, t, peak);
        }
    }
    return true;
}

// Pixels are visited row by row; each depends only on its own value and the finished tables, so
// the order does not change the result.
template <class T>
bool MappingStage(const T* src, T* out, const float* maps, const Tiling& t, float outMax) {
    if (src == nullptr || out == nullptr || maps == nullptr) return false;
    const int nx = t.nx;
    const int ny = t.ny;
    const size_t bins = static_cast<size_t>(t.bins);
    std::vector<AxisPlace> columns(static_cast<size_t>(t.width));
    for (int x = 0; x < t.width; ++x) columns[x] = PlaceOnAxis(x, t.tileW, nx);

    for (int y = 0; y < t.height; ++y) {
        const AxisPlace py = PlaceOnAxis(y, t.tileH, ny);
        const T* srow = src + static_cast<size_t>(y) * t.width;
        T* orow = out + static_cast<size_t>(y) * t.width;
        for (int x = 0; x < t.width; ++x) {
            const AxisPlace& px = columns[x];
            const size_t b = static_cast<size_t>(BinOf(srow[x], t));
            auto M = [&](int tile) { return maps[static_cast<size_t>(tile) * bins + b]; };
            const float wx = px.weight;
            const float wy = py.weight;
            float r;
            if (px.kind != AxisPlace::kBetween && py.kind != AxisPlace::kBetween) {
                // Corner regions take their tile's mapping alone.
                r = M(py.index * nx + px.index);
            } else if (px.kind != AxisPlace::kBetween) {
                const int c = px.index;
                r = (1 - wy) * M(py.index * nx + c) + wy * M((py.index + 1) * nx + c);
            } else if (py.kind != AxisPlace::kBetween) {
                const int i = py.index * nx + px.index;
                r = (1 - wx) * M(i) + wx * M(i + 1);
            } else {
                const int i = py.index * nx + px.index;
                r = wx * wy * M(i + nx + 1) + (1 - wx) * (1 - wy) * M(i) +
                    (1 - wy) * wx * M(i + 1) + (1 - wx) * wy * M(i + nx);
            }
            orow[x] = StoreMapped<T>(r, outMax);
        }
    }
    return true;
}

template <class T>
int ReferenceClahe(T* src, T* dst, const Tiling& t, int peak, float outMax) {
    const size_t entries =
        static_cast<size_t>(t.nx) * static_cast<size_t>(t.ny) * static_cast<size_t>(t.bins);
    FloatTable hists = AllocateTable(entries);
    if (!hists) return kTableFailed;
    FloatTable maps = AllocateTable(entries);
    if (!maps) return kTableFailed;
    if (!HistogramStage(src, hists.get(), maps.get(), t, peak)) return kHistogramFailed;
    // In place, the result goes to a scratch image first, as the algorithm is written down.
    std::vector<T> scratch;
    T* out = dst;
    if (dst == src) {
        if (!TryResize(scratch, PixelCount(t.width, t.height))) return kTableFailed;
        out = scratch.data();
    }
    if (!MappingStage(src, out, maps.get(), t, outMax)) return kMappingFailed;
    if (dst == src) std::copy(scratch.begin(), scratch.end(), src);
    return 1;
}

// ---------------------------------------------------------------------------------------------
// Fast path.
//
// Counts: the reference adds 1.0f per pixel, which is exact up to 2^24 and then stays at 2^24
// (2^24 + 1 rounds back to even). Integer counts saturated at 2^24 and converted to float are
// therefore the very same histogram. From there the clip, the scan for the first occupied bin,
// the redistribution and the cumulative mapping run the same float operations in the same order,
// per tile.
//
// Tables: the mapping functions are stored tile row by tile row, bin by bin, tile column by
// tile column, so that the two (or four) entries one pixel blends sit next to each other.
//
// Mapping: each pixel reads only its own value and the finished tables, so rows are mapped in
// any order, in place as out of place, without a scratch image. The blend weights come from the
// same PlaceOnAxis as in the reference and every blend is written with the same operations in
// the same order (no fused multiply-add), so each output is identical.

constexpr uint32_t kFloatCountLimit = 1u << 24;

// Bin of every value of a row, as BinOf gives it.
template <class T>
struct RowBinner {
    const Tiling* t = nullptr;
    std::vector<uint16_t> table;  // 8U and 16U: the bin of every possible value

    bool prepare(const Tiling& tiling) {
        t = &tiling;
        if constexpr (std::is_integral_v<T>) {
            const size_t values = size_t(1) << (8 * sizeof(T));
            if (!TryResize(table, values)) return false;
            for (size_t v = 0; v < values; ++v)
                table[v] = static_cast<uint16_t>(BinOf(static_cast<T>(v), tiling));
        }
        return true;
    }
    void operator()(const T* row, int n, uint32_t* bins) const {
        if constexpr (std::is_integral_v<T>) {
            for (int x = 0; x < n; ++x) bins[x] = table[row[x]];
        } else {
            for (int x = 0; x < n; ++x) bins[x] = static_cast<uint32_t>(BinOf(row[x], *t));
        }
    }
};

#if VELTRANO_HAS_AVX2_PATHS
// Eight bins at once, with the operations of BinOf: the value clamped to the float range (in
// double for 64F), times binScale, then the top bin for anything above it and bin 0 for
// anything not above 0 (NaN included: the operand order of min and max lets NaN fall through to
// the 0 of the last step).
struct VecBinner {
    __m256 scale, top;

    VELTRANO_TARGET_AVX2 explicit VecBinner(const Tiling& t)
        : scale(_mm256_set1_ps(t.binScale)), top(_mm256_set1_ps(static_cast<float>(t.bins - 1))) {}

    VELTRANO_TARGET_AVX2 __m256i fromFloats(__m256 f) const {
        const __m256 s = _mm256_mul_ps(f, scale);
        return _mm256_cvttps_epi32(_mm256_max_ps(_mm256_min_ps(top, s), _mm256_setzero_ps()));
    }
    VELTRANO_TARGET_AVX2 __m256i operator()(const uint8_t* p) const {
        const __m256i v =
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        return fromFloats(_mm256_cvtepi32_ps(v));
    }
    VELTRANO_TARGET_AVX2 __m256i operator()(const uint16_t* p) const {
        const __m256i v =
            _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        return fromFloats(_mm256_cvtepi32_ps(v));
    }
    VELTRANO_TARGET_AVX2 __m256i operator()(const float* p) const {
        const __m256 fmax = _mm256_set1_ps(FLT_MAX);
        __m256 f = _mm256_loadu_ps(p);
        f = _mm256_max_ps(_mm256_set1_ps(-FLT_MAX), _mm256_min_ps(fmax, f));
        return fromFloats(f);
    }
    VELTRANO_TARGET_AVX2 __m256i operator()(const double* p) const {
        const __m256d fmax = _mm256_set1_pd(FLT_MAX);
        const __m256d fmin = _mm256_set1_pd(-FLT_MAX);
        const __m256d a = _mm256_max_pd(fmin, _mm256_min_pd(fmax, _mm256_loadu_pd(p)));
        const __m256d b = _mm256_max_pd(fmin, _mm256_min_pd(fmax, _mm256_loadu_pd(p + 4)));
        return fromFloats(_mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a)));
    }
};

// Minimum and maximum of a float or double image, eight or four lanes at a time. Each lane keeps
// what FindMinMax keeps (a NaN is never taken, except as element 0, which then stays), and lanes
// are merged the same way. Only equal values may come out as a different element, +0 for -0,
// which changes no span the callers form (max - min is the same number either way, and a zero
// span is below 1 either way).
VELTRANO_TARGET_AVX2 void MinMaxAvx2(const float* p, size_t n, float& mn, float& mx) {
    __m256 lo = _mm256_set1_ps(p[0]), hi = lo;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 v = _mm256_loadu_ps(p + i);
        hi = _mm256_max_ps(v, hi);
        lo = _mm256_min_ps(v, lo);
    }
    alignas(32) float l[8], h[8];
    _mm256_store_ps(l, lo);
    _mm256_store_ps(h, hi);
    mn = l[0];
    mx = h[0];
    for (int k = 1; k < 8; ++k) {
        if (h[k] > mx) mx = h[k];
        if (l[k] < mn) mn = l[k];
    }
    for (; i < n; ++i) {
        if (p[i] > mx) mx = p[i];
        if (p[i] < mn) mn = p[i];
    }
}

VELTRANO_TARGET_AVX2 void MinMaxAvx2(const double* p, size_t n, double& mn, double& mx) {
    __m256d lo = _mm256_set1_pd(p[0]), hi = lo;
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m256d v = _mm256_loadu_pd(p + i);
        hi = _mm256_max_pd(v, hi);
        lo = _mm256_min_pd(v, lo);
    }
    alignas(32) double l[4], h[4];
    _mm256_store_pd(l, lo);
    _mm256_store_pd(h, hi);
    mn = l[0];
    mx = h[0];
    for (int k = 1; k < 4; ++k) {
        if (h[k] > mx) mx = h[k];
        if (l[k] < mn) mn = l[k];
    }
    for (; i < n; ++i) {
        if (p[i] > mx) mx = p[i];
        if (p[i] < mn) mn = p[i];
    }
}

template <class T>
VELTRANO_TARGET_AVX2 void RowBinsAvx2(const T* row, int n, const Tiling& t, uint32_t* bins) {
    const VecBinner binner(t);
    int x = 0;
    for (; x + 8 <= n; x += 8)
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(bins + x), binner(row + x));
    for (; x < n; ++x) bins[x] = static_cast<uint32_t>(BinOf(row[x], t));
}
#endif

// Clip, redistribution and cumulative mapping of the nx tiles of one tile row, from their
// integer counts (tile tx at counts + tx * bins). Per tile the float operations are those of
// BuildMapping; the tiles run side by side, bin by bin, so that the long chain of the cumulative
// sum of one tile overlaps with those of the others. `maps` receives bin b of tile tx at
// b * nx + tx.
struct TileRowState {
    std::vector<int> k;
    std::vector<float> inc, norm, prev;
};

float ClippedCount(uint32_t count, float limit) {
    const float h = static_cast<float>(std::min(count, kFloatCountLimit));
    return h > limit ? limit : h;
}

void BuildTileRowMappings(const uint32_t* counts, float* maps, const Tiling& t, int peak,
                          TileRowState& s) {
    const int nx = t.nx;
    const int bins = t.bins;
    const float limit = static_cast<float>(peak);
    const float tileArea = static_cast<float>(static_cast<int64_t>(t.tileW) * t.tileH);
    for (int tx = 0; tx < nx; ++tx) {
        const uint32_t* c = counts + static_cast<size_t>(tx) * bins;
        int64_t excess = 0;
        int first = bins;
        for (int b = 0; b < bins; ++b) {
            const float h = static_cast<float>(std::min(c[b], kFloatCountLimit));
            if (h > limit) excess += static_cast<int64_t>(h - limit);
            if (first == bins && std::fabs(h > limit ? limit : h) >= 1e-16f) first = b;
        }
        const int k = first < bins ? first + 1 : bins;
        const int spread = bins - k > 1 ? bins - k : 1;
        s.k[tx] = k;
        s.inc[tx] = static_cast<float>(excess) / static_cast<float>(spread);
        s.norm[tx] = k < bins ? 1.0f / (tileArea - (ClippedCount(c[k], limit) + s.inc[tx])) : 0.0f;
        s.prev[tx] = 0.0f;
    }
    for (int b = 0; b < bins; ++b) {
        float* out = maps + static_cast<size_t>(b) * nx;
        for (int tx = 0; tx < nx; ++tx) {
            if (b < s.k[tx]) {
                out[tx] = 0.0f;
                continue;
            }
            const float h =
                ClippedCount(counts[static_cast<size_t>(tx) * bins + b], limit) + s.inc[tx];
            s.prev[tx] = h * s.norm[tx] + s.prev[tx];
            out[tx] = s.prev[tx];
        }
    }
}

// What a row needs to know about its place among the tile rows.
struct RowPlace {
    const float* m0;  // table of the upper (or only) tile row: bin b, tile column c at b*nx + c
    const float* m1;  // table of the tile row below, for rows between two tile centres
    const float* q = nullptr;  // the quads of this tile row, when there are quads
    bool between;
    float wy, omwy;  // weight of the lower tile row and 1 - that
};

// The quad table holds, for tile row ty, bin b and tile column tx, the four entries a pixel
// between tile centres blends: M(ty, b, tx), M(ty, b, tx + 1), M(ty + 1, b, tx) and
// M(ty + 1, b, tx + 1), side by side, so that one 16-byte load fetches them (the missing
// neighbours of the last tile row and column repeat their own entries and are never used). Four
// times the size of the mapping table, so it is built only up to this many floats; larger tables
// gather their entries one by one.
constexpr uint64_t kMaxQuadFloats = uint64_t(1) << 21;

void BuildQuads(const float* maps, float* quads, const Tiling& t) {
    const size_t rowEntries = static_cast<size_t>(t.nx) * t.bins;
    for (int ty = 0; ty < t.ny; ++ty) {
        const float* m0 = maps + static_cast<size_t>(ty) * rowEntries;
        const float* m1 = maps + static_cast<size_t>(std::min(ty + 1, t.ny - 1)) * rowEntries;
        float* q = quads + static_cast<size_t>(ty) * rowEntries * 4;
        for (size_t i = 0; i < rowEntries; ++i) {
            const size_t right = (i % t.nx) + 1 < static_cast<size_t>(t.nx) ? i + 1 : i;
            q[4 * i] = m0[i];
            q[4 * i + 1] = m0[right];
            q[4 * i + 2] = m1[i];
            q[4 * i + 3] = m1[right];
        }
    }
}

// The columns split into three runs: up to the first tile centre (tile column 0 alone), between
// the first and last centres (two tile columns blended), from the last centre on (the last tile
// column alone).
struct ColumnPlan {
    int firstEnd = 0;   // columns [0, firstEnd) take tile column 0
    int lastBegin = 0;  // columns [lastBegin, width) take tile column nx - 1
    std::vector<int32_t> tx;
    std::vector<float> wx, omwx;
};

ColumnPlan PlanColumns(const Tiling& t) {
    ColumnPlan p;
    const size_t n = static_cast<size_t>(t.width);
    p.tx.resize(n);
    p.wx.resize(n);
    p.omwx.resize(n);
    for (int x = 0; x < t.width; ++x) {
        const AxisPlace a = PlaceOnAxis(x, t.tileW, t.nx);
        p.tx[x] = a.index;
        p.wx[x] = a.weight;
        p.omwx[x] = 1 - a.weight;
    }
    // The kinds run first, between, last from left to right (PlaceOnAxis tests "first" before
    // "last", so with one tile column there is no "between" run).
    int x = 0;
    while (x < t.width && PlaceOnAxis(x, t.tileW, t.nx).kind == AxisPlace::kFirst) ++x;
    p.firstEnd = x;
    while (x < t.width && PlaceOnAxis(x, t.tileW, t.nx).kind == AxisPlace::kBetween) ++x;
    p.lastBegin = x;
    return p;
}

template <class T>
void MapRowScalar(T* out, const uint32_t* bins, const RowPlace& rp, const ColumnPlan& cp,
                  const Tiling& t, float outMax) {
    const int nx = t.nx;
    auto edge = [&](int x0, int x1, int c) {
        for (int x = x0; x < x1; ++x) {
            const size_t i = static_cast<size_t>(bins[x]) * nx + c;
            const float r = rp.between ? rp.omwy * rp.m0[i] + rp.wy * rp.m1[i] : rp.m0[i];
            out[x] = StoreMapped<T>(r, outMax);
        }
    };
    edge(0, cp.firstEnd, 0);
    for (int x = cp.firstEnd; x < cp.lastBegin; ++x) {
        const size_t i = static_cast<size_t>(bins[x]) * nx + cp.tx[x];
        const float wx = cp.wx[x];
        const float omwx = cp.omwx[x];
        float r;
        if (rp.between) {
            r = wx * rp.wy * rp.m1[i + 1] + omwx * rp.omwy * rp.m0[i] +
                rp.omwy * wx * rp.m0[i + 1] + omwx * rp.wy * rp.m1[i];
        } else {
            r = omwx * rp.m0[i] + wx * rp.m0[i + 1];
        }
        out[x] = StoreMapped<T>(r, outMax);
    }
    edge(cp.lastBegin, t.width, nx - 1);
}

#if VELTRANO_HAS_AVX2_PATHS
// Stores eight mapped values r * outMax with StoreMapped's rounding: for integers + 0.5, the
// upper clamp (NaN passes: min with the bound first), the lower clamp (NaN becomes 0: max with
// the value first), + 0.5 and truncation.
template <class T>
VELTRANO_TARGET_AVX2 void StoreMapped8(T* out, __m256 r, float outMax) {
    const __m256 v = _mm256_mul_ps(r, _mm256_set1_ps(outMax));
    if constexpr (std::is_same_v<T, float>) {
        _mm256_storeu_ps(out, v);
    } else if constexpr (std::is_same_v<T, double>) {
        _mm256_storeu_pd(out, _mm256_cvtps_pd(_mm256_castps256_ps128(v)));
        _mm256_storeu_pd(out + 4, _mm256_cvtps_pd(_mm256_extractf128_ps(v, 1)));
    } else {
        const __m256 half = _mm256_set1_ps(0.5f);
        const __m256 high = _mm256_set1_ps(std::is_same_v<T, uint8_t> ? 255.0f : 65535.0f);
        __m256 u = _mm256_min_ps(high, _mm256_add_ps(v, half));
        u = _mm256_max_ps(u, _mm256_setzero_ps());
        const __m256i i = _mm256_cvttps_epi32(_mm256_add_ps(u, half));
        const __m128i w =
            _mm_packus_epi32(_mm256_castsi256_si128(i), _mm256_extracti128_si256(i, 1));
        if constexpr (std::is_same_v<T, uint16_t>) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), w);
        } else {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(w, w));
        }
    }
}

// The quads of eight pixels, turned into one vector per entry; idx holds their quad indices.
struct Quad8 {
    __m256 m00, m01, m10, m11;
};

VELTRANO_TARGET_AVX2 inline Quad8 LoadQuads(const float* q, const int32_t* idx) {
    auto rows = [q, idx](int k) VELTRANO_TARGET_AVX2 {
        return _mm256_insertf128_ps(
            _mm256_castps128_ps256(_mm_loadu_ps(q + 4 * static_cast<size_t>(idx[k]))),
            _mm_loadu_ps(q + 4 * static_cast<size_t>(idx[k + 4])), 1);
    };
    const __m256 r0 = rows(0), r1 = rows(1), r2 = rows(2), r3 = rows(3);
    const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
    const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
    return {_mm256_shuffle_ps(t0, t2, 0x44), _mm256_shuffle_ps(t0, t2, 0xEE),
            _mm256_shuffle_ps(t1, t3, 0x44), _mm256_shuffle_ps(t1, t3, 0xEE)};
}

// The table index of every pixel of a row, bin * nx + tile column (the tile column of the first
// run is 0 and of the last nx - 1, as PlaceOnAxis gives them). A pass of its own: the mapping
// loop then starts its loads at once instead of waiting for each block's bins.
template <class T>
VELTRANO_TARGET_AVX2 void RowIndicesAvx2(const T* src, const ColumnPlan& cp, const Tiling& t,
                                         int32_t* idx) {
    const VecBinner binner(t);
    const __m256i nxv = _mm256_set1_epi32(t.nx);
    const int32_t* const txp = cp.tx.data();
    int x = 0;
    for (; x + 8 <= t.width; x += 8) {
        const __m256i tx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(txp + x));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(idx + x),
                            _mm256_add_epi32(_mm256_mullo_epi32(binner(src + x), nxv), tx));
    }
    for (; x < t.width; ++x) idx[x] = BinOf(src[x], t) * t.nx + txp[x];
}

// Entries of eight pixels from the plain table, for tables too large for quads.
struct GatherSource {
    const float* m0;
    const float* m1;
    bool between;
};

VELTRANO_TARGET_AVX2 inline Quad8 GatherQuads(const GatherSource& g, const int32_t* idx) {
    const __m256i i = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(idx));
    Quad8 m;
    m.m00 = _mm256_i32gather_ps(g.m0, i, 4);
    m.m01 = _mm256_i32gather_ps(g.m0 + 1, i, 4);
    m.m10 = g.between ? _mm256_i32gather_ps(g.m1, i, 4) : m.m00;
    m.m11 = g.between ? _mm256_i32gather_ps(g.m1 + 1, i, 4) : m.m01;
    return m;
}

// Maps one row from its indices. Everything the loops read is held in locals: stores to the
// output may alias any memory (8-bit elements), and would otherwise make the compiler reload
// the row's pointers after each of them. The one-pixel form maps the ends of each run, where
// fewer than eight pixels remain, with the same operations; it is compiled for AVX2 as well, since
// switching between vector and legacy scalar code on every call stalls the processor.
template <class T>
VELTRANO_TARGET_AVX2 void MapOne(const int32_t* idx, T* out, int x, bool blendX, const RowPlace& rp,
                                 const ColumnPlan& cp, float outMax) {
    const size_t i = static_cast<size_t>(idx[x]);
    float r;
    if (!blendX) {
        r = rp.between ? rp.omwy * rp.m0[i] + rp.wy * rp.m1[i] : rp.m0[i];
    } else if (rp.between) {
        const float wx = cp.wx[x], omwx = cp.omwx[x];
        r = wx * rp.wy * rp.m1[i + 1] + omwx * rp.omwy * rp.m0[i] + rp.omwy * wx * rp.m0[i + 1] +
            omwx * rp.wy * rp.m1[i];
    } else {
        r = cp.omwx[x] * rp.m0[i] + cp.wx[x] * rp.m0[i + 1];
    }
    out[x] = StoreMapped<T>(r, outMax);
}

template <class T, bool kQuads>
VELTRANO_TARGET_AVX2 void MapRowFromIndicesAvx2(const int32_t* idx, T* out, const RowPlace& rp,
                                                const ColumnPlan& cp, const Tiling& t,
                                                float outMax) {
    const __m256 wy = _mm256_set1_ps(rp.wy);
    const __m256 omwy = _mm256_set1_ps(rp.omwy);
    const float* const q = rp.q;
    const GatherSource g{rp.m0, rp.m1, rp.between};
    const bool between = rp.between;
    const float* const wxp = cp.wx.data();
    const float* const omwxp = cp.omwx.data();
    auto fetch = [q, g](const int32_t* i)
                     VELTRANO_TARGET_AVX2 { return kQuads ? LoadQuads(q, i) : GatherQuads(g, i); };

    // Columns that take one tile column alone: corners, or the vertical blend.
    auto edge = [&](int x0, int x1) VELTRANO_TARGET_AVX2 {
        int x = x0;
        for (; x + 8 <= x1; x += 8) {
            const Quad8 m = fetch(idx + x);
            const __m256 r =
                between ? _mm256_add_ps(_mm256_mul_ps(omwy, m.m00), _mm256_mul_ps(wy, m.m10))
                        : m.m00;
            StoreMapped8(out + x, r, outMax);
        }
        for (; x < x1; ++x) MapOne(idx, out, x, false, rp, cp, outMax);
    };
    edge(0, cp.firstEnd);
    const int end = cp.lastBegin;
    int x = cp.firstEnd;
    for (; x + 8 <= end; x += 8) {
        const Quad8 m = fetch(idx + x);
        const __m256 wx = _mm256_loadu_ps(wxp + x);
        const __m256 omwx = _mm256_loadu_ps(omwxp + x);
        __m256 r;
        if (between) {
            r = _mm256_mul_ps(_mm256_mul_ps(wx, wy), m.m11);
            r = _mm256_add_ps(r, _mm256_mul_ps(_mm256_mul_ps(omwx, omwy), m.m00));
            r = _mm256_add_ps(r, _mm256_mul_ps(_mm256_mul_ps(omwy, wx), m.m01));
            r = _mm256_add_ps(r, _mm256_mul_ps(_mm256_mul_ps(omwx, wy), m.m10));
        } else {
            r = _mm256_add_ps(_mm256_mul_ps(omwx, m.m00), _mm256_mul_ps(wx, m.m01));
        }
        StoreMapped8(out + x, r, outMax);
    }
    for (; x < end; ++x) MapOne(idx, out, x, true, rp, cp, outMax);
    edge(end, t.width);
}

template <class T>
VELTRANO_TARGET_AVX2 void MapRowAvx2(const T* src, T* out, int32_t* idx, const RowPlace& rp,
                                     const ColumnPlan& cp, const Tiling& t, float outMax) {
    RowIndicesAvx2(src, cp, t, idx);
    if (rp.q != nullptr) {
        MapRowFromIndicesAvx2<T, true>(idx, out, rp, cp, t, outMax);
    } else {
        MapRowFromIndicesAvx2<T, false>(idx, out, rp, cp, t, outMax);
    }
}
#endif

// Adds one to h[index[x]] for x in [0, n). Neighbouring pixels often fall into the same bin, and
// with one histogram every increment would wait for the store of the previous one; with `copies`
// (1 or 4) interleaved histograms, `stride` entries apart, four run at once. Their integer sums
// are the same counts.
template <class I>
void CountRun(const I* index, int n, uint32_t* h, size_t stride, int copies) {
    int x = 0;
    if (copies == 4) {
        for (; x + 4 <= n; x += 4) {
            ++h[index[x]];
            ++h[stride + index[x + 1]];
            ++h[2 * stride + index[x + 2]];
            ++h[3 * stride + index[x + 3]];
        }
    }
    for (; x < n; ++x) ++h[index[x]];
}

// Integer histograms of the tiles of one tile row.
template <class T>
class TileRowCounter {
public:
    bool prepare(const Tiling& t, bool avx2) {
        t_ = &t;
        avx2_ = avx2;
        rowEntries_ = static_cast<size_t>(t.nx) * t.bins;
        // 8 bits: count the values themselves (no bin lookup in the loop) and fold them into
        // bins afterwards.
        perCopy_ = std::is_same_v<T, uint8_t> ? static_cast<size_t>(t.nx) * 256 : rowEntries_;
        copies_ = perCopy_ <= kMaxCopiedEntries ? 4 : 1;
        return binner_.prepare(t) && TryResize(counts_, rowEntries_) &&
               TryResize(work_, static_cast<uint64_t>(perCopy_) * copies_) &&
               TryResize(rowBins_, static_cast<uint64_t>(t.width) + 8);
    }

    const RowBinner<T>& binner() const { return binner_; }
    uint32_t* rowBins() { return rowBins_.data(); }

    // The counts of tile row ty: tile tx at result + tx * bins.
    const uint32_t* count(const T* src, int ty) {
        const Tiling& t = *t_;
        const int counted = t.nx * t.tileW;
        std::fill(work_.begin(), work_.end(), 0u);
        for (int y = ty * t.tileH; y < ty * t.tileH + t.tileH; ++y) {
            const T* row = src + static_cast<size_t>(y) * t.width;
            if constexpr (std::is_same_v<T, uint8_t>) {
                for (int tx = 0; tx < t.nx; ++tx)
                    CountRun(row + static_cast<size_t>(tx) * t.tileW, t.tileW,
                             work_.data() + tx * 256, perCopy_, copies_);
                continue;
            }
#if VELTRANO_HAS_AVX2_PATHS
            if (avx2_) {
                RowBinsAvx2(row, counted, t, rowBins_.data());
            } else {
                binner_(row, counted, rowBins_.data());
            }
#else
            binner_(row, counted, rowBins_.data());
#endif
            const size_t bins = static_cast<size_t>(t.bins);
            for (int tx = 0; tx < t.nx; ++tx)
                CountRun(rowBins_.data() + static_cast<size_t>(tx) * t.tileW, t.tileW,
                         work_.data() + tx * bins, perCopy_, copies_);
        }
        for (int c = 1; c < copies_; ++c)
            for (size_t i = 0; i < perCopy_; ++i) work_[i] += work_[c * perCopy_ + i];
        if constexpr (!std::is_same_v<T, uint8_t>) return work_.data();
        std::fill(counts_.begin(), counts_.end(), 0u);
        for (int tx = 0; tx < t.nx; ++tx)
            for (int v = 0; v < 256; ++v)
                counts_[static_cast<size_t>(tx) * t.bins + binner_.table[v]] +=
                    work_[static_cast<size_t>(tx) * 256 + v];
        return counts_.data();
    }

private:
    static constexpr size_t kMaxCopiedEntries = size_t(1) << 14;
    const Tiling* t_ = nullptr;
    bool avx2_ = false;
    size_t rowEntries_ = 0, perCopy_ = 0;
    int copies_ = 1;
    RowBinner<T> binner_;
    std::vector<uint32_t> counts_, work_, rowBins_;
};

template <class T>
int FastClahe(T* src, T* dst, const Tiling& t, int peak, float outMax, bool avx2) {
    const size_t bins = static_cast<size_t>(t.bins);
    const size_t rowEntries = static_cast<size_t>(t.nx) * bins;
    std::vector<float> maps;
    TileRowCounter<T> counter;
    TileRowState state;
    if (!TryResize(maps, static_cast<uint64_t>(rowEntries) * static_cast<uint64_t>(t.ny)) ||
        !counter.prepare(t, avx2))
        return kTableFailed;
    state.k.resize(t.nx);
    state.inc.resize(t.nx);
    state.norm.resize(t.nx);
    state.prev.resize(t.nx);
    if (dst == nullptr) return kMappingFailed;

    for (int ty = 0; ty < t.ny; ++ty)
        BuildTileRowMappings(counter.count(src, ty),
                             maps.data() + static_cast<size_t>(ty) * rowEntries, t, peak, state);

    // The quads serve the vector mapping only; without room for them it gathers instead.
    std::vector<float> quads;
    const bool useQuads = avx2 && static_cast<uint64_t>(maps.size()) * 4 <= kMaxQuadFloats &&
                          TryResize(quads, static_cast<uint64_t>(maps.size()) * 4);
    if (useQuads) BuildQuads(maps.data(), quads.data(), t);

    const ColumnPlan cp = PlanColumns(t);
    for (int y = 0; y < t.height; ++y) {
        const AxisPlace py = PlaceOnAxis(y, t.tileH, t.ny);
        RowPlace rp;
        rp.between = py.kind == AxisPlace::kBetween;
        rp.m0 = maps.data() + static_cast<size_t>(py.index) * rowEntries;
        rp.m1 = rp.between ? rp.m0 + rowEntries : rp.m0;
        if (useQuads) rp.q = quads.data() + static_cast<size_t>(py.index) * rowEntries * 4;
        rp.wy = py.weight;
        rp.omwy = 1 - py.weight;
        const T* srow = src + static_cast<size_t>(y) * t.width;
        T* orow = dst + static_cast<size_t>(y) * t.width;
#if VELTRANO_HAS_AVX2_PATHS
        if (avx2) {
            MapRowAvx2(srow, orow, reinterpret_cast<int32_t*>(counter.rowBins()), rp, cp, t,
                       outMax);
            continue;
        }
#endif
        counter.binner()(srow, t.width, counter.rowBins());
        MapRowScalar(orow, counter.rowBins(), rp, cp, t, outMax);
    }
    return 1;
}

// ---------------------------------------------------------------------------------------------

template <class T>
int Clahe(T* src, T* dst, int32_t width, int32_t height, claheParam* param, const char* iniPath) {
    if (src == nullptr) return 0;
    if (param == nullptr) return -1;
    if (iniPath != nullptr && iniPath[0] != '\0') *param = claheParam(iniPath);

    const int nx = param->widthBlockNum;
    const int ny = param->heightBlockNum;
    if (nx < 1 || nx > width || ny < 1 || ny > height) return -1;

    constexpr int kBinCap = std::is_same_v<T, uint8_t> ? 256 : 65536;
    int bins = param->histBin < kBinCap ? param->histBin : kBinCap;
    if (bins < 2) bins = 1;
    param->histBin = bins;

    // Images and tables beyond the library's size limit are refused before anything is
    // allocated; nx * ny * bins can reach 2^78, and every entry would be written.
    const uint64_t count = PixelCount(width, height);
    const uint64_t entries =
        SaturatingProduct(SaturatingProduct(static_cast<uint64_t>(nx), static_cast<uint64_t>(ny)),
                          static_cast<uint64_t>(bins));
    if (count > kMaxElements || entries > kMaxElements) return kTableFailed;

    float outMax;
    if constexpr (std::is_same_v<T, uint8_t>) {
        outMax = 255.0f;
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        outMax = 65535.0f;
    } else {
        T mn = src[0];
        T mx = src[0];
#if VELTRANO_HAS_AVX2_PATHS
        if (ActiveImpl() == Impl::Avx2) {
            MinMaxAvx2(src, static_cast<size_t>(count), mn, mx);
        } else {
            FindMinMax(src, static_cast<size_t>(count), mn, mx);
        }
#else
        FindMinMax(src, static_cast<size_t>(count), mn, mx);
#endif
        const T span = mx - mn;
        // A double span beyond the float range is infinite as a float (every value then falls
        // into bin 0); said explicitly, since converting it is not defined.
        if (!(span > T(1))) {
            outMax = 1.0f;
        } else if (static_cast<double>(span) > FLT_MAX) {
            outMax = HUGE_VALF;
        } else {
            outMax = static_cast<float>(span);
        }
    }
    param->outMax = outMax;
    param->binScale = static_cast<float>(bins - 1) / outMax;

    Tiling t;
    t.width = width;
    t.height = height;
    t.nx = nx;
    t.ny = ny;
    t.tileW = width / nx;
    t.tileH = height / ny;
    t.bins = bins;
    t.binScale = param->binScale;

    const Impl impl = ActiveImpl();
    if (impl == Impl::Reference) return ReferenceClahe(src, dst, t, param->peak, outMax);
    return FastClahe(src, dst, t, param->peak, outMax, impl == Impl::Avx2);
}

template <class T>
int ClaheManual(T* src, T* dst, int32_t width, int32_t height, int32_t widthBlockNum,
                int32_t heightBlockNum, int32_t histBin, int32_t peak, const char* iniPath) {
    claheParam param;
    param.widthBlockNum = widthBlockNum;
    param.heightBlockNum = heightBlockNum;
    param.histBin = histBin;
    param.peak = peak;
    return Clahe(src, dst, width, height, &param, iniPath);
}

}  // namespace
}  // namespace veltrano

int clahe_8U(uint8_t* src, uint8_t* dst, int32_t width, int32_t height, claheParam* param,
             const char* iniPath) {
    return veltrano::Clahe(src, dst, width, height, param, iniPath);
}

int clahe_16U(uint16_t* src, uint16_t* dst, int32_t width, int32_t height, claheParam* param,
              const char* iniPath) {
    return veltrano::Clahe(src, dst, width, height, param, iniPath);
}

int clahe_32F(float* src, float* dst, int32_t width, int32_t height, claheParam* param,
              const char* iniPath) {
    return veltrano::Clahe(src, dst, width, height, param, iniPath);
}

int clahe_64F(double* src, double* dst, int32_t width, int32_t height, claheParam* param,
              const char* iniPath) {
    return veltrano::Clahe(src, dst, width, height, param, iniPath);
}

int clahe_8U_Manual(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                    int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin, int32_t peak,
                    const char* iniPath) {
    return veltrano::ClaheManual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                 peak, iniPath);
}

int clahe_16U_Manual(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                     int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin, int32_t peak,
                     const char* iniPath) {
    return veltrano::ClaheManual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                 peak, iniPath);
}

int clahe_32F_Manual(float* src, float* dst, int32_t width, int32_t height, int32_t widthBlockNum,
                     int32_t heightBlockNum, int32_t histBin, int32_t peak, const char* iniPath) {
    return veltrano::ClaheManual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                 peak, iniPath);
}

int clahe_64F_Manual(double* src, double* dst, int32_t width, int32_t height, int32_t widthBlockNum,
                     int32_t heightBlockNum, int32_t histBin, int32_t peak, const char* iniPath) {
    return veltrano::ClaheManual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                 peak, iniPath);
}
