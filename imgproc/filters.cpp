// Neighbourhood filters: correlation with a caller's kernel, Gaussian kernel and filter, box
// (mean) filter by running sums. The median filter is in median.cpp.
#include "veltrano/filters.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "imgproc/pixel_helpers.h"
#include "imgproc/scratch_buffers.h"

namespace veltrano {
namespace {

constexpr int kFilterTooLarge = -5;  // filter2D / gaussFilter
constexpr int kBoxTooLarge = -4;

// ---------------------------------------------------------------------------------------------
// Correlation core

// K floats starting on a 32-byte boundary, zero-filled, so that the dot product runs eight lanes
// at a time on aligned data.
class AlignedFloats {
public:
    bool allocate(uint64_t count) {
        if (!TryResize(storage_, count + 8)) return false;
        void* p = storage_.data();
        size_t space = storage_.size() * sizeof(float);
        data_ = static_cast<float*>(std::align(32, count * sizeof(float), p, space));
        return data_ != nullptr;
    }
    float* data() { return data_; }

private:
    std::vector<float> storage_;
    float* data_ = nullptr;
};

// The mirrored extension of src with the full kernel margins. The mirror is limited to the
// image's own size on each axis; a kernel larger than the image reaches past it, and those
// positions hold 0 so that they add nothing to the correlation.
bool BuildPaddedSource(const float* src, int width, int height, BorderMargins full,
                       std::vector<float>& padded, uint64_t paddedCols) {
    const uint64_t paddedRows = static_cast<uint64_t>(height) + full.top + full.bottom;
    if (!TryResize(padded, SaturatingProduct(paddedRows, paddedCols))) return false;
    const BorderMargins lim = LimitMargins(full, height, width);
    const bool fits = lim.top == full.top && lim.bottom == full.bottom && lim.left == full.left &&
                      lim.right == full.right;
    if (fits) {
        ExtendBorderMirror(src, height, width, lim, padded.data());
        return true;
    }
    std::vector<float> ext;
    const uint64_t extCols = static_cast<uint64_t>(width) + lim.left + lim.right;
    const uint64_t extRows = static_cast<uint64_t>(height) + lim.top + lim.bottom;
    if (!TryResize(ext, extRows * extCols)) return false;
    ExtendBorderMirror(src, height, width, lim, ext.data());
    const uint64_t rowOff = static_cast<uint64_t>(full.top - lim.top);
    const uint64_t colOff = static_cast<uint64_t>(full.left - lim.left);
    for (uint64_t r = 0; r < extRows; ++r) {
        std::memcpy(padded.data() + (r + rowOff) * paddedCols + colOff, ext.data() + r * extCols,
                    extCols * sizeof(float));
    }
    return true;
}

// out(x, y) = sum kernel(i, j) * src(x + j - kw/2, y + i - kh/2), rows split into
// T = min(processors, height) blocks over an OpenMP static loop. Each pixel is a sum of eight
// partial sums in a fixed order, so the result does not depend on how many threads run.
// Returns 1, or kFilterTooLarge when the scratch buffers cannot be had.
int Correlate(const float* src, float* dst, int width, int height, const float* kernel, int kw,
              int kh) {
    const BorderMargins full{kh / 2, kh - kh / 2 - 1, kw / 2, kw - kw / 2 - 1};
    const uint64_t paddedCols = static_cast<uint64_t>(width) + full.left + full.right;
    const uint64_t taps = static_cast<uint64_t>(kh) * static_cast<uint64_t>(kw);
    const uint64_t lanes = (taps + 7) / 8 * 8;
    const int blocks = std::max(1, std::min(omp_get_num_procs(), height));

    std::vector<float> padded;
    AlignedFloats alignedKernel;
    std::vector<AlignedFloats> patches(static_cast<size_t>(blocks));
    if (!ScratchFits<float>(SaturatingProduct(lanes, static_cast<uint64_t>(blocks + 1))))
        return kFilterTooLarge;
    if (!alignedKernel.allocate(lanes)) return kFilterTooLarge;
    for (auto& p : patches)
        if (!p.allocate(lanes)) return kFilterTooLarge;
    if (!BuildPaddedSource(src, width, height, full, padded, paddedCols)) return kFilterTooLarge;
    std::memcpy(alignedKernel.data(), kernel, static_cast<size_t>(taps) * sizeof(float));

    const float* ker = alignedKernel.data();
    const float* ext = padded.data();
    const size_t rowBytes = static_cast<size_t>(kw) * sizeof(float);
#pragma omp parallel for schedule(static)
    for (int t = 0; t < blocks; ++t) {
        float* patch = patches[static_cast<size_t>(t)].data();
        const int64_t y0 = static_cast<int64_t>(t) * height / blocks;
        const int64_t y1 = static_cast<int64_t>(t + 1) * height / blocks;
        for (int64_t y = y0; y < y1; ++y) {
            float* out = dst + static_cast<size_t>(y) * static_cast<size_t>(width);
            for (int64_t x = 0; x < width; ++x) {
                const float* corner = ext + static_cast<size_t>(y) * paddedCols + static_cast<size_t>(x);
                for (int i = 0; i < kh; ++i)
                    std::memcpy(patch + static_cast<size_t>(i) * kw, corner + static_cast<size_t>(i) * paddedCols, rowBytes);
                float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
                for (uint64_t k = 0; k < lanes; k += 8) {
                    for (int l = 0; l < 8; ++l) acc[l] += patch[k + l] * ker[k + l];
                }
                float sum = acc[0];
                for (int l = 1; l < 8; ++l) sum += acc[l];
                out[x] = sum;
            }
        }
    }
    return 1;
}

// Shared argument checks and float conversion of the three filter2D members. The store step
// takes the float result of every pixel; it is not called when the member discards the result.
template <class T, class Store>
int Filter2D(const T* src, T* dst, int width, int height, const float* kernel, int kw, int kh,
             Store store) {
    if (src == nullptr || dst == nullptr) return -1;
    if (kernel == nullptr) return -3;
    if (kw < 1 || kh < 1) return -4;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    if constexpr (std::is_same_v<T, float>) {
        // Straight from source to destination: the core reads only its own padded copy, so this
        // is also safe in place.
        return Correlate(src, dst, width, height, kernel, kw, kh);
    } else {
        std::vector<float> in;
        std::vector<float> out;
        if (!TryResize(in, count) || !TryResize(out, count)) return kFilterTooLarge;
        for (uint64_t i = 0; i < count; ++i) in[i] = static_cast<float>(src[i]);
        const int rc = Correlate(in.data(), out.data(), width, height, kernel, kw, kh);
        if (rc != 1) return rc;
        store(out.data(), dst, count);
        return 1;
    }
}

// ---------------------------------------------------------------------------------------------
// Gaussian kernel and filter

template <class T>
int GaussKernel(T* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    if (kernel == nullptr) return -1;
    if (kw < 1 && kh < 1) return -2;
    if (!(sigmaX > 0.0)) sigmaX = 1.0;
    if (!(sigmaY > 0.0)) sigmaY = 1.0;
    // Both axes use the product of the two sigmas: they do not act separately.
    const double denom = 2.0 * sigmaX * sigmaY;
    double sum = 0.0;
    for (int64_t i = 0; i < kh; ++i) {
        const double dy = static_cast<double>(i - kh / 2);
        for (int64_t j = 0; j < kw; ++j) {
            const double dx = static_cast<double>(j - kw / 2);
            const T v = static_cast<T>(std::exp(-(dy * dy + dx * dx) / denom));
            kernel[i * kw + j] = v;
            sum += static_cast<double>(v);
        }
    }
    const double inv = 1.0 / sum;
    for (int64_t i = 0; i < kh; ++i)
        for (int64_t j = 0; j < kw; ++j)
            kernel[i * kw + j] = static_cast<T>(static_cast<double>(kernel[i * kw + j]) * inv);
    return 1;
}

// The kernel is generated ksize1 x ksize1 and read as ksize1 x ksize2; elements past what was
// generated (ksize2 > ksize1) are 0, and the buffer holds whichever of the two is larger.
template <class T, class Filter>
int GaussFilter(T* src, T* dst, int width, int height, int ksize1, int ksize2, double sigmaX,
                double sigmaY, Filter filter) {
    const uint64_t k1 = ksize1 > 0 ? static_cast<uint64_t>(ksize1) : 0;
    const uint64_t k2 = ksize2 > 0 ? static_cast<uint64_t>(ksize2) : 0;
    std::vector<float> kernel;
    if (!TryResize(kernel, std::max<uint64_t>({k1 * k1, k1 * k2, 1}))) return kFilterTooLarge;
    const int rc = GaussKernel(kernel.data(), ksize1, ksize1, sigmaX, sigmaY);
    if (rc != 1) return rc;
    return filter(src, dst, width, height, kernel.data(), ksize1, ksize2);
}

// ---------------------------------------------------------------------------------------------
// Box filter

// Running sum along one extended line e[0..len-1] whose window for output position p covers
// [p + offset - r, p + offset + r]; window positions outside the line count as 0. The first
// window is summed in full, then each step adds the element entering on the right and
// subtracts the one leaving on the left.
struct RunningWindow {
    int64_t len;
    int64_t offset;
    int64_t r;
    int64_t first() const { return std::max<int64_t>(0, offset - r); }
    int64_t last() const { return std::min<int64_t>(len - 1, offset + r); }
    int64_t entering(int64_t p) const { return p + offset + r; }   // valid when < len
    int64_t leaving(int64_t p) const { return p - 1 + offset - r; } // valid when >= 0
};

template <class T>
int BoxFilter(const T* src, T* dst, int width, int height, int radius) {
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    const int64_t r = std::max(radius, 1);
    const double k = static_cast<double>(2 * r + 1);
    const float area = static_cast<float>(k * k);
    double low = 0.0;
    double high = 0.0;
    int isFloat = 0;
    PixelValueRange<T>(low, high, isFloat);
    const double offset = static_cast<double>(RoundingOffset<T>());

    // Horizontal pass: each row extended left and right in its own pixel type.
    const BorderMargins hm = LimitMargins({0, 0, static_cast<int>(std::min<int64_t>(r, width)),
                                           static_cast<int>(std::min<int64_t>(r, width))},
                                          1, width);
    const RunningWindow hw{static_cast<int64_t>(width) + 2 * hm.left, hm.left, r};
    std::vector<T> ext;
    std::vector<double> rowSums;
    std::vector<double> colSums;
    if (!TryResize(ext, static_cast<uint64_t>(hw.len)) || !TryResize(rowSums, count) ||
        !TryResize(colSums, static_cast<uint64_t>(width)))
        return kBoxTooLarge;
    for (int64_t y = 0; y < height; ++y) {
        ExtendBorderMirror(src + y * width, 1, width, hm, ext.data());
        double* out = rowSums.data() + y * width;
        double sum = 0.0;
        for (int64_t e = hw.first(); e <= hw.last(); ++e) sum += static_cast<double>(ext[e]);
        out[0] = sum;
        for (int64_t x = 1; x < width; ++x) {
            const int64_t in = hw.entering(x);
            const int64_t outIdx = hw.leaving(x);
            if (in < hw.len) sum += static_cast<double>(ext[in]);
            if (outIdx >= 0) sum -= static_cast<double>(ext[outIdx]);
            out[x] = sum;
        }
    }

    // Vertical pass over the row sums, extended above and below by the same mirror rule. The
    // column sums advance a whole row at a time, with each column's additions in the same order
    // as a running sum down that column.
    const int64_t mv = std::min<int64_t>(r, height);
    const RunningWindow vw{static_cast<int64_t>(height) + 2 * mv, mv, r};
    auto sourceRow = [&](int64_t e) {
        return rowSums.data() + MirrorIndex(e - mv, height) * static_cast<ptrdiff_t>(width);
    };
    for (int64_t e = vw.first(); e <= vw.last(); ++e) {
        const double* row = sourceRow(e);
        for (int64_t x = 0; x < width; ++x) colSums[x] += row[x];
    }
    for (int64_t y = 0; y < height; ++y) {
        if (y > 0) {
            const int64_t in = vw.entering(y);
            const int64_t outIdx = vw.leaving(y);
            const double* inRow = in < vw.len ? sourceRow(in) : nullptr;
            const double* outRow = outIdx >= 0 ? sourceRow(outIdx) : nullptr;
            for (int64_t x = 0; x < width; ++x) {
                if (inRow) colSums[x] += inRow[x];
                if (outRow) colSums[x] -= outRow[x];
            }
        }
        T* out = dst + y * width;
        for (int64_t x = 0; x < width; ++x) {
            double v = colSums[x] / static_cast<double>(area);
            // Row 0 rounds the mean half up; every later row first truncates it into the pixel
            // type, so integer images get truncated means there. Hosts depend on this.
            if (y == 0) {
                v += offset;
            } else if constexpr (std::is_integral_v<T>) {
                v = static_cast<double>(static_cast<T>(static_cast<int64_t>(v)));
            }
            if (v > high) v = high;
            if (v < low) v = low;
            if (y > 0) v += offset;
            out[x] = StoreClamped<T>(v);
        }
    }
    return 1;
}

void StoreFiltered16U(const float* in, uint16_t* out, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) {
        float v = in[i];
        if (v > 65535.0f) v = 65535.0f;
        if (!(v > 0.0f)) v = 0.0f;  // also NaN
        out[i] = static_cast<uint16_t>(v);
    }
}

}  // namespace
}  // namespace veltrano

