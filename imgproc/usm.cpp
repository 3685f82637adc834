// Unsharp masking (box and Gaussian) and the general single-precision correlation.
#include "veltrano/usm.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/row_kernels.h"
#include "imgproc/scratch_buffers.h"
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

// The straightforward ImageConv: the separable split as two calls of ImageConv itself, or the
// direct sum over the whole extended image.
void ImageConvReference(const float* src, float* dst, const float* kernel, int width, int height,
                        int kw, int kh, const uint8_t* mask) {
    SeparableKernel parts;
    if (kw >= 2 && kh >= 2 && SplitSeparable(kernel, kw, kh, parts)) {
        // kh + kw multiplications per pixel instead of kh * kw; the mask has no say here.
        ImageConv(src, dst, parts.columnFactors.data(), width, height, 1, kh, nullptr);
        ImageConv(dst, dst, parts.row.data(), width, height, kw, 1, nullptr);
        return;
    }
    CorrelateDirect(src, dst, kernel, width, height, kw, kh, mask);
}

// A copy of the source when it shares memory with the destination, since the fast paths read
// source rows over the whole window while writing results.
template <class T, class U>
bool SeparateSource(const T*& src, const U* dst, size_t count, std::vector<T>& copy) {
    if (!Overlaps(src, count * sizeof(T), dst, count * sizeof(U))) return true;
    if (!TryResize(copy, count)) return false;
    std::memcpy(copy.data(), src, count * sizeof(T));
    src = copy.data();
    return true;
}

// True when no element is an infinity or NaN: none has an exponent of all ones. Written with
// integer operations of the baseline instruction set so that it runs as vector code.
template <class T>
bool AllFinite(const T* p, size_t n) {
    if constexpr (std::is_integral_v<T>) {
        return true;
    } else {
        static_assert(sizeof(T) == sizeof(uint32_t), "float elements");
        uint32_t any = 0;
        for (size_t i = 0; i < n; ++i) {
            uint32_t bits;
            std::memcpy(&bits, p + i, sizeof bits);
            any |= (bits & 0x7f800000u) + 0x00800000u;  // carries into the top bit for all ones
        }
        return (any & 0x80000000u) == 0;
    }
}

// Weights and positions of a list of taps, in order. A product with a zero weight adds a zero
// to a sum that started from +0, which changes nothing, as long as the pixel it multiplies is
// finite (0 times an infinity is NaN): such taps are left out when every input is finite.
struct TapList {
    std::vector<float> weights;
    std::vector<uint32_t> rows;
    std::vector<uint32_t> cols;
    std::vector<float> nonZeroWeights;
    std::vector<uint32_t> nonZero;  // indices into the lists above

    void build(const float* kernel, int kw, int kh) {
        for (int i = 0; i < kh; ++i)
            for (int j = 0; j < kw; ++j) {
                const float w = kernel[static_cast<size_t>(i) * kw + j];
                if (w != 0.0f) {
                    nonZero.push_back(static_cast<uint32_t>(weights.size()));
                    nonZeroWeights.push_back(w);
                }
                weights.push_back(w);
                rows.push_back(static_cast<uint32_t>(i));
                cols.push_back(static_cast<uint32_t>(j));
            }
    }
};

