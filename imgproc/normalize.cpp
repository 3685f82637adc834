// Linear normalisation family and Normalize_TruncMinMax.
#include "veltrano/normalize.h"

#include <cmath>
#include <type_traits>
#include <utility>

#include "imgproc/pixel_helpers.h"

namespace veltrano {
namespace {

// One implementation for the four members. Integer members compute in single precision and
// round half up; the float member stays in single precision; the double member computes in
// double but with scale, span and low first rounded to single precision, which hosts see in the
// last bits of its results and which is therefore kept.
template <class T>
int NormalizeLinear(const T* src, T* dst, uint32_t width, uint32_t height, T low, T high) {
    if (src == nullptr || dst == nullptr) return -1;
    if (high < low) std::swap(low, high);
    using Calc = std::conditional_t<std::is_same_v<T, double>, double, float>;
    const float outSpan = static_cast<float>(high - low);
    const uint32_t count = width * height;  // 32-bit on purpose, as the pixel count everywhere
    if (count == 0) return 1;

    T mn = src[0];
    T mx = src[0];
    FindMinMax(src, count, mn, mx);
    const double range = static_cast<double>(mx) - static_cast<double>(mn);
    if (std::fabs(range) < 1e-16) return 1;
    if (std::fabs(static_cast<double>(low) - static_cast<double>(mn)) < 1e-9 &&
        std::fabs(static_cast<double>(high) - static_cast<double>(mx)) < 1e-9)
        return 1;

    const float scale = 1.0f / static_cast<float>(mx - mn);
    const Calc cScale = static_cast<Calc>(scale);
    const Calc cSpan = static_cast<Calc>(outSpan);
    const Calc cLow = static_cast<Calc>(static_cast<float>(low));
    const Calc offset = static_cast<Calc>(RoundingOffset<T>());
    const double dLow = static_cast<double>(low);
    const double dHigh = static_cast<double>(high);
    for (uint32_t i = 0; i < count; ++i) {
        const Calc shifted = static_cast<Calc>(src[i] - mn);
        double v = static_cast<double>(shifted * cScale * cSpan + cLow + offset);
        if (v > dHigh) v = dHigh;
        if (v < dLow) v = dLow;
        dst[i] = static_cast<T>(v);
    }
    return 1;
}

}  // namespace
}  // namespace veltrano

using veltrano::NormalizeLinear;

int normalize_8U(const uint8_t* src, uint8_t* dst, uint32_t width, uint32_t height, uint8_t low,
                 uint8_t high) {
    return NormalizeLinear(src, dst, width, height, low, high);
}

int normalize_16U(const uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                  uint16_t low, uint16_t high) {
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
