// From a pixel-type code to a template instantiation, written once.
//
// A multi-type entry point names the (code, element type) pairs it serves and passes a generic
// lambda; the lambda is instantiated for those element types only and called with the tag of the
// one the code names:
//
//     return DispatchPixelType<Pix8U, Pix16U, Pix32F>(pixelType, -3, [&](auto tag) {
//         using T = typename decltype(tag)::type;
//         return Work(static_cast<const T*>(src), static_cast<T*>(dst), width, height);
//     });
//
// A code outside the list gives the fallback, which is each function's own documented result for
// a code it does not serve (-3, or 1 for those that then change nothing). Several codes may share
// an element type (the watermark's colour codes, whose tags also carry their channel count).
#pragma once

#include <cstdint>
#include <type_traits>

#include "veltrano/pixel_type.h"

namespace veltrano {

template <int32_t Code, class T, int Channels = 1>
struct PixelTypeTag {
    static constexpr int32_t code = Code;
    static constexpr int channels = Channels;
    using type = T;
};

using Pix8U = PixelTypeTag<kPix8U, uint8_t>;
using Pix16U = PixelTypeTag<kPix16U, uint16_t>;
using Pix16S = PixelTypeTag<kPix16S, int16_t>;
using Pix32F = PixelTypeTag<kPix32F, float>;
using Pix32S = PixelTypeTag<kPix32S, int32_t>;
using Pix64F = PixelTypeTag<kPix64F, double>;
// The colour codes, served by the watermark blend only.
using Pix8UC3 = PixelTypeTag<kPix8UC3, uint8_t, 3>;
using Pix8UC4 = PixelTypeTag<kPix8UC4, uint8_t, 4>;
using Pix8UC4Too = PixelTypeTag<kPix8UC4Too, uint8_t, 4>;
using Pix16UC3 = PixelTypeTag<kPix16UC3, uint16_t, 3>;

// True when the code is one of the tags' codes.
template <class... Tags>
constexpr bool ServesPixelType(int32_t code) {
    return ((code == Tags::code) || ...);
}

// Calls fn(Tag{}) for the first tag whose code is `code` and returns its result; returns
// `fallback` when no tag has that code. The lambda's result must convert to the fallback's type.
template <class... Tags, class Result, class Fn>
Result DispatchPixelType(int32_t code, Result fallback, Fn&& fn) {
    static_assert(sizeof...(Tags) > 0, "a dispatch serves at least one pixel type");
    Result result = fallback;
    // The fold stops at the first match, so a code listed twice runs once.
    static_cast<void>(
        ((code == Tags::code ? (result = static_cast<Result>(fn(Tags{})), true) : false) || ...));
    return result;
}

}  // namespace veltrano