// ImageConv's correlation one output row at a time, from a float or 16-bit source, for the fast
// levels. The same split as the straightforward path: a separable kernel runs its column pass
// over each extended row and its row pass over the result (which is what the two passes compute
// at every pixel, the row pass's mirrored columns being column passes over mirrored columns); any
// other kernel sums its taps in order, two output rows at a time. Positions outside the image
// follow MirrorIndex, as in ExtendMirrorAnyMargin. A float source is read in place wherever the
// window lies inside it; a 16-bit one is widened into a ring of extended rows.
template <class T>
class ConvRows {
public:
    bool init(Impl impl, const T* src, int width, int height, const float* kernel, int kw, int kh) {
        impl_ = impl;
        width_ = static_cast<size_t>(width);
        height_ = height;
        margins_ = BorderMargins{kh / 2, kh - kh / 2 - 1, kw / 2, kw - kw / 2 - 1};
        kh_ = static_cast<size_t>(kh);
        separable_ = kw >= 2 && kh >= 2 && SplitSeparable(kernel, kw, kh, parts_);
        if (separable_) {
            vertical_.build(parts_.columnFactors.data(), 1, kh);
            horizontal_.build(parts_.row.data(), kw, 1);
        } else {
            direct_.build(kernel, kw, kh);
        }
        // Only a kernel with zero weights has taps to leave out.
        const TapList& first = separable_ ? vertical_ : direct_;
        finiteSource_ = first.nonZero.size() < first.weights.size() &&
                        AllFinite(src, width_ * static_cast<size_t>(height));
        if (!rows_.init(src, width, height, margins_, Border::AnyMargin,
                        kInPlace && separable_ ? 1 : static_cast<size_t>(kh) + 1, kInPlace))
            return false;
        const size_t taps = static_cast<size_t>(kw) * static_cast<size_t>(kh);
        return TryResize(window_, static_cast<uint64_t>(kh) + 1) &&
               TryResize(bases_, 2 * static_cast<uint64_t>(kh) + 2) && TryResize(in0_, taps) &&
               TryResize(in1_, taps) && TryResize(columns_, rows_.length());
    }

    // Every output row from the top is written to target(y) (width floats), then sink(y) is
    // called. With a mask (not on the separable path), a pixel whose mask byte is 0 takes the
    // source value.
    template <class Target, class Sink>
    void run(const uint8_t* mask, Target target, Sink sink) {
        for (int y = 0; y < height_; ++y) {
            if (separable_) {
                Separable(y, target(y));
                sink(y);
                continue;
            }
            const bool two = y + 1 < height_;
            float* out0 = target(y);
            float* out1 = two ? target(y + 1) : nullptr;
            Direct(y, two, out0, out1);
            if (mask != nullptr) {
                KeepMasked(y, mask, out0);
                if (two) KeepMasked(y + 1, mask, out1);
            }
            sink(y);
            if (two) sink(++y);
        }
    }

private:
    static constexpr bool kInPlace = std::is_same_v<T, float>;

    ptrdiff_t Position(int y, size_t i) const {
        return static_cast<ptrdiff_t>(y) - margins_.top + static_cast<ptrdiff_t>(i);
    }

    void Separable(int y, float* out) {
        float* columns = columns_.data();
        const bool skipV = finiteSource_;
        const float* weightsV = skipV ? vertical_.nonZeroWeights.data() : vertical_.weights.data();
        const size_t tapsV = skipV ? vertical_.nonZero.size() : kh_;
        if constexpr (kInPlace) {
            for (size_t i = 0; i < kh_; ++i) window_[i] = rows_.source(Position(y, i));
            Taps(
                vertical_, skipV, [&](size_t t) { return window_[vertical_.rows[t]]; },
                in0_.data());
            SequentialSumRows(impl_, in0_.data(), nullptr, weightsV, tapsV, width_,
                              columns + margins_.left, nullptr);
            FillMargins(columns, static_cast<int>(width_), margins_, Border::AnyMargin);
        } else {
            for (size_t i = 0; i < kh_; ++i) window_[i] = rows_.row(Position(y, i));
            Taps(
                vertical_, skipV, [&](size_t t) { return window_[vertical_.rows[t]]; },
                in0_.data());
            SequentialSumRows(impl_, in0_.data(), nullptr, weightsV, tapsV, rows_.length(), columns,
                              nullptr);
        }
        const bool skipH = horizontal_.nonZero.size() < horizontal_.weights.size() &&
                           AllFinite(columns, rows_.length());
        Taps(
            horizontal_, skipH, [&](size_t t) { return columns + horizontal_.cols[t]; },
            in0_.data());
        SequentialSumRows(impl_, in0_.data(), nullptr,
                          skipH ? horizontal_.nonZeroWeights.data() : horizontal_.weights.data(),
                          skipH ? horizontal_.nonZero.size() : horizontal_.weights.size(), width_,
                          out, nullptr);
    }

