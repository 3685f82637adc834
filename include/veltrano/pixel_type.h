// Pixel-type codes of the processing functions that serve several element types through one
// entry point, and the bytes per element that hosts size their buffers with.
//
// Functions with a type in their name (normalize_16U, filter2D_32F, ...) take no code. The codes
// here are not the element codes of imgmat's raw files, which number the types differently.
#pragma once

#include <cstdint>

namespace veltrano {

enum PixelTypeCode : int32_t {
    kPix8U = 3,    // unsigned 8-bit
    kPix16U = 4,   // unsigned 16-bit
    kPix16S = 5,   // signed 16-bit
    kPix32F = 6,   // 32-bit float
    kPix32S = 8,   // signed 32-bit
    kPix64F = 11,  // 64-bit float

    // Colour codes that only the watermark blend serves: three or four channels of 8-bit
    // elements, or three of unsigned 16-bit ones. 2 and 7 are read alike.
    kPix8UC3 = 1,
    kPix8UC4 = 2,
    kPix8UC4Too = 7,
    kPix16UC3 = 9,
};

// Bytes per element for buffer sizing. The table is historic (codes 12 and 13 belong to no
// function, and 1, 2, 7 and 9 only to the watermark blend) and hosts size buffers with it, so it
// is kept exactly, numbers and all.
inline int PixelTypeSize(int32_t code) {
    switch (code) {
    case 3:
    case 12:
        return 1;
    case 4:
    case 5:
        return 2;
    case 1:
        return 3;
    case 2:
    case 6:
    case 7:
    case 8:
    case 13:
        return 4;
    case 9:
        return 6;
    default:
        return 8;
    }
}

}  // namespace veltrano
