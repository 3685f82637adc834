// Point operations: each output pixel comes from the source pixel at the same index (and, for
// histogram equalisation and the gain map, from one statistic of the whole image).
//
// Results: 1 done; -1 null source; -2 null destination; -3 pixel-type code refused. Every
// function is safe in place (source == destination). Pixel counts are formed in 64 bits, so a
// width * height that overflows 32 bits is processed in full rather than wrapped; a width,
// height or count of zero or below is an empty image: nothing is read or written and the result
// is 1. A conversion of a not-a-number value to an integer pixel stores 0.
#pragma once

#include <cstdint>

#include "veltrano/export.h"

// 65535 - src[i], with both buffers read and written as unsigned 16-bit words whatever the code.
// Code 4 (the very type processed) is refused with -3: hosts rely on that rejection.
VELTRANO_API int Inverse(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                         int32_t pixelType);

// src * contrast + brightness in single precision, clamped to 0..65535 and truncated. Code 4 only.
VELTRANO_API int BrigntAndContrast(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                   int32_t pixelType, float brightness, float contrast);

// Gamma curve for codes 3, 4, 5 (over the type's full range) and 6 (over the image's own
// min..max). A float image whose pixels are all equal has no span to map over and is copied.
// Integer images map through a table of the values between their minimum and maximum; on
// processors with AVX2 that table computes the power as exp(gamma log b) in double, which rounds
// to the C library's single-precision power except within about 2^-50 of a rounding boundary (an
// output pixel may then differ by 1). Scratch: one table of at most 65536 elements.
VELTRANO_API int GammaCorrect(void* src, void* dst, uint32_t width, uint32_t height, float gamma,
                              int32_t pixelType);

// ln(max(src, 20)), negated when negate is 1. On processors with AVX2 the logarithm is computed
// in double by the library's own vector code (whole numbers 0..65535 through a table of 65536
// floats): the single-precision result equals the C library's except within about 2^-50 of a
// rounding boundary, where it may differ by one unit in the last place.
VELTRANO_API int Image_Log(float* src, float* dst, uint32_t width, uint32_t height, int32_t negate);

// src squared into 64-bit floats without clamping, for codes 3, 4, 5, 6 and 8. The destination
// holds width * height doubles.
VELTRANO_API int Image_Square_NoTrunc(void* src, double* dst, int32_t width, int32_t height,
                                      int32_t pixelType);

// Binary threshold (src > threshold, strict) for codes 3 and 4; the code comes before the sizes.
// Modes: 0 high/0, 1 0/high, 2 src/0, 3 0/src (above/otherwise). Other codes or modes write
// nothing and return 1.
VELTRANO_API int ThresholdBinary(uint16_t* src, uint16_t* dst, int32_t pixelType, uint32_t width,
                                 uint32_t height, double threshold, uint32_t mode);

// Flat-field gain map: mean / max(src, 0.001).
VELTRANO_API int ImgGainCorrect(float* src, float* dst, uint32_t width, uint32_t height);

// Histogram equalisation for codes 3 and 4 over pixelCount pixels (the caller passes
// width * height): each value v becomes v * cdf(v), rounded half up. With code 3 both buffers are
// read and written as bytes.
VELTRANO_API int EquHist(uint16_t* src, uint16_t* dst, int32_t pixelCount, int32_t pixelType);