    // Rows y (and y + 1) over the pixels [x0, x0 + n), reading row i of the window (i up to kh)
    // from bases_[i], positioned for pixel x0.
    void DirectPart(bool two, size_t x0, size_t n, float* out0, float* out1) {
        if (n == 0) return;
        const bool skip = finiteSource_;
        const float* const* b = bases_.data();
        Taps(
            direct_, skip, [&](size_t t) { return b[direct_.rows[t]] + direct_.cols[t]; },
            in0_.data());
        const size_t taps = skip ? direct_.nonZero.size() : direct_.weights.size();
        const float* weights = skip ? direct_.nonZeroWeights.data() : direct_.weights.data();
        if (two) {
            Taps(
                direct_, skip, [&](size_t t) { return b[direct_.rows[t] + 1] + direct_.cols[t]; },
                in1_.data());
            SequentialSumRows(impl_, in0_.data(), in1_.data(), weights, taps, n, out0 + x0,
                              out1 + x0);
        } else {
            SequentialSumRows(impl_, in0_.data(), nullptr, weights, taps, n, out0 + x0, nullptr);
        }
    }

    void Direct(int y, bool two, float* out0, float* out1) {
        const size_t rows = kh_ + (two ? 1 : 0);
        for (size_t i = 0; i < rows; ++i) window_[i] = rows_.row(Position(y, i));
        if (!rows_.edgesOnly()) {
            for (size_t i = 0; i < rows; ++i) bases_[i] = window_[i];
            DirectPart(two, 0, width_, out0, out1);
            return;
        }
        if constexpr (kInPlace) {
            // The edges from the extended rows, the interior from the source rows in place.
            const size_t left = static_cast<size_t>(margins_.left);
            const size_t right = static_cast<size_t>(margins_.right);
            for (size_t i = 0; i < rows; ++i) bases_[i] = window_[i];
            DirectPart(two, 0, left, out0, out1);
            for (size_t i = 0; i < rows; ++i) bases_[i] = rows_.source(Position(y, i));
            DirectPart(two, left, width_ - left - right, out0, out1);
            for (size_t i = 0; i < rows; ++i) bases_[i] = window_[i] + (width_ - right);
            DirectPart(two, width_ - right, right, out0, out1);
        }
    }

    // The input pointers of the taps in use.
    template <class Where>
    static void Taps(const TapList& list, bool skipZero, Where where, const float** in) {
        if (skipZero) {
            for (size_t k = 0; k < list.nonZero.size(); ++k) in[k] = where(list.nonZero[k]);
        } else {
            for (size_t t = 0; t < list.weights.size(); ++t) in[t] = where(t);
        }
    }

    void KeepMasked(int y, const uint8_t* mask, float* out) {
        const float* source = nullptr;
        if constexpr (kInPlace) {
            source = rows_.source(y);
        } else {
            source = rows_.row(y) + margins_.left;
        }
        const uint8_t* m = mask + static_cast<size_t>(y) * width_;
        for (size_t x = 0; x < width_; ++x)
            if (m[x] == 0) out[x] = source[x];
    }

    Impl impl_ = Impl::Scalar;
    size_t width_ = 0;
    int height_ = 0;
    BorderMargins margins_;
    size_t kh_ = 0;
    bool separable_ = false;
    bool finiteSource_ = true;
    SeparableKernel parts_;
    TapList vertical_;
    TapList horizontal_;
    TapList direct_;
    ExtendedRows<T> rows_;
    std::vector<const float*> window_;  // the extended rows of the window
    std::vector<const float*> bases_;   // where each window row is read for a part of the row
    std::vector<const float*> in0_;
    std::vector<const float*> in1_;
    std::vector<float> columns_;  // the separable column pass over one extended row
};

