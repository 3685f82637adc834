// Unsharp masking (box and Gaussian) and the general single-precision correlation.
#include "veltrano/usm.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "imgproc/window_helpers.h"
#include "veltrano/normalize.h"

namespace veltrano {
namespace {

// Largest relative difference between the ratios of one row to the reference row for the kernel
// still to count as separable.
constexpr float kSeparableTolerance = 1e-5f;

struct SeparableKernel {
    std::vector<float> columnFactors;  // kh factors, one per kernel row
    std::vector<float> row;            // the reference row, kw weights
};

bool IsZeroRow(const float* row, int kw) {
    for (int j = 0; j < kw; ++j)
        if (row[j] != 0.0f) return false;
    return true;
}

// A kernel is separable when every row is a multiple of one reference row: the first row whose
// first weight is not zero. The rows above it get factor 0 without being looked at, so weights
// they hold past their first position drop out of the split; hosts' kernels have always been
// split this way, and the results they compare against include that loss.
bool SplitSeparable(const float* kernel, int kw, int kh, SeparableKernel& out) {
    int ref = 0;
    while (ref < kh && kernel[static_cast<size_t>(ref) * kw] == 0.0f) ++ref;
    if (ref == kh) return false;
    const float* refRow = kernel + static_cast<size_t>(ref) * kw;

    out.columnFactors.assign(static_cast<size_t>(kh), 0.0f);
    out.columnFactors[ref] = 1.0f;

    for (int i = ref + 1; i < kh; ++i) {
        const float* row = kernel + static_cast<size_t>(i) * kw;
        if (IsZeroRow(row, kw)) continue;  // factor 0
        bool haveFactor = false;
        float factor = 0.0f;
        for (int j = 0; j < kw; ++j) {
            const bool rowZero = row[j] == 0.0f;
            const bool refZero = refRow[j] == 0.0f;
            if (rowZero && refZero) continue;
            if (rowZero != refZero) return false;
            const float ratio = row[j] / refRow[j];
            if (!haveFactor) {
                factor = ratio;
                haveFactor = true;
            } else if (!(std::fabs(factor - ratio) / std::fabs(ratio) <= kSeparableTolerance)) {
                return false;
            }
        }
        out.columnFactors[i] = factor;
    }
    out.row.assign(refRow, refRow + kw);
    return true;
}

// output(x, y) = sum over i, j of kernel(i, j) * source(x + j - left, y + i - top), accumulated in
// single precision with i outer and j inner. One output row at a time, so the inner loop runs
// along contiguous memory; every pixel still adds its terms in that order.
void CorrelateDirect(const float* src, float* dst, const float* kernel, int width, int height,
                     int kw, int kh, const uint8_t* mask) {
    const int top = kh / 2;
    const int left = kw / 2;
    const BorderMargins margins{top, kh - top - 1, left, kw - left - 1};
    const std::vector<float> ext = ExtendMirrorAnyMargin(src, height, width, margins);
    const size_t w = static_cast<size_t>(width);
    const size_t extW = w + static_cast<size_t>(kw) - 1;
    std::vector<float> acc(w);
    for (size_t y = 0; y < static_cast<size_t>(height); ++y) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (size_t i = 0; i < static_cast<size_t>(kh); ++i) {
            const float* extRow = ext.data() + (y + i) * extW;
            for (size_t j = 0; j < static_cast<size_t>(kw); ++j) {
                const float weight = kernel[i * static_cast<size_t>(kw) + j];
                const float* in = extRow + j;
                for (size_t x = 0; x < w; ++x) acc[x] += weight * in[x];
            }
        }
        // The extension already holds the source, so masked-out pixels copy it from there,
        // which is also right when the destination is the source.
        float* out = dst + y * w;
        const float* original = ext.data() + (y + static_cast<size_t>(top)) * extW + left;
        const uint8_t* m = mask == nullptr ? nullptr : mask + y * w;
        for (size_t x = 0; x < w; ++x) out[x] = (m == nullptr || m[x] != 0) ? acc[x] : original[x];
    }
}

std::vector<float> Widen(const uint16_t* src, size_t count) {
    std::vector<float> out(count);
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<float>(src[i]);
    return out;
}

// Clamp to 0..65535 (a NaN becomes 0) and truncate.
uint16_t StoreClamped(float v) {
    if (v > 65535.0f) v = 65535.0f;
    if (!(v >= 0.0f)) v = 0.0f;
    return static_cast<uint16_t>(v);
}

}  // namespace
}  // namespace veltrano

