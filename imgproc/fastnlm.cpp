// Fast non-local-means denoising.
#include "veltrano/fastnlm.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include "imgproc/window_helpers.h"

namespace veltrano {
namespace {

// Distances below this come from a table of exponentials; larger ones call exp directly.
constexpr size_t kWeightTableSize = 65536;

float WeightOf(uint64_t distance, float k) {
    const float exponent = -static_cast<float>(distance) * k;
    return static_cast<float>(std::exp(static_cast<double>(exponent)));
}

// Filtering constant k = 1 / (h^2 P^2), in single precision.
float StrengthConstant(float h, int p) {
    const ptrdiff_t patch = 2 * static_cast<ptrdiff_t>(p) + 1;
    return 1.0f / (h * h * static_cast<float>(patch * patch));
}

void Denoise(const uint8_t* src, uint8_t* out, int width, int height, float k, int p, int s) {
    const ptrdiff_t w = width;
    const ptrdiff_t ht = height;
    const ptrdiff_t patch = 2 * static_cast<ptrdiff_t>(p) + 1;
    const int reach = p + s;

    // One extension by p + s serves as the reference image (extended by p), the displaced image
    // and the value image (extended by s): all three mirror the same source, so each is a window
    // of the widest one.
    const std::vector<uint8_t> ext =
        ExtendMirrorAnyMargin(src, height, width, BorderMargins{reach, reach, reach, reach});
    const ptrdiff_t extW = w + 2 * static_cast<ptrdiff_t>(reach);

    const ptrdiff_t intW = w + 2 * static_cast<ptrdiff_t>(p) + 1;
    const ptrdiff_t intH = ht + 2 * static_cast<ptrdiff_t>(p) + 1;
    std::vector<uint64_t> integral(static_cast<size_t>(intW) * static_cast<size_t>(intH), 0);
    std::vector<float> weightSum(static_cast<size_t>(w * ht), 0.0f);
    std::vector<float> valueSum(static_cast<size_t>(w * ht), 0.0f);

    std::vector<float> table(kWeightTableSize);
    for (size_t d = 0; d < kWeightTableSize; ++d) table[d] = WeightOf(d, k);

    for (ptrdiff_t dy = -s; dy <= s; ++dy) {
        for (ptrdiff_t dx = -s; dx <= s; ++dx) {
            // Integral image of squared differences between the image and its displaced copy,
            // both over the patch-extended area. Row and column 0 stay 0.
            for (ptrdiff_t i = 0; i < intH - 1; ++i) {
                const uint8_t* ref = ext.data() + (i + s) * extW + s;
                const uint8_t* moved = ext.data() + (i + s + dy) * extW + s + dx;
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
                const uint64_t* bottom = integral.data() + (y + patch) * intW;
                const uint8_t* values = ext.data() + (y + dy + reach) * extW + reach + dx;
                float* ws = weightSum.data() + y * w;
                float* vs = valueSum.data() + y * w;
                for (ptrdiff_t x = 0; x < w; ++x) {
                    // Unsigned wrap-around cancels in the sum, which is never negative.
                    const uint64_t distance = bottom[x + patch] - top[x + patch] - bottom[x] + top[x];
                    const float weight =
                        distance < kWeightTableSize ? table[distance] : WeightOf(distance, k);
                    ws[x] += weight;
                    vs[x] += weight * static_cast<float>(values[x]);
                }
            }
        }
    }

    // The zero displacement adds weight 1 to every pixel, so no weight sum is 0.
    for (ptrdiff_t i = 0; i < w * ht; ++i) {
        float v = valueSum[i] / weightSum[i] + 0.5f;
        if (!(v < 255.0f)) v = 255.0f;
        if (!(v > 0.0f)) v = 0.0f;
        out[i] = static_cast<uint8_t>(v);
    }
}

}  // namespace
}  // namespace veltrano

int FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p, int s) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (p < 0 || s < 0 || p > veltrano::kMaxWindowRadius || s > veltrano::kMaxWindowRadius)
        return -4;
    // h = 0 (or an h so small that h^2 underflows) makes k infinite and every weight 0 * inf.
    const float k = veltrano::StrengthConstant(h, p);
    if (!std::isfinite(h) || !std::isfinite(k)) return -3;
    if (width < 1 || height < 1) return 1;
    // The filter reads only its own mirrored copy of the source, made before anything is
    // written, so an in-place call needs no temporary output.
    veltrano::Denoise(src, dst, width, height, k, p, s);
    return 1;
}
