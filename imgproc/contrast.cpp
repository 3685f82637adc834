// Local-statistics contrast enhancement (exact and quick), the combined enhancement, gamma and
// equalisation step, and window levelling.
#include "veltrano/contrast.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "imgproc/pixel_helpers.h"
#include "imgproc/window_helpers.h"
#include "veltrano/normalize.h"
#include "veltrano/point_ops.h"

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

template <class T>
void EnhanceQuick(const T* src, T* dst, int w, int h, int radius, float alpha, float maxGain) {
    const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
    const int64_t side = 2 * static_cast<int64_t>(radius) + 1;
    const int64_t area = side * side;
    const float scale = 1.0f / static_cast<float>(area);

    std::vector<float> x(count);
    std::vector<float> squares(count);
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) {
        x[i] = static_cast<float>(src[i]) * scale;
        squares[i] = x[i] * x[i];
        sum += x[i];
    }
    const double mean = sum / static_cast<double>(count);
    double deviations = 0.0;
    for (size_t i = 0; i < count; ++i) {
        const double d = static_cast<double>(x[i]) - mean;
        deviations += d * d;
    }
    const float globalStd = static_cast<float>(std::sqrt(deviations / static_cast<double>(count)));

    std::vector<float> m(count);
    std::vector<float> q(count);
    BoxMean(x.data(), m.data(), w, h, radius);
    BoxMean(squares.data(), q.data(), w, h, radius);

    const float back = static_cast<float>(area);
    for (size_t i = 0; i < count; ++i) {
        const float v = q[i] - m[i] * m[i];
        float r;
        if (v > 0.0f) {
            const float ratio = globalStd / std::sqrt(v);
            const float gain = alpha * std::min(ratio, maxGain);
            r = (x[i] - m[i]) * gain + m[i];
        } else {
            r = m[i];
        }
        r = r * back;
        if constexpr (std::is_floating_point_v<T>) {
            dst[i] = r;
        } else {
            dst[i] = StoreInRange<T>(r);
        }
    }
}

// Runs Worker<T> for the element type of a pixel-type code; false for a code not in the list.
template <template <class> class Worker, class... Args>
bool DispatchInteger(int32_t code, void* src, void* dst, Args... args) {
    switch (code) {
    case kPix16U:
        Worker<uint16_t>::Run(static_cast<uint16_t*>(src), static_cast<uint16_t*>(dst), args...);
        return true;
    case kPix8U:
        Worker<uint8_t>::Run(static_cast<uint8_t*>(src), static_cast<uint8_t*>(dst), args...);
        return true;
    case kPix16S:
        Worker<int16_t>::Run(static_cast<int16_t*>(src), static_cast<int16_t*>(dst), args...);
        return true;
    default:
        return false;
    }
}

template <class T>
struct ExactWorker {
    static void Run(const T* s, T* d, int w, int h, int r, float a, float g) { EnhanceExact(s, d, w, h, r, a, g); }
};

template <class T>
struct QuickWorker {
    static void Run(const T* s, T* d, int w, int h, int r, float a, float g) { EnhanceQuick(s, d, w, h, r, a, g); }
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
    if constexpr (kServesFloat) {
        if (code == kPix32F) {
            Worker<float>::Run(reinterpret_cast<float*>(src), reinterpret_cast<float*>(dst), w, h,
                               radius, alpha, maxGain);
            return 1;
        }
    }
    DispatchInteger<Worker>(code, src, dst, w, h, static_cast<int>(radius), alpha, maxGain);
    return 1;
}

size_t ElementBytes(int32_t code) {
    switch (code) {
    case kPix16U:
    case kPix16S: return 2;
    case kPix8U: return 1;
    case kPix32F: return 4;
    default: return 8;
    }
}

}  // namespace
}  // namespace veltrano

int AdaptiveContrastEnhancement(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                                int32_t pixelType, int32_t radius, float alpha, float maxGain) {
    return veltrano::Enhance<veltrano::ExactWorker, false>(src, dst, width, height, pixelType,
                                                           radius, alpha, maxGain);
}

int AdaptiveContrastEnhancementQuick(uint16_t* src, uint16_t* dst, uint32_t width,
                                     uint32_t height, int32_t pixelType, int32_t radius,
                                     float alpha, float maxGain) {
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
    if (count > INT32_MAX) return -4;  // the equalisation counts pixels in 32 bits

    const size_t bytes = static_cast<size_t>(count) * veltrano::ElementBytes(pixelType);
    // In place the work buffer starts as a copy of the image, so that a type the enhancement
    // does not serve leaves what an out-of-place call leaves: the destination's prior contents.
    std::vector<unsigned char> scratch;
    void* work = dst;
    if (dst == src) {
        scratch.assign(reinterpret_cast<const unsigned char*>(src),
                       reinterpret_cast<const unsigned char*>(src) + bytes);
        work = scratch.data();
    }
    uint16_t* work16 = static_cast<uint16_t*>(work);
    const uint32_t w = static_cast<uint32_t>(width);

    if (param->param5 != 0) {
        AdaptiveContrastEnhancement(src, work16, w, height, pixelType, param->param1,
                                    param->param2, param->param3);
    } else {
        AdaptiveContrastEnhancementQuick(src, work16, w, height, pixelType, param->param1,
                                         param->param2, param->param3);
    }
    if (param->param4 != 1.0f) GammaCorrect(work, work, w, height, param->param4, pixelType);
    if (param->param6 == 1 && (pixelType == veltrano::kPix16U || pixelType == veltrano::kPix8U))
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