// Sizes ImageConv takes on: the image, the kernel and the extended image that the
// straightforward path builds each within kMaxElements, so that no setting allocates without
// bound. Larger sizes give -4, like a size below 1.
bool ConvSizesFit(int width, int height, int kw, int kh) {
    const uint64_t extended = SaturatingProduct(static_cast<uint64_t>(height) + kh - 1,
                                                static_cast<uint64_t>(width) + kw - 1);
    return PixelCount(width, height) <= kMaxElements &&
           static_cast<uint64_t>(kw) * static_cast<uint64_t>(kh) <= kMaxElements &&
           extended <= kMaxElements;
}

// USM_BOX for radii up to 7: the described float running sums add 16-bit integers whose partial
// sums stay below (2r + 2)(2r + 1) * 65535 < 2^24 there, so every one of them is exact, and exact
// integer sums (IntegerBoxRows) give the same box sums, whatever their order.
constexpr int kUsmBoxExactRadius = 7;

int UsmBoxIntegers(Impl impl, const uint16_t* src, uint16_t* dst, int width, int height, int r,
                   float amount, bool normalise) {
    const size_t w = static_cast<size_t>(width);
    const size_t count = w * static_cast<size_t>(height);
    std::vector<uint16_t> copy;
    // The normalised result reaches the destination only at the end.
    if (!normalise && !SeparateSource(src, dst, count, copy)) return -4;
    IntegerBoxRows<uint16_t> box;
    std::vector<float> sharpened;
    if (!box.init(src, width, height, r, Border::AnyMargin, impl) ||
        !TryResize(sharpened, normalise ? count : w))
        return -4;
    const int side = 2 * r + 1;
    const float gain = static_cast<float>(side * side) * amount + 1.0f;
    for (size_t y = 0; y < static_cast<size_t>(height); ++y) {
        const int32_t* sums = box.next();
        const uint16_t* in = src + y * w;
        float* out = sharpened.data() + (normalise ? y * w : 0);
        for (size_t x = 0; x < w; ++x)
            out[x] = static_cast<float>(in[x]) * gain - static_cast<float>(sums[x]) * amount;
        if (!normalise) StoreClampedU16(impl, out, w, dst + y * w);
    }
    if (!normalise) return 1;
    // normalize_32F writes into the widened source; when it exits early without writing, that
    // buffer still holds the source, which then goes to the destination unsharpened.
    std::vector<float> image;
    if (!TryResize(image, count)) return -4;
    for (size_t i = 0; i < count; ++i) image[i] = static_cast<float>(src[i]);
    normalize_32F(sharpened.data(), image.data(), static_cast<uint32_t>(width),
                  static_cast<uint32_t>(height), 0.0f, 65535.0f);
    StoreClampedU16(impl, image.data(), count, dst);
    return 1;
}

// USM_Gaussian's correlations and final store for the fast levels, from the 16-bit source.
int UsmGaussianRows(Impl impl, const uint16_t* src, uint16_t* dst, int width, int height,
                    std::vector<float>& kernel, int side, float amount, int32_t threshold,
                    uint8_t* mask) {
    const size_t w = static_cast<size_t>(width);
    const size_t count = w * static_cast<size_t>(height);
    std::vector<uint16_t> copy;
    std::vector<float> rows;  // two output rows of correlations
    if (!SeparateSource(src, dst, count, copy) || !TryResize(rows, 2 * static_cast<uint64_t>(w)))
        return -4;
    if (mask != nullptr) {
        ConvRows<uint16_t> plain;
        if (!plain.init(impl, src, width, height, kernel.data(), side, side)) return -4;
        const float limit = static_cast<float>(threshold);
        plain.run(
            nullptr, [&](int y) { return rows.data() + (y & 1) * w; },
            [&](int y) {
                const float* conv = rows.data() + (y & 1) * w;
                const uint16_t* in = src + static_cast<size_t>(y) * w;
                uint8_t* m = mask + static_cast<size_t>(y) * w;
                for (size_t x = 0; x < w; ++x)
                    m[x] = std::fabs(static_cast<float>(in[x]) - conv[x]) >= limit ? 1 : 0;
            });
    }
    float weightSum = 0.0f;
    for (float& k : kernel) {
        weightSum += k;
        k *= amount;
    }
    const float gain = weightSum * amount + 1.0f;
    ConvRows<uint16_t> conv;
    if (!conv.init(impl, src, width, height, kernel.data(), side, side)) return -4;
    conv.run(
        mask, [&](int y) { return rows.data() + (y & 1) * w; },
        [&](int y) {
            float* c = rows.data() + (y & 1) * w;
            const uint16_t* in = src + static_cast<size_t>(y) * w;
            for (size_t x = 0; x < w; ++x) c[x] = static_cast<float>(in[x]) * gain - c[x];
            StoreClampedU16(impl, c, w, dst + static_cast<size_t>(y) * w);
        });
    return 1;
}

}  // namespace
}  // namespace veltrano

