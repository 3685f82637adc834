// Helpers shared by the windowed filters of the enhancement and sharpening functions: a mirrored
// extension that accepts any margin, the running box sum behind the local mean and the box
// unsharp mask, and a radius cap that keeps absurd settings from allocating or looping without
// bound.
#pragma once

#include <cstddef>
#include <vector>

#include "imgproc/pixel_helpers.h"

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

}  // namespace veltrano