int ImageConv(const float* src, float* dst, const float* kernel, int32_t width, int32_t height,
              int32_t kw, int32_t kh, const uint8_t* mask) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (kernel == nullptr) return -3;
    if (width < 1 || height < 1 || kw < 1 || kh < 1) return -4;

    veltrano::SeparableKernel parts;
    if (kw >= 2 && kh >= 2 && veltrano::SplitSeparable(kernel, kw, kh, parts)) {
        // kh + kw multiplications per pixel instead of kh * kw; the mask has no say here.
        ImageConv(src, dst, parts.columnFactors.data(), width, height, 1, kh, nullptr);
        ImageConv(dst, dst, parts.row.data(), width, height, kw, 1, nullptr);
        return 1;
    }
    veltrano::CorrelateDirect(src, dst, kernel, width, height, kw, kh, mask);
    return 1;
}

int USM_BOX(uint16_t* src, uint16_t* dst, int32_t width, int32_t height, int32_t radius,
            float amount, bool normalise) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (radius > veltrano::kMaxWindowRadius) return -4;
    if (width < 1 || height < 1) return 1;
    const int r = radius < 0 ? 0 : radius;
    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);

    std::vector<float> image = veltrano::Widen(src, count);
    // Holds the box sums first; each is replaced by its pixel's sharpened value.
    std::vector<float> sharpened(count);
    veltrano::RunningBoxSum(image.data(), sharpened.data(), width, height, r);

    const int side = 2 * r + 1;
    const float gain = static_cast<float>(side * side) * amount + 1.0f;
    for (size_t i = 0; i < count; ++i) sharpened[i] = image[i] * gain - sharpened[i] * amount;

    // normalize_32F writes into the widened source; when it exits early without writing, that
    // buffer still holds the source, which then goes to the destination unsharpened.
    if (normalise)
        normalize_32F(sharpened.data(), image.data(), static_cast<uint32_t>(width),
                      static_cast<uint32_t>(height), 0.0f, 65535.0f);
    const std::vector<float>& stored = normalise ? image : sharpened;
    for (size_t i = 0; i < count; ++i) dst[i] = veltrano::StoreClamped(stored[i]);
    return 1;
}

int USM_EX(uint16_t* src, void* dst, uint32_t width, uint32_t height, int32_t pixelType,
           struUSMParam* param, const char* iniPath) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (pixelType != veltrano::kPix16U) return -3;
    if (param == nullptr) return -4;
    if (iniPath != nullptr && iniPath[0] != '\0') *param = struUSMParam(iniPath);
    // Sizes beyond the int range would turn negative, which USM_BOX treats as empty.
    const int32_t w = width > INT32_MAX ? 0 : static_cast<int32_t>(width);
    const int32_t h = height > INT32_MAX ? 0 : static_cast<int32_t>(height);
    return USM_BOX(src, static_cast<uint16_t*>(dst), w, h, param->r, param->lam,
                   param->isNeedNorm != 0);
}

int USM_Gaussian(uint16_t* src, uint16_t* dst, int32_t width, int32_t height, int32_t radius,
                 float amount, int32_t threshold, float sigma, uint8_t* mask) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (width < 1 || height < 1 || radius <= 0 || radius > veltrano::kMaxWindowRadius) return -4;
    // Sigma enters squared, so a negative sigma acts as its magnitude; 0 (or NaN) has no curve
    // at all and falls back to 1.
    if (sigma == 0.0f || sigma != sigma) sigma = 1.0f;

    const int side = 2 * radius + 1;
    const float c = -1.0f / (2.0f * sigma * sigma);
    std::vector<float> kernel(static_cast<size_t>(side) * side);
    for (int i = 0; i < side; ++i) {
        for (int j = 0; j < side; ++j) {
            const int d2 = (j - radius) * (j - radius) + (i - radius) * (i - radius);
            // The centre is exactly 1 even when a tiny sigma makes c infinite (0 * inf is NaN).
            kernel[static_cast<size_t>(i) * side + j] =
                d2 == 0 ? 1.0f : std::exp(static_cast<float>(d2) * c);
        }
    }

    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    const std::vector<float> image = veltrano::Widen(src, count);
    std::vector<float> conv(count);

    if (mask != nullptr) {
        ImageConv(image.data(), conv.data(), kernel.data(), width, height, side, side, nullptr);
        const float limit = static_cast<float>(threshold);
        for (size_t i = 0; i < count; ++i)
            mask[i] = std::fabs(image[i] - conv[i]) >= limit ? 1 : 0;
    }

    float weightSum = 0.0f;
    for (float& k : kernel) {
        weightSum += k;
        k *= amount;
    }
    const float gain = weightSum * amount + 1.0f;

    const int result =
        ImageConv(image.data(), conv.data(), kernel.data(), width, height, side, side, mask);
    for (size_t i = 0; i < count; ++i) dst[i] = veltrano::StoreClamped(image[i] * gain - conv[i]);
    return result;
}
