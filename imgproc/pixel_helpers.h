// Helpers shared by every processing function: value ranges, the min/max search and the mirrored
// border extension (the pixel-type codes and element sizes are public, in veltrano/pixel_type.h).
// Header-only templates, one per concept, instantiated for whatever element type an algorithm
// works on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "veltrano/pixel_type.h"

namespace veltrano {

// Representable range of an element type. Two entries are unusual on purpose: the unsigned
// 32-bit high bound is one below the maximum, and the floating types report the smallest
// positive normal number as their low bound (the box filter clamps float images to it).
template <class T>
inline void PixelValueRange(double& low, double& high, int& isFloat) {
    if constexpr (std::is_floating_point_v<T>) {
        low = static_cast<double>(std::numeric_limits<T>::min());
        high = static_cast<double>(std::numeric_limits<T>::max());
        isFloat = 1;
    } else if constexpr (std::is_same_v<T, uint32_t>) {
        low = 0.0;
        high = 4294967294.0;
        isFloat = 0;
    } else {
        static_assert(std::is_integral_v<T> && sizeof(T) <= 4, "no value range for this type");
        low = static_cast<double>(std::numeric_limits<T>::min());
        high = static_cast<double>(std::numeric_limits<T>::max());
        isFloat = 0;
    }
}

// Offset added before a floating result is stored into an element type: integer elements are
// rounded half up (after clamping to a non-negative range), floating ones are stored as they are.
template <class T>
constexpr float RoundingOffset() {
    return std::is_floating_point_v<T> ? 0.0f : 0.5f;
}

// Minimum and maximum of count elements. Returns 0 without touching min/max for a null buffer,
// else 1. A count of 0 leaves both unchanged (there is no element to read); a count of 1 gives
// element 0 for both.
template <class T>
inline int FindMinMax(const T* buf, size_t count, T& minValue, T& maxValue) {
    if (buf == nullptr) return 0;
    if (count == 0) return 1;
    T mn = buf[0];
    T mx = buf[0];
    for (size_t i = 1; i < count; ++i) {
        const T v = buf[i];
        if (v > mx) {
            mx = v;
        } else if (v < mn) {
            mn = v;
        }
    }
    minValue = mn;
    maxValue = mx;
    return 1;
}

// Index of the source element that a position i (possibly outside 0..n-1) reads under the
// mirror rule "about the edge pixel, without repeating it" (a b c d e -> c b | a b c d e | d c).
// Margins are limited to the image size, so a margin equal to the size would ask for index -n or
// 2n-1; those reflect once more and are finally clamped into the image, so nothing outside the
// buffer is ever read (a one-pixel axis mirrors onto itself).
inline ptrdiff_t MirrorIndex(ptrdiff_t i, ptrdiff_t n) {
    if (n <= 1) return 0;
    if (i < 0) i = -i;
    if (i >= n) i = 2 * n - 2 - i;
    if (i < 0) i = 0;
    if (i >= n) i = n - 1;
    return i;
}

struct BorderMargins {
    int top = 0;
    int bottom = 0;
    int left = 0;
    int right = 0;
};

// Margins limited to the image's own size on each axis, and negative margins treated as 0.
inline BorderMargins LimitMargins(BorderMargins m, int rows, int cols) {
    auto lim = [](int v, int size) { return v < 0 ? 0 : (v > size ? size : v); };
    return {lim(m.top, rows), lim(m.bottom, rows), lim(m.left, cols), lim(m.right, cols)};
}

// Builds the mirrored extension of a rows x cols image into dst, which must hold
// (rows + top + bottom) * (cols + left + right) elements of the limited margins (see
// LimitMargins). Returns -1 for a null source or destination, else 1.
template <class T>
inline int ExtendBorderMirror(const T* src, int rows, int cols, BorderMargins margins, T* dst) {
    if (src == nullptr || dst == nullptr) return -1;
    if (rows <= 0 || cols <= 0) return 1;
    const BorderMargins m = LimitMargins(margins, rows, cols);
    const ptrdiff_t outCols = static_cast<ptrdiff_t>(cols) + m.left + m.right;
    const ptrdiff_t outRows = static_cast<ptrdiff_t>(rows) + m.top + m.bottom;
    for (ptrdiff_t y = 0; y < outRows; ++y) {
        const T* srow = src + MirrorIndex(y - m.top, rows) * static_cast<ptrdiff_t>(cols);
        T* drow = dst + y * outCols;
        for (ptrdiff_t x = 0; x < m.left; ++x) drow[x] = srow[MirrorIndex(x - m.left, cols)];
        for (ptrdiff_t x = 0; x < cols; ++x) drow[m.left + x] = srow[x];
        for (ptrdiff_t x = 0; x < m.right; ++x)
            drow[m.left + cols + x] = srow[MirrorIndex(cols + x, cols)];
    }
    return 1;
}

// The same, allocating the extension. The margins actually used (limited to the image) are
// written back through `margins` so the caller can index the result. An empty vector means a
// null source or an empty image.
template <class T>
inline std::vector<T> ExtendBorderMirror(const T* src, int rows, int cols, BorderMargins& margins) {
    std::vector<T> out;
    if (src == nullptr || rows <= 0 || cols <= 0) return out;
    margins = LimitMargins(margins, rows, cols);
    out.resize((static_cast<size_t>(rows) + margins.top + margins.bottom) *
               (static_cast<size_t>(cols) + margins.left + margins.right));
    ExtendBorderMirror(src, rows, cols, margins, out.data());
    return out;
}

}  // namespace veltrano
