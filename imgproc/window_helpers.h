// Helpers shared by the windowed filters of the enhancement and sharpening functions and the
// linear filters: a mirrored extension that accepts any margin, the running box sum behind the
// local mean and the box unsharp mask, a radius cap that keeps absurd settings from allocating or
// looping without bound, and the row machinery of the fast paths (extended rows kept in a ring,
// exact integer box sums).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "imgproc/dispatch.h"
#include "imgproc/pixel_helpers.h"
#include "imgproc/row_kernels.h"
#include "imgproc/scratch_buffers.h"

namespace veltrano {

// Largest window radius the windowed functions accept. Far beyond any useful setting for a
// sensor frame, yet small enough that the extensions and loops it implies stay bounded.
constexpr int kMaxWindowRadius = 1024;

// The mirrored extension of ExtendBorderMirror, but with margins that are not limited to the
// image size: every position reads the source element MirrorIndex gives it (one reflection about
// the edge pixel, then the edge pixel repeated). For margins below the image size the result is
// the same as ExtendBorderMirror's; larger margins stay inside the source instead of reading past
// it, so windows wider than a small image are still well defined.
template <class T>
std::vector<T> ExtendMirrorAnyMargin(const T* src, int rows, int cols, BorderMargins m) {
    std::vector<T> out;
    if (src == nullptr || rows <= 0 || cols <= 0) return out;
    const ptrdiff_t outCols = static_cast<ptrdiff_t>(cols) + m.left + m.right;
    const ptrdiff_t outRows = static_cast<ptrdiff_t>(rows) + m.top + m.bottom;
    out.resize(static_cast<size_t>(outRows) * static_cast<size_t>(outCols));
    std::vector<ptrdiff_t> colIndex(static_cast<size_t>(outCols));
    for (ptrdiff_t x = 0; x < outCols; ++x) colIndex[x] = MirrorIndex(x - m.left, cols);
    for (ptrdiff_t y = 0; y < outRows; ++y) {
        const T* srow = src + MirrorIndex(y - m.top, rows) * static_cast<ptrdiff_t>(cols);
        T* drow = out.data() + y * outCols;
        for (ptrdiff_t x = 0; x < outCols; ++x) drow[x] = srow[colIndex[x]];
    }
    return out;
}

// Undivided sums over the (2r+1) x (2r+1) window centred on every pixel, mirrored at the borders
// (see ExtendMirrorAnyMargin). Two passes of running sums in the element type T, so the cost
// does not depend on r: along each row the first window is summed directly and every next one
// adds the entering element and then subtracts the leaving one; the row sums are then run down
// each column the same way. `out` may be `src`. Requires r >= 0, width and height >= 1.
template <class T>
void RunningBoxSum(const T* src, T* out, int width, int height, int r) {
    const size_t w = static_cast<size_t>(width);
    const size_t h = static_cast<size_t>(height);
    const size_t k = 2 * static_cast<size_t>(r) + 1;
    std::vector<T> rowSums(w * h);
    std::vector<T> ext(w + k - 1);

    for (size_t y = 0; y < h; ++y) {
        const T* row = src + y * w;
        for (size_t j = 0; j < ext.size(); ++j)
            ext[j] = row[MirrorIndex(static_cast<ptrdiff_t>(j) - r, width)];
        T* sums = rowSums.data() + y * w;
        T s = ext[0];
        for (size_t j = 1; j < k; ++j) s = s + ext[j];
        sums[0] = s;
        for (size_t x = 1; x < w; ++x) {
            s = s + ext[x + k - 1];
            s = s - ext[x - 1];
            sums[x] = s;
        }
    }

    // The vertical pass keeps one running sum per column and walks the rows, which adds the same
    // values in the same order as running down each column of a mirrored extension.
    auto sourceRow = [&](ptrdiff_t y) { return rowSums.data() + MirrorIndex(y, height) * w; };
    std::vector<T> col(sourceRow(-r), sourceRow(-r) + w);
    for (ptrdiff_t i = -r + 1; i <= r; ++i) {
        const T* add = sourceRow(i);
        for (size_t x = 0; x < w; ++x) col[x] = col[x] + add[x];
    }
    for (size_t x = 0; x < w; ++x) out[x] = col[x];
    for (size_t y = 1; y < h; ++y) {
        const T* add = sourceRow(static_cast<ptrdiff_t>(y) + r);
        const T* sub = sourceRow(static_cast<ptrdiff_t>(y) - 1 - r);
        T* dst = out + y * w;
        for (size_t x = 0; x < w; ++x) {
            col[x] = col[x] + add[x];
            col[x] = col[x] - sub[x];
            dst[x] = col[x];
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Row machinery of the fast paths

// How a window reads positions outside the image.
enum class Border {
    // Mirrored within margins limited to the image's size on each axis (ExtendBorderMirror);
    // positions beyond read 0. The neighbourhood filters of filters.cpp.
    Limited,
    // MirrorIndex for every position (ExtendMirrorAnyMargin). The windowed helpers above.
    AnyMargin,
};

// Source index of position i on an axis of n elements whose window reaches `before` positions
// before it and `after` positions after it, or -1 where the position reads 0.
inline ptrdiff_t BorderIndex(Border border, ptrdiff_t i, ptrdiff_t n, ptrdiff_t before,
                             ptrdiff_t after) {
    if (border == Border::Limited && (i < -std::min(before, n) || i > n - 1 + std::min(after, n)))
        return -1;
    return MirrorIndex(i, n);
}

// Rows of an image, widened to float and extended left and right by the border rule, kept in a
// ring so that a window sliding down the image builds each row once and stays in the cache. The
// rows are read from the source when first asked for, so a caller writing its results into the
// source must work from a copy.
//
// A float source needs no widening: a caller can read the interior of its rows in place
// (source()) and have the ring build only the parts of each extended row that the pixels near
// the left and right edges read (edgesOnly), which spares a copy of the frame.
template <class T>
class ExtendedRows {
public:
    // `kept` rows stay available at once. False when the scratch cannot be had.
    bool init(const T* src, int width, int height, BorderMargins margins, Border border,
              size_t kept, bool edgesOnly = false) {
        src_ = src;
        width_ = width;
        height_ = height;
        margins_ = margins;
        border_ = border;
        length_ = static_cast<size_t>(width) + static_cast<size_t>(margins.left) +
                  static_cast<size_t>(margins.right);
        // The pixels within `left` of the left edge read extended columns below index
        // 2 left + right; those within `right` of the right edge from index width - right on.
        leftEnd_ = length_;
        rightBegin_ = length_;
        if (edgesOnly) {
            const size_t reach =
                2 * static_cast<size_t>(margins.left) + static_cast<size_t>(margins.right);
            const size_t from = static_cast<size_t>(std::max(0, width - margins.right));
            if (reach < from) {
                leftEnd_ = reach;
                rightBegin_ = from;
            }
        }
        if (!TryResize(rows_, SaturatingProduct(kept, length_)) || !TryResize(zeros_, length_) ||
            !TryResize(columns_, length_))
            return false;
        tags_.assign(kept, kNone);
        for (size_t e = 0; e < length_; ++e)
            columns_[e] = BorderIndex(border, static_cast<ptrdiff_t>(e) - margins.left, width,
                                      margins.left, margins.right);
        return true;
    }

    // Row length: width + left + right.
    size_t length() const { return length_; }

    // True when only the edges of the rows are built (see init).
    bool edgesOnly() const { return leftEnd_ < rightBegin_; }

    // The extended row at source row position v (any integer); element e is the extended
    // column e - left. Stays valid until `kept` other rows have been asked for.
    const float* row(ptrdiff_t v) {
        const ptrdiff_t s = BorderIndex(border_, v, height_, margins_.top, margins_.bottom);
        if (s < 0) return zeros_.data();
        const size_t kept = tags_.size();
        const size_t slot = static_cast<size_t>(
            ((v % static_cast<ptrdiff_t>(kept)) + static_cast<ptrdiff_t>(kept)) %
            static_cast<ptrdiff_t>(kept));
        float* out = rows_.data() + slot * length_;
        if (tags_[slot] == v) return out;
        tags_[slot] = v;
        const T* in = src_ + s * static_cast<ptrdiff_t>(width_);
        Fill(in, out, 0, leftEnd_);
        Fill(in, out, rightBegin_, length_);
        // A window sliding down asks for the next row soon: start fetching it from memory now,
        // so that the work on this one hides the wait.
        if (s + 1 < height_) {
            const char* next = reinterpret_cast<const char*>(in + width_);
            for (size_t b = 0; b < static_cast<size_t>(width_) * sizeof(T); b += 64)
                __builtin_prefetch(next + b);
        }
        return out;
    }

    // The source row at row position v, or null where the row reads 0.
    const T* source(ptrdiff_t v) const {
        const ptrdiff_t s = BorderIndex(border_, v, height_, margins_.top, margins_.bottom);
        return s < 0 ? nullptr : src_ + s * static_cast<ptrdiff_t>(width_);
    }

private:
    void Fill(const T* in, float* out, size_t from, size_t to) const {
        const size_t left = static_cast<size_t>(margins_.left);
        const size_t interiorEnd = left + static_cast<size_t>(width_);
        size_t e = from;
        for (; e < std::min(to, left); ++e)
            out[e] = columns_[e] < 0 ? 0.0f : static_cast<float>(in[columns_[e]]);
        for (; e < std::min(to, interiorEnd); ++e) out[e] = static_cast<float>(in[e - left]);
        for (; e < to; ++e) out[e] = columns_[e] < 0 ? 0.0f : static_cast<float>(in[columns_[e]]);
    }

    static constexpr ptrdiff_t kNone = PTRDIFF_MIN;
    const T* src_ = nullptr;
    int width_ = 0;
    int height_ = 0;
    BorderMargins margins_;
    Border border_ = Border::Limited;
    size_t length_ = 0;
    size_t leftEnd_ = 0;  // built: [0, leftEnd_) and [rightBegin_, length_)
    size_t rightBegin_ = 0;
    std::vector<float> rows_;
    std::vector<float> zeros_;
    std::vector<ptrdiff_t> tags_;
    std::vector<ptrdiff_t> columns_;  // source column of every extended column, -1 for 0
};

// Fills the margins of an extended row whose interior [left, left + width) holds the values of
// the source columns, by the border rule. A column pass works on each column alone, so running
// it over the interior and filling the margins this way gives it over the whole extended row.
inline void FillMargins(float* ext, int width, BorderMargins m, Border border) {
    const size_t left = static_cast<size_t>(m.left);
    const size_t end = left + static_cast<size_t>(width);
    auto fill = [&](size_t e) {
        const ptrdiff_t c =
            BorderIndex(border, static_cast<ptrdiff_t>(e) - m.left, width, m.left, m.right);
        ext[e] = c < 0 ? 0.0f : ext[left + static_cast<size_t>(c)];
    };
    for (size_t e = 0; e < left; ++e) fill(e);
    for (size_t e = end; e < end + static_cast<size_t>(m.right); ++e) fill(e);
}

// Undivided sums over the (2r+1) x (2r+1) window of every pixel of an integer image (8- or
// 16-bit), one output row at a time from the top. Sums of integers are exact in any order, so
// 32-bit integer column sums updated row by row and window sums along the row through prefix
// sums give exactly the sums of running sums in floating point. The caller makes sure a window
// sum fits in 32 bits ((2r+1)^2 times the largest magnitude of the type); the rows are read from
// the source as the window reaches them, so a caller writing into the source works from a copy.
template <class T>
class IntegerBoxRows {
public:
    bool init(const T* src, int width, int height, int r, Border border, Impl impl) {
        src_ = src;
        width_ = width;
        height_ = height;
        r_ = r;
        border_ = border;
        impl_ = impl;
        const uint64_t w = static_cast<uint64_t>(width);
        const uint64_t k = 2 * static_cast<uint64_t>(r) + 1;
        if (!TryResize(col_, w) || !TryResize(ext_, w + k - 1) || !TryResize(prefix_, w + k) ||
            !TryResize(sums_, w) || !TryResize(columns_, w + k - 1))
            return false;
        for (ptrdiff_t c = 0; c < static_cast<ptrdiff_t>(columns_.size()); ++c)
            columns_[c] = BorderIndex(border, c - r, width, r, r);
        next_ = 0;
        return true;
    }

    // Window sums of the next output row.
    const int32_t* next() {
        const ptrdiff_t y = next_++;
        const size_t w = static_cast<size_t>(width_);
        if (y == 0) {
            for (ptrdiff_t v = -r_; v <= r_; ++v)
                ColumnUpdate(impl_, col_.data(), row(v), nullptr, w);
        } else {
            ColumnUpdate(impl_, col_.data(), row(y + r_), row(y - 1 - r_), w);
        }
        const size_t r = static_cast<size_t>(r_);
        for (size_t c = 0; c < r; ++c) ext_[c] = Column(c);
        std::memcpy(ext_.data() + r, col_.data(), w * sizeof(int32_t));
        for (size_t c = r + w; c < ext_.size(); ++c) ext_[c] = Column(c);
        WindowSums(impl_, ext_.data(), w, 2 * r + 1, prefix_.data(), sums_.data());
        return sums_.data();
    }

private:
    const T* row(ptrdiff_t v) const {
        const ptrdiff_t s = BorderIndex(border_, v, height_, r_, r_);
        return s < 0 ? nullptr : src_ + s * static_cast<ptrdiff_t>(width_);
    }
    int32_t Column(size_t c) const { return columns_[c] < 0 ? 0 : col_[columns_[c]]; }

    const T* src_ = nullptr;
    int width_ = 0;
    int height_ = 0;
    ptrdiff_t r_ = 0;
    Border border_ = Border::Limited;
    Impl impl_ = Impl::Scalar;
    ptrdiff_t next_ = 0;
    std::vector<int32_t> col_;
    std::vector<int32_t> ext_;
    std::vector<uint32_t> prefix_;
    std::vector<int32_t> sums_;
    std::vector<ptrdiff_t> columns_;
};

// True when the buffers of a and b elements overlap: a fast path that reads its source over
// several rows then works from a copy.
inline bool Overlaps(const void* a, size_t aBytes, const void* b, size_t bBytes) {
    const uintptr_t pa = reinterpret_cast<uintptr_t>(a);
    const uintptr_t pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + bBytes && pb < pa + aBytes;
}

}  // namespace veltrano
