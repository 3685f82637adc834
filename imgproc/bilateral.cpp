// Bilateral filter.
#include "veltrano/bilateral.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include "imgproc/window_helpers.h"

namespace veltrano {
namespace {

constexpr int kMaxKernelSide = 2 * kMaxWindowRadius + 1;

// d * d * c, but 0 for d = 0 even when c is infinite (0 * inf would be NaN).
float ScaledSquare(float d, float c) { return d == 0.0f ? 0.0f : d * d * c; }

void Bilateral(const float* src, float* dst, int width, int height, const struBilatralParam& p) {
    const int kw = p.k_w;
    const int kh = p.k_h;
    const int top = kh / 2;
    const int left = kw / 2;
    const std::vector<float> ext =
        ExtendMirrorAnyMargin(src, height, width, BorderMargins{top, kh - top - 1, left, kw - left - 1});
    const size_t extW = static_cast<size_t>(width) + kw - 1;
    const size_t taps = static_cast<size_t>(kw) * kh;

    const float cS = 1.0f / (2.0f * p.sigColor_x * p.sigColor_y);
    const float cR = 1.0f / (2.0f * p.sigSpace_x * p.sigColor_y);

    // The spatial term depends only on the position in the window (kept in double precision).
    std::vector<double> spatial(taps);
    for (int i = 0; i < kh; ++i) {
        for (int j = 0; j < kw; ++j) {
            const int d2 = (i - top) * (i - top) + (j - left) * (j - left);
            spatial[static_cast<size_t>(i) * kw + j] =
                d2 == 0 ? 0.0 : static_cast<double>(d2) * static_cast<double>(cS);
        }
    }

    // Allocated once; every pixel overwrites them.
    std::vector<float> patch(taps);
    std::vector<float> weight(taps);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float* window = ext.data() + static_cast<size_t>(y) * extW + x;
            for (int i = 0; i < kh; ++i)
                for (int j = 0; j < kw; ++j)
                    patch[static_cast<size_t>(i) * kw + j] = window[static_cast<size_t>(i) * extW + j];
            const float centre = patch[static_cast<size_t>(top) * kw + left];

            float sum = 0.0f;
            for (size_t n = 0; n < taps; ++n) {
                const float d = patch[n] - centre;
                const float v = static_cast<float>(spatial[n] + static_cast<double>(ScaledSquare(d, cR)));
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

}  // namespace
}  // namespace veltrano

int bilateralFilter_32F(float* src, float* dst, int width, int height, struBilatralParam* param) {
    if (src == nullptr || dst == nullptr || param == nullptr) return 1;
    if (width < 1 || height < 1) return 1;
    if (param->k_w < 1 || param->k_h < 1 || param->k_w > veltrano::kMaxKernelSide ||
        param->k_h > veltrano::kMaxKernelSide)
        return 1;
    veltrano::Bilateral(src, dst, width, height, *param);
    return 1;
}

int bilateralFilter_16U(uint16_t* src, uint16_t* dst, int, int, struBilatralParam*) {
    if (src == nullptr || dst == nullptr) return -1;
    return 1;
}
