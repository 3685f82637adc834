// Size arithmetic and allocation of scratch buffers for the processing functions.
//
// Sizes come from hosts as 32-bit integers whose products may overflow, so every element count
// is formed in 64 bits and checked before anything is allocated. A scratch buffer holds at most
// kMaxScratchElements elements (the library counts pixels in a signed 32-bit integer) and its
// byte count must be addressable on the platform; anything larger, or anything the allocator
// refuses, is reported to the caller instead of crashing.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

namespace veltrano {

constexpr uint64_t kMaxScratchElements = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());

// The largest image, and the largest kernel, that a processing function takes on: 2^28 elements,
// far beyond any intraoral sensor, yet small enough that a few scratch frames of it still fit in
// memory. Larger sizes are refused with the function's failure code before anything is
// allocated, so that a wrong argument cannot make the library allocate gigabytes or run for
// minutes.
constexpr uint64_t kMaxElements = static_cast<uint64_t>(1) << 28;

// Number of pixels of a width x height image; 0 for a width or height of zero or below.
inline uint64_t PixelCount(int64_t width, int64_t height) {
    if (width <= 0 || height <= 0) return 0;
    return static_cast<uint64_t>(width) * static_cast<uint64_t>(height);
}

// Product of two non-negative extents, saturating instead of wrapping.
inline uint64_t SaturatingProduct(uint64_t a, uint64_t b) {
    if (a != 0 && b > std::numeric_limits<uint64_t>::max() / a)
        return std::numeric_limits<uint64_t>::max();
    return a * b;
}

// True when count elements of T may be allocated as one scratch buffer.
template <class T>
inline bool ScratchFits(uint64_t count) {
    const uint64_t maxBytes = static_cast<uint64_t>(std::numeric_limits<ptrdiff_t>::max());
    return count <= kMaxScratchElements && count <= maxBytes / sizeof(T);
}

// Resizes buf to count value-initialised elements. Returns false, leaving buf empty, when the
// count is too large or the allocation fails.
template <class T>
inline bool TryResize(std::vector<T>& buf, uint64_t count) {
    if (!ScratchFits<T>(count)) return false;
    try {
        buf.assign(static_cast<size_t>(count), T());
    } catch (const std::bad_alloc&) {
        buf.clear();
        return false;
    }
    return true;
}

// Stores a value that has already been clamped to T's range. For integer elements it truncates
// toward zero; a not-a-number value (which slips through every clamp) becomes 0 rather than an
// undefined conversion.
template <class T, class V>
inline T StoreClamped(V v) {
    if constexpr (std::is_integral_v<T>) {
        if (std::isnan(v)) return T(0);
    }
    return static_cast<T>(v);
}

}  // namespace veltrano
