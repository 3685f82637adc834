// Point operations: every output pixel from the source pixel at the same index.
#include "veltrano/point_ops.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"

namespace veltrano {
namespace {

// Integer types map the full type range through the curve; a float image maps its own
// min..max. pow runs in double and is rounded to single precision, as the rest of the pixel
// arithmetic.
template <class T>
int GammaWorker(const T* src, T* dst, uint64_t count, float gamma) {
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    if constexpr (std::is_floating_point_v<T>) {
        if (count == 0) return 1;
        T mn = src[0];
        T mx = src[0];
        FindMinMax(src, static_cast<size_t>(count), mn, mx);
        const float span = mx - mn;
        if (span == 0.0f) {
            // A constant image has no span to map over; 0/0 would turn it into NaN.
            for (uint64_t i = 0; i < count; ++i) dst[i] = src[i];
            return 1;
        }
        for (uint64_t i = 0; i < count; ++i) {
            const double b = (static_cast<double>(src[i]) - static_cast<double>(mn)) / static_cast<double>(span);
            const float p = static_cast<float>(std::pow(b, static_cast<double>(gamma)));
            float v = p * span + mn;
            if (v > mx) v = mx;
            if (v < mn) v = mn;
            dst[i] = v;
        }
    } else {
        // Each output depends only on the pixel's value, so a frame larger than the type's value
        // count is mapped through a table built with the very same arithmetic.
        const float fHigh = static_cast<float>(high);
        auto curve = [&](T value) {
            const float b = static_cast<float>(value) / fHigh;
            const float p = static_cast<float>(std::pow(static_cast<double>(b), static_cast<double>(gamma)));
            // The scaling back uses the range's own (double) bound: only the base and the
            // power are single precision.
            double v = static_cast<double>(p) * high + static_cast<double>(RoundingOffset<T>());
            if (v > high) v = high;
            if (v < low) v = low;
            return StoreClamped<T>(v);
        };
        constexpr size_t values = size_t(1) << (8 * sizeof(T));
        if (count > values) {
            // Entry k holds the value low + k (low is negative for signed pixels).
            const int64_t first = static_cast<int64_t>(low);
            std::vector<T> table(values);
            for (size_t k = 0; k < values; ++k) table[k] = curve(static_cast<T>(first + static_cast<int64_t>(k)));
            for (uint64_t i = 0; i < count; ++i) dst[i] = table[static_cast<size_t>(src[i] - first)];
        } else {
            for (uint64_t i = 0; i < count; ++i) dst[i] = curve(src[i]);
        }
    }
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

template <class T>
void ThresholdWorker(const T* src, T* dst, uint64_t count, double threshold, uint32_t mode) {
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const T top = static_cast<T>(high);
    for (uint64_t i = 0; i < count; ++i) {
        const T v = src[i];
        const bool above = static_cast<double>(v) > threshold;
        switch (mode) {
        case 0: dst[i] = above ? top : T(0); break;
        case 1: dst[i] = above ? T(0) : top; break;
        case 2: dst[i] = above ? v : T(0); break;
        default: dst[i] = above ? T(0) : v; break;
        }
    }
}

// The value v is scaled by its own cumulative fraction (v * cdf(v)), not the top of the range:
// hosts depend on this mapping. The tables are complete before any pixel is written, so the
// function is correct in place without a copy of the source.
template <class T>
int EquHistWorker(const T* src, T* dst, uint64_t count) {
    constexpr size_t bins = size_t(1) << (8 * sizeof(T));
    std::vector<uint32_t> hist(bins, 0);
    for (uint64_t i = 0; i < count; ++i) ++hist[src[i]];
    std::vector<float> cdf(bins);
    const float n = static_cast<float>(count);
    cdf[0] = static_cast<float>(hist[0]) / n;
    for (size_t k = 1; k < bins; ++k) cdf[k] = cdf[k - 1] + static_cast<float>(hist[k]) / n;
    const float high = static_cast<float>(bins - 1);
    for (uint64_t i = 0; i < count; ++i) {
        const T v = src[i];
        float out = static_cast<float>(v) * cdf[v] + 0.5f;
        if (out > high) out = high;
        if (out < 0.0f) out = 0.0f;
        dst[i] = static_cast<T>(out);
    }
    return 1;
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
    const uint64_t count = PixelCount(width, height);
    for (uint64_t i = 0; i < count; ++i) {
        float v = static_cast<float>(src[i]) * contrast + brightness;
        if (v > 65535.0f) v = 65535.0f;
        if (v < 0.0f) v = 0.0f;
        dst[i] = StoreClamped<uint16_t>(v);
    }
    return 1;
}

int GammaCorrect(void* src, void* dst, uint32_t width, uint32_t height, float gamma,
                 int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    switch (pixelType) {
    case kPix8U:
        return GammaWorker(static_cast<const uint8_t*>(src), static_cast<uint8_t*>(dst), count, gamma);
    case kPix16U:
        return GammaWorker(static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst), count, gamma);
    case kPix16S:
        return GammaWorker(static_cast<const int16_t*>(src), static_cast<int16_t*>(dst), count, gamma);
    case kPix32F:
        return GammaWorker(static_cast<const float*>(src), static_cast<float*>(dst), count, gamma);
    default:
        return -3;
    }
}

// The floor of 20 keeps the logarithm of dark or empty pixels finite.
int Image_Log(float* src, float* dst, uint32_t width, uint32_t height, int32_t negate) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    for (uint64_t i = 0; i < count; ++i) {
        const double x = static_cast<double>(src[i]);
        const float v = static_cast<float>(std::log(x < 20.0 ? 20.0 : x));
        dst[i] = negate == 1 ? -v : v;
    }
    return 1;
}

int Image_Square_NoTrunc(void* src, double* dst, int32_t width, int32_t height,
                         int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    switch (pixelType) {
    case kPix8U: SquareWorker(static_cast<const uint8_t*>(src), dst, count); return 1;
    case kPix16U: SquareWorker(static_cast<const uint16_t*>(src), dst, count); return 1;
    case kPix16S: SquareWorker(static_cast<const int16_t*>(src), dst, count); return 1;
    case kPix32F: SquareWorker(static_cast<const float*>(src), dst, count); return 1;
    case kPix32S: SquareWorker(static_cast<const int32_t*>(src), dst, count); return 1;
    default: return -3;
    }
}

int ThresholdBinary(uint16_t* src, uint16_t* dst, int32_t pixelType, uint32_t width,
                    uint32_t height, double threshold, uint32_t mode) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (mode > 3) return 1;
    const uint64_t count = PixelCount(width, height);
    if (pixelType == kPix16U) {
        ThresholdWorker(src, dst, count, threshold, mode);
    } else if (pixelType == kPix8U) {
        ThresholdWorker(reinterpret_cast<const uint8_t*>(src), reinterpret_cast<uint8_t*>(dst), count,
                        threshold, mode);
    }
    return 1;
}

// The floor of 0.001 keeps a dead pixel from dividing by zero.
int ImgGainCorrect(float* src, float* dst, uint32_t width, uint32_t height) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    double sum = 0.0;
    for (uint64_t i = 0; i < count; ++i) sum += static_cast<double>(src[i]);
    const float mean = static_cast<float>(sum / static_cast<double>(static_cast<int64_t>(count)));
    for (uint64_t i = 0; i < count; ++i) {
        const float v = src[i];
        dst[i] = mean / (v < 0.001f ? 0.001f : v);
    }
    return 1;
}

int EquHist(uint16_t* src, uint16_t* dst, int32_t pixelCount, int32_t pixelType) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    const uint64_t count = pixelCount > 0 ? static_cast<uint64_t>(pixelCount) : 0;
    if (pixelType == kPix16U) return EquHistWorker(src, dst, count);
    if (pixelType == kPix8U)
        return EquHistWorker(reinterpret_cast<const uint8_t*>(src), reinterpret_cast<uint8_t*>(dst), count);
    return -3;
}
