// Contrast-limited adaptive histogram equalisation: one implementation for the four element
// types and their _Manual forms.
#include "veltrano/clahe.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <vector>

#include "imgproc/pixel_helpers.h"

namespace veltrano {
namespace {

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
                for (int x = tx * t.tileW; x < tx * t.tileW + t.tileW; ++x) hist[BinOf(row[x], t)] += 1.0f;
            }
            BuildMapping(hist, maps + tile * bins, t, peak);
        }
    }
    return true;
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
                r = wx * wy * M(i + nx + 1) + (1 - wx) * (1 - wy) * M(i) + (1 - wy) * wx * M(i + 1) +
                    (1 - wx) * wy * M(i + nx);
            }
            orow[x] = StoreMapped<T>(r, outMax);
        }
    }
    return true;
}

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

    // nx * ny (up to 2^62) times the bins can exceed what size_t holds, on 32-bit builds by far.
    const uint64_t tiles = static_cast<uint64_t>(nx) * static_cast<uint64_t>(ny);
    if (tiles > SIZE_MAX / sizeof(float) / static_cast<size_t>(bins)) return -2;
    const size_t entries = static_cast<size_t>(tiles) * static_cast<size_t>(bins);
    FloatTable hists = AllocateTable(entries);
    if (!hists) return -2;
    FloatTable maps = AllocateTable(entries);
    if (!maps) return -2;

    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    float outMax;
    if constexpr (std::is_same_v<T, uint8_t>) {
        outMax = 255.0f;
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        outMax = 65535.0f;
    } else {
        T mn = src[0];
        T mx = src[0];
        FindMinMax(src, count, mn, mx);
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

    if (!HistogramStage(src, hists.get(), maps.get(), t, param->peak)) return -3;
    // In place, the result goes to a scratch image first: the mapping reads every source pixel.
    std::vector<T> scratch;
    T* out = dst;
    if (dst == src) {
        scratch.resize(count);
        out = scratch.data();
    }
    if (!MappingStage(src, out, maps.get(), t, outMax)) return -4;
    if (dst == src) std::copy(scratch.begin(), scratch.end(), src);
    return 1;
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

int clahe_64F_Manual(double* src, double* dst, int32_t width, int32_t height,
                     int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin, int32_t peak,
                     const char* iniPath) {
    return veltrano::ClaheManual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                 peak, iniPath);
}
