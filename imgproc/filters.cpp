// Neighbourhood filters: correlation with a caller's kernel, Gaussian kernel and filter, box
// (mean) filter by running sums. The median filter is in median.cpp.
#include "veltrano/filters.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/pixel_dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/row_kernels.h"
#include "imgproc/scratch_buffers.h"
#include "imgproc/window_helpers.h"

namespace veltrano {
namespace {

constexpr int kFilterTooLarge = -5;  // filter2D / gaussFilter
constexpr int kBoxTooLarge = -4;

// ---------------------------------------------------------------------------------------------
// Correlation core

// The row blocks of the described parallel loop: T = min(processors, height).
int CorrelationBlocks(int height) { return std::max(1, std::min(omp_get_num_procs(), height)); }

BorderMargins KernelMargins(int kw, int kh) {
    return {kh / 2, kh - kh / 2 - 1, kw / 2, kw - kw / 2 - 1};
}

// Source index of every position on an axis that the kernel's margins reach, from -before on; -1
// where the position lies past the mirrored extension.
std::vector<ptrdiff_t> AxisIndex(int n, int before, int after) {
    std::vector<ptrdiff_t> index(static_cast<size_t>(n) + before + after);
    for (size_t p = 0; p < index.size(); ++p)
        index[p] =
            BorderIndex(Border::Limited, static_cast<ptrdiff_t>(p) - before, n, before, after);
    return index;
}

// The straightforward correlation: out(x, y) = sum kernel(i, j) * in(x + j - kw/2, y + i - kh/2)
// in eight partial sums (kernel index t = i * kw + j goes to partial t % 8, in kernel order), the
// partials added in order 0 to 7. `in` is a float copy of the source. A kernel larger than the
// image reaches past the mirrored extension, which the described algorithm would read outside
// its buffer: those positions add nothing here, and only the kernel rows and columns that meet
// the extension are visited, so the cost per pixel stays within nine times the image size.
template <class Out>
void CorrelateReference(const float* in, Out* out, int width, int height, const float* kernel,
                        int kw, int kh) {
    const BorderMargins m = KernelMargins(kw, kh);
    const int tLim = std::min(m.top, height);
    const int lLim = std::min(m.left, width);
    const std::vector<ptrdiff_t> rows = AxisIndex(height, tLim, std::min(m.bottom, height));
    const std::vector<ptrdiff_t> cols = AxisIndex(width, lLim, std::min(m.right, width));
    // Kernel row i of output row y meets extended row y + i - top, held at rows[y + i - top +
    // tLim].
    const int64_t rowShift = static_cast<int64_t>(tLim) - m.top;
    const int64_t colShift = static_cast<int64_t>(lLim) - m.left;
    const int blocks = CorrelationBlocks(height);
#pragma omp parallel for schedule(static)
    for (int b = 0; b < blocks; ++b) {
        const int64_t y0 = static_cast<int64_t>(b) * height / blocks;
        const int64_t y1 = static_cast<int64_t>(b + 1) * height / blocks;
        for (int64_t y = y0; y < y1; ++y) {
            const int64_t i0 = std::max<int64_t>(0, -(y + rowShift));
            const int64_t i1 =
                std::min<int64_t>(kh, static_cast<int64_t>(rows.size()) - (y + rowShift));
            for (int64_t x = 0; x < width; ++x) {
                const int64_t j0 = std::max<int64_t>(0, -(x + colShift));
                const int64_t j1 =
                    std::min<int64_t>(kw, static_cast<int64_t>(cols.size()) - (x + colShift));
                float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
                for (int64_t i = i0; i < i1; ++i) {
                    const float* srow = in + rows[y + rowShift + i] * width;
                    for (int64_t j = j0; j < j1; ++j) {
                        const int64_t t = i * kw + j;
                        acc[t % 8] += srow[cols[x + colShift + j]] * kernel[t];
                    }
                }
                float sum = acc[0];
                for (int l = 1; l < 8; ++l) sum += acc[l];
                out[y * width + x] = sum;
            }
        }
    }
}

// The fast path keeps per block of rows a ring of the kh extended rows its window covers and
// runs the same sums for eight pixels side by side (see LaneSumRow). It serves kernels whose
// margins fit the image (no position past the mirrored extension) and whose ring stays small.
bool CorrelationFits(int width, int height, int kw, int kh) {
    const BorderMargins m = KernelMargins(kw, kh);
    if (m.top > height || m.bottom > height || m.left > width || m.right > width) return false;
    const uint64_t ring =
        SaturatingProduct(static_cast<uint64_t>(kh), static_cast<uint64_t>(width) + kw);
    const uint64_t taps = static_cast<uint64_t>(kw) * static_cast<uint64_t>(kh);
    return SaturatingProduct(ring + 3 * taps, static_cast<uint64_t>(CorrelationBlocks(height))) <=
           kMaxElements / 4;
}

// Scratch of one block of the fast correlation.
struct CorrelationBlock {
    std::vector<const float*> rows;  // the extended rows of the window
    std::vector<const float*> in;    // the rows a part of the output row reads
    std::vector<const float*> taps;
    std::vector<float> out;
};

// A float source is read in place for the pixels whose window lies inside the image; the ring
// then builds only the edges of the extended rows, for the pixels near the left and right edges.
template <class T, class Out>
int CorrelateFast(Impl impl, const T* src, Out* dst, int width, int height, const float* kernel,
                  int kw, int kh) {
    const BorderMargins m = KernelMargins(kw, kh);
    const size_t taps = static_cast<size_t>(kw) * static_cast<size_t>(kh);
    const size_t w = static_cast<size_t>(width);
    LaneTaps lanes;
    if (!lanes.build(kernel, kw, kh)) return kFilterTooLarge;

    // The rings read source rows as the window reaches them; in place they read a copy.
    std::vector<T> copy;
    const size_t count = w * static_cast<size_t>(height);
    if (Overlaps(src, count * sizeof(T), dst, count * sizeof(Out))) {
        if (!TryResize(copy, count)) return kFilterTooLarge;
        std::memcpy(copy.data(), src, count * sizeof(T));
        src = copy.data();
    }
    const int blocks = CorrelationBlocks(height);
    std::vector<ExtendedRows<T>> rings(static_cast<size_t>(blocks));
    std::vector<CorrelationBlock> scratch(static_cast<size_t>(blocks));
    for (int b = 0; b < blocks; ++b) {
        CorrelationBlock& s = scratch[static_cast<size_t>(b)];
        if (!rings[static_cast<size_t>(b)].init(src, width, height, m, Border::Limited,
                                                static_cast<size_t>(kh),
                                                std::is_same_v<T, float>) ||
            !TryResize(s.rows, static_cast<uint64_t>(kh)) ||
            !TryResize(s.in, static_cast<uint64_t>(kh)) || !TryResize(s.taps, taps) ||
            !TryResize(s.out, std::is_same_v<Out, float> ? 0 : w))
            return kFilterTooLarge;
    }
#pragma omp parallel for schedule(static)
    for (int b = 0; b < blocks; ++b) {
        ExtendedRows<T>& ring = rings[static_cast<size_t>(b)];
        CorrelationBlock& s = scratch[static_cast<size_t>(b)];
        const int64_t y0 = static_cast<int64_t>(b) * height / blocks;
        const int64_t y1 = static_cast<int64_t>(b + 1) * height / blocks;
        for (int64_t y = y0; y < y1; ++y) {
            for (int i = 0; i < kh; ++i) s.rows[static_cast<size_t>(i)] = ring.row(y - m.top + i);
            Out* outRow = dst + static_cast<size_t>(y) * w;
            float* out = nullptr;
            if constexpr (std::is_same_v<Out, float>) {
                out = outRow;
            } else {
                out = s.out.data();
            }
            if constexpr (std::is_same_v<T, float>) {
                if (ring.edgesOnly()) {
                    const size_t left = static_cast<size_t>(m.left);
                    const size_t right = static_cast<size_t>(m.right);
                    LaneSumRow(impl, lanes, s.rows.data(), s.taps.data(), left, out);
                    for (int i = 0; i < kh; ++i)
                        s.in[static_cast<size_t>(i)] = ring.source(y - m.top + i);
                    LaneSumRow(impl, lanes, s.in.data(), s.taps.data(), w - left - right,
                               out + left);
                    for (int i = 0; i < kh; ++i)
                        s.in[static_cast<size_t>(i)] = s.rows[static_cast<size_t>(i)] + (w - right);
                    LaneSumRow(impl, lanes, s.in.data(), s.taps.data(), right, out + (w - right));
                } else {
                    LaneSumRow(impl, lanes, s.rows.data(), s.taps.data(), w, out);
                }
            } else {
                LaneSumRow(impl, lanes, s.rows.data(), s.taps.data(), w, out);
            }
            if constexpr (!std::is_same_v<Out, float>) StoreClampedU16(impl, out, w, outRow);
        }
    }
    return 1;
}

// Size checks shared by the filter2D members and the Gaussian filter, made before anything is
// allocated; 0 when the call goes ahead.
int CheckCorrelationSizes(int width, int height, int kw, int kh) {
    if (kw < 1 || kh < 1) return -4;
    if (static_cast<uint64_t>(kw) * static_cast<uint64_t>(kh) > kMaxElements ||
        PixelCount(width, height) > kMaxElements)
        return kFilterTooLarge;
    return 0;
}

int CheckCorrelation(const void* src, const void* dst, int width, int height, const float* kernel,
                     int kw, int kh) {
    if (src == nullptr || dst == nullptr) return -1;
    if (kernel == nullptr) return -3;
    return CheckCorrelationSizes(width, height, kw, kh);
}

// filter2D_16U and filter2D_32F: the source widened to floats, correlated, and the result stored
// (16-bit: clamped to 0..65535 and truncated).
template <class T>
int Filter2D(const T* src, T* dst, int width, int height, const float* kernel, int kw, int kh) {
    if (const int rc = CheckCorrelation(src, dst, width, height, kernel, kw, kh)) return rc;
    const uint64_t count = PixelCount(width, height);
    if (count == 0) return 1;
    const Impl impl = ActiveImpl();
    if (impl != Impl::Reference && CorrelationFits(width, height, kw, kh))
        return CorrelateFast(impl, src, dst, width, height, kernel, kw, kh);
    std::vector<float> in;
    std::vector<float> out;
    if (!TryResize(in, count) || (!std::is_same_v<T, float> && !TryResize(out, count)))
        return kFilterTooLarge;
    for (uint64_t i = 0; i < count; ++i) in[i] = static_cast<float>(src[i]);
    if constexpr (std::is_same_v<T, float>) {
        CorrelateReference(in.data(), dst, width, height, kernel, kw, kh);
    } else {
        CorrelateReference(in.data(), out.data(), width, height, kernel, kw, kh);
        StoreClampedU16(Impl::Reference, out.data(), static_cast<size_t>(count), dst);
    }
    return 1;
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

// The separable form of the Gaussian filter. Each element of the generated kernel is rounded to
// float on its own, so that kernel is not exactly a product of a column and a row, and no
// two-pass filter reproduces it bit for bit. This one uses factors g(d) / sqrt(S), with
// g(d) = exp(-d^2 / (2 sigmaX sigmaY)) and S = (sum of g)^2, a column pass and then a row pass:
// a result within a few units in the last place of the sum of |weight * pixel| of the exact
// correlation (the tests state the bound), for 2k instead of k^2 products per pixel.
template <class T>
int GaussSeparable(Impl impl, const T* src, T* dst, int width, int height, int k, double sigmaX,
                   double sigmaY) {
    if (!(sigmaX > 0.0)) sigmaX = 1.0;
    if (!(sigmaY > 0.0)) sigmaY = 1.0;
    const double denom = 2.0 * sigmaX * sigmaY;
    std::vector<double> g(static_cast<size_t>(k));
    double sum = 0.0;
    for (int i = 0; i < k; ++i) {
        const double d = static_cast<double>(i - k / 2);
        g[static_cast<size_t>(i)] = std::exp(-(d * d) / denom);
        sum += g[static_cast<size_t>(i)];
    }
    std::vector<float> factors(static_cast<size_t>(k));
    for (int i = 0; i < k; ++i)
        factors[static_cast<size_t>(i)] = static_cast<float>(g[static_cast<size_t>(i)] / sum);

    const BorderMargins m = KernelMargins(k, k);
    const size_t w = static_cast<size_t>(width);
    const size_t count = w * static_cast<size_t>(height);
    std::vector<T> copy;
    if (Overlaps(src, count * sizeof(T), dst, count * sizeof(T))) {
        if (!TryResize(copy, count)) return kFilterTooLarge;
        std::memcpy(copy.data(), src, count * sizeof(T));
        src = copy.data();
    }
    // A float source runs its column pass over the source rows in place and mirrors the result
    // into the margins; a 16-bit one is widened into a ring of extended rows first.
    constexpr bool inPlace = std::is_same_v<T, float>;
    const size_t length = w + static_cast<size_t>(m.left) + static_cast<size_t>(m.right);
    const int blocks = CorrelationBlocks(height);
    std::vector<ExtendedRows<T>> rings(static_cast<size_t>(blocks));
    std::vector<CorrelationBlock> scratch(static_cast<size_t>(blocks));
    for (int b = 0; b < blocks; ++b) {
        CorrelationBlock& s = scratch[static_cast<size_t>(b)];
        if ((!inPlace && !rings[static_cast<size_t>(b)].init(src, width, height, m, Border::Limited,
                                                             static_cast<size_t>(k))) ||
            !TryResize(s.rows, static_cast<uint64_t>(k)) ||
            !TryResize(s.taps, static_cast<uint64_t>(k)) || !TryResize(s.out, length + w))
            return kFilterTooLarge;
    }
#pragma omp parallel for schedule(static)
    for (int b = 0; b < blocks; ++b) {
        ExtendedRows<T>& ring = rings[static_cast<size_t>(b)];
        CorrelationBlock& s = scratch[static_cast<size_t>(b)];
        float* columns = s.out.data();     // the column pass over the extended row
        float* result = columns + length;  // the row pass
        for (int i = 0; i < k; ++i) s.taps[static_cast<size_t>(i)] = columns + i;
        const int64_t y0 = static_cast<int64_t>(b) * height / blocks;
        const int64_t y1 = static_cast<int64_t>(b + 1) * height / blocks;
        for (int64_t y = y0; y < y1; ++y) {
            if constexpr (inPlace) {
                for (int i = 0; i < k; ++i) {
                    const ptrdiff_t row =
                        BorderIndex(Border::Limited, y - m.top + i, height, m.top, m.bottom);
                    s.rows[static_cast<size_t>(i)] = src + row * static_cast<ptrdiff_t>(w);
                }
                SequentialSumRows(impl, s.rows.data(), nullptr, factors.data(),
                                  static_cast<size_t>(k), w, columns + m.left, nullptr);
                FillMargins(columns, width, m, Border::Limited);
            } else {
                for (int i = 0; i < k; ++i)
                    s.rows[static_cast<size_t>(i)] = ring.row(y - m.top + i);
                SequentialSumRows(impl, s.rows.data(), nullptr, factors.data(),
                                  static_cast<size_t>(k), length, columns, nullptr);
            }
            T* outRow = dst + static_cast<size_t>(y) * w;
            if constexpr (std::is_same_v<T, float>) {
                SequentialSumRows(impl, s.taps.data(), nullptr, factors.data(),
                                  static_cast<size_t>(k), w, outRow, nullptr);
            } else {
                SequentialSumRows(impl, s.taps.data(), nullptr, factors.data(),
                                  static_cast<size_t>(k), w, result, nullptr);
                StoreClampedU16(impl, result, w, outRow);
            }
        }
    }
    return 1;
}

// gaussFilter: a ksize1 x ksize1 kernel read by the member's filter2D as ksize1 x ksize2 (the
// member's own order of the two sizes). Every argument is checked before the kernel is built,
// so a huge kernel for an empty or absurd image costs nothing. Elements past what was generated
// (ksize2 > ksize1) are 0. The 8-bit member's filter2D stores nothing, so it only checks.
template <class T>
int GaussFilter(T* src, T* dst, int width, int height, int ksize1, int ksize2, double sigmaX,
                double sigmaY) {
    if (ksize1 < 1) return -2;  // the kernel generator's code: both of its sizes are ksize1
    if (src == nullptr || dst == nullptr) return -1;
    const int kw = std::is_same_v<T, uint16_t> ? ksize2 : ksize1;
    const int kh = std::is_same_v<T, uint16_t> ? ksize1 : ksize2;
    if (const int rc = CheckCorrelationSizes(width, height, kw, kh)) return rc;
    const uint64_t k1 = static_cast<uint64_t>(ksize1);
    if (k1 * k1 > kMaxElements) return kFilterTooLarge;
    if constexpr (std::is_same_v<T, uint8_t>) {
        return 1;
    } else {
        if (PixelCount(width, height) == 0) return 1;
        const Impl impl = ActiveImpl();
        if (impl != Impl::Reference && ksize1 == ksize2 &&
            CorrelationFits(width, height, ksize1, ksize1))
            return GaussSeparable(impl, src, dst, width, height, ksize1, sigmaX, sigmaY);
        std::vector<float> kernel;
        if (!TryResize(kernel, std::max(k1 * k1, k1 * static_cast<uint64_t>(ksize2))))
            return kFilterTooLarge;
        GaussKernel(kernel.data(), ksize1, ksize1, sigmaX, sigmaY);
        return Filter2D(src, dst, width, height, kernel.data(), kw, kh);
    }
}

// ---------------------------------------------------------------------------------------------
// Box filter

// The fast path for integer pixels. The described running sums of doubles add integers, which
// they hold exactly, so 32-bit integer sums give the same sums. The mean of row 0 is
// trunc(S / A + 0.5) and that of every later row trunc(S / A), both in double: S / A lies within
// 2^-36 of the true quotient, and a quotient that is not a multiple of 1/2 lies at least 1/(2A)
// from one, so the same integers follow from integer division: row 0 (2S + A) / 2A, later rows
// S / A, both truncating toward zero. A later row's half then moves a negative mean one step up
// (see BoxMeanRow); row 0 needs no clamping since a mean lies within the type's range. Taken
// when a window sum and its quotient's check fit in 32 bits: A * (largest magnitude + 1) below
// 2^31, that is radius up to 90 for 16-bit and 1447 for 8-bit pixels.
template <class T>
bool BoxIntegersFit(int64_t r) {
    const int64_t k = 2 * r + 1;
    const int64_t largest = std::max<int64_t>(std::numeric_limits<T>::max(),
                                              -static_cast<int64_t>(std::numeric_limits<T>::min()));
    return k <= 46341 && k * k * (largest + 1) <= std::numeric_limits<int32_t>::max();
}

template <class T>
int BoxFilterIntegers(Impl impl, const T* src, T* dst, int width, int height, int r) {
    const size_t w = static_cast<size_t>(width);
    const size_t count = w * static_cast<size_t>(height);
    std::vector<T> copy;
    if (src == dst) {
        if (!TryResize(copy, count)) return kBoxTooLarge;
        std::memcpy(copy.data(), src, count * sizeof(T));
        src = copy.data();
    }
    IntegerBoxRows<T> rows;
    if (!rows.init(src, width, height, r, Border::Limited, impl)) return kBoxTooLarge;
    const int32_t area = (2 * r + 1) * (2 * r + 1);
    const int32_t* sums = rows.next();
    for (size_t x = 0; x < w; ++x)
        dst[x] = static_cast<T>((2 * static_cast<int64_t>(sums[x]) + area) /
                                (2 * static_cast<int64_t>(area)));
    for (size_t y = 1; y < static_cast<size_t>(height); ++y)
        BoxMeanRow(impl, rows.next(), w, area, dst + y * w);
    return 1;
}

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
    int64_t entering(int64_t p) const { return p + offset + r; }     // valid when < len
    int64_t leaving(int64_t p) const { return p - 1 + offset - r; }  // valid when >= 0
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

template <class T>
int BoxDispatch(const T* src, T* dst, int width, int height, int radius) {
    const int r = std::max(radius, 1);
    if (PixelCount(width, height) > kMaxElements) return kBoxTooLarge;
    if constexpr (std::is_integral_v<T>) {
        const Impl impl = ActiveImpl();
        if (impl != Impl::Reference && PixelCount(width, height) > 0 && BoxIntegersFit<T>(r))
            return BoxFilterIntegers(impl, src, dst, width, height, r);
    }
    return BoxFilter(src, dst, width, height, r);
}

}  // namespace
}  // namespace veltrano

using namespace veltrano;

int filter2D_16U(uint16_t* src, uint16_t* dst, int width, int height, float* kernel, int kh,
                 int kw) {
    return Filter2D(src, dst, width, height, kernel, kw, kh);
}

// The 8-bit member's correlation is never stored: its destination keeps its previous bytes, and
// hosts (and gaussFilter_8U's callers) rely on that. So it checks its arguments, with the results
// the computation would give, and does no work.
int filter2D_8U(uint8_t* src, uint8_t* dst, int width, int height, float* kernel, int kw, int kh) {
    const int rc = CheckCorrelation(src, dst, width, height, kernel, kw, kh);
    return rc != 0 ? rc : 1;
}

int filter2D_32F(float* src, float* dst, int width, int height, float* kernel, int kw, int kh) {
    return Filter2D(src, dst, width, height, kernel, kw, kh);
}

int getGaussker_32F(float* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    return GaussKernel(kernel, kw, kh, sigmaX, sigmaY);
}

int getGaussker_64F(double* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    return GaussKernel(kernel, kw, kh, sigmaX, sigmaY);
}

int gaussFilter_8U(uint8_t* src, uint8_t* dst, int width, int height, int ksize1, int ksize2,
                   double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
}

int gaussFilter_16U(uint16_t* src, uint16_t* dst, int width, int height, int ksize1, int ksize2,
                    double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
}

int gaussFilter_32F(float* src, float* dst, int width, int height, int ksize1, int ksize2,
                    double sigmaX, double sigmaY) {
    return GaussFilter(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
}

int Box_Filter(void* src, void* dst, int width, int height, int pixelType, int radius) {
    if (src == nullptr) return -1;
    if (dst == nullptr) return -2;
    return DispatchPixelType<Pix8U, Pix16U, Pix16S, Pix32F, Pix64F>(pixelType, -3, [&](auto tag) {
        using T = typename decltype(tag)::type;
        return BoxDispatch(static_cast<const T*>(src), static_cast<T*>(dst), width, height, radius);
    });
}