using veltrano::Impl;

int ImageConv(const float* src, float* dst, const float* kernel, int32_t width, int32_t height,
              int32_t kw, int32_t kh, const uint8_t* mask) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (kernel == nullptr) return -3;
    if (width < 1 || height < 1 || kw < 1 || kh < 1) return -4;
    if (!veltrano::ConvSizesFit(width, height, kw, kh)) return -4;
    const Impl impl = veltrano::ActiveImpl();
    if (impl == Impl::Reference) {
        veltrano::ImageConvReference(src, dst, kernel, width, height, kw, kh, mask);
        return 1;
    }
    const size_t w = static_cast<size_t>(width);
    std::vector<float> copy;
    veltrano::ConvRows<float> conv;
    if (!veltrano::SeparateSource(src, dst, w * static_cast<size_t>(height), copy) ||
        !conv.init(impl, src, width, height, kernel, kw, kh))
        return -4;
    conv.run(
        mask, [&](int y) { return dst + static_cast<size_t>(y) * w; }, [](int) {});
    return 1;
}

int USM_BOX(uint16_t* src, uint16_t* dst, int32_t width, int32_t height, int32_t radius,
            float amount, bool normalise) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    if (radius > veltrano::kMaxWindowRadius) return -4;
    if (width < 1 || height < 1) return 1;
    if (veltrano::PixelCount(width, height) > veltrano::kMaxElements) return -4;
    const int r = radius < 0 ? 0 : radius;
    const Impl impl = veltrano::ActiveImpl();
    if (impl != Impl::Reference && r <= veltrano::kUsmBoxExactRadius)
        return veltrano::UsmBoxIntegers(impl, src, dst, width, height, r, amount, normalise);
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
    veltrano::StoreClampedU16(Impl::Reference, normalise ? image.data() : sharpened.data(), count,
                              dst);
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
    const int side = 2 * radius + 1;
    if (!veltrano::ConvSizesFit(width, height, side, side)) return -4;
    // Sigma enters squared, so a negative sigma acts as its magnitude; 0 (or NaN) has no curve
    // at all and falls back to 1.
    if (sigma == 0.0f || sigma != sigma) sigma = 1.0f;

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
    const Impl impl = veltrano::ActiveImpl();
    if (impl != Impl::Reference)
        return veltrano::UsmGaussianRows(impl, src, dst, width, height, kernel, side, amount,
                                         threshold, mask);

    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    const std::vector<float> image = veltrano::Widen(src, count);
    std::vector<float> conv(count);

    if (mask != nullptr) {
        ImageConv(image.data(), conv.data(), kernel.data(), width, height, side, side, nullptr);
        const float limit = static_cast<float>(threshold);
        for (size_t i = 0; i < count; ++i) mask[i] = std::fabs(image[i] - conv[i]) >= limit ? 1 : 0;
    }

    float weightSum = 0.0f;
    for (float& k : kernel) {
        weightSum += k;
        k *= amount;
    }
    const float gain = weightSum * amount + 1.0f;

    const int result =
        ImageConv(image.data(), conv.data(), kernel.data(), width, height, side, side, mask);
    for (size_t i = 0; i < count; ++i) conv[i] = image[i] * gain - conv[i];
    veltrano::StoreClampedU16(Impl::Reference, conv.data(), count, dst);
    return result;
}