using namespace veltrano;

int filter2D_16U(uint16_t* src, uint16_t* dst, int width, int height, float* kernel, int kh,
                 int kw) {
    return Filter2D(src, dst, width, height, kernel, kw, kh, StoreFiltered16U);
}

// The 8-bit member computes the correlation but never stores it: its destination keeps its
// previous bytes, and hosts (and gaussFilter_8U's callers) rely on that.
int filter2D_8U(uint8_t* src, uint8_t* dst, int width, int height, float* kernel, int kw, int kh) {
    return Filter2D(src, dst, width, height, kernel, kw, kh, [](const float*, uint8_t*, uint64_t) {});
}

int filter2D_32F(float* src, float* dst, int width, int height, float* kernel, int kw, int kh) {
    return Filter2D(src, dst, width, height, kernel, kw, kh, [](const float*, float*, uint64_t) {});
}

int getGaussker_32F(float* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    return GaussKernel(kernel, kw, kh, sigmaX, sigmaY);
}

int getGaussker_64F(double* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    return GaussKernel(kernel, kw, kh, sigmaX, sigmaY);
}

int gaussFilter_8U(uint8_t* src, uint8_t* dst, int width, int height, int ksize1, int ksize2,
                   double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY, filter2D_8U);
}

int gaussFilter_16U(uint16_t* src, uint16_t* dst, int width, int height, int ksize1, int ksize2,
                    double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY, filter2D_16U);
}

int gaussFilter_32F(float* src, float* dst, int width, int height, int ksize1, int ksize2,
                    double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY, filter2D_32F);
}

int Box_Filter(void* src, void* dst, int width, int height, int pixelType, int radius) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    switch (pixelType) {
    case kPix8U:
        return BoxFilter(static_cast<const uint8_t*>(src), static_cast<uint8_t*>(dst), width, height, radius);
    case kPix16U:
        return BoxFilter(static_cast<const uint16_t*>(src), static_cast<uint16_t*>(dst), width, height, radius);
    case kPix16S:
        return BoxFilter(static_cast<const int16_t*>(src), static_cast<int16_t*>(dst), width, height, radius);
    case kPix32F:
        return BoxFilter(static_cast<const float*>(src), static_cast<float*>(dst), width, height, radius);
    case kPix64F:
        return BoxFilter(static_cast<const double*>(src), static_cast<double*>(dst), width, height, radius);
    default:
        return -3;
    }
}
