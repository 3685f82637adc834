// Unsharp masking of 16-bit images and the single-precision correlation behind it.
//
// Both sharpening forms use a neighbourhood sum that is not divided by its weight: with window
// weights K summing to S and gain `amount`, the result is src * (S * amount + 1) - amount * (K
// correlated with src), that is src + amount * S * (src - local mean).
#pragma once

#include <cstdint>

#include "veltrano/export.h"
#include "veltrano/params.h"

// Correlation (the kernel is not flipped) of a float image with a kernel of kh rows of kw
// weights, borders mirrored about the edge pixel; kernels wider than the image are allowed
// (positions beyond one reflection repeat the edge pixel). A kernel of at least 2 x 2 whose rows,
// from the first row with a non-zero first weight on, are all multiples of that row runs as a
// column pass and a row pass: the rows above that one drop out, and the mask is ignored. Otherwise,
// with a mask, only pixels whose mask byte is non-zero are computed and the others copy the source.
// Source and destination may be the same buffer.
// Results: 1 done; -1 null source; -2 null destination; -3 null kernel; -4 a width, height, kw or
// kh below 1, or more than 2^28 elements in the image, the kernel or the extended image
// ((height + kh - 1) * (width + kw - 1)), refused before anything is read or allocated.
// Cost: kw + kh multiply-adds per pixel for a separable kernel; kw * kh for any other (taps whose
// weight is 0 are skipped when the source holds no infinity or NaN, with the same result), so a
// large general kernel on a full frame takes long: 101 x 101 is about 10^4 products per pixel.
VELTRANO_API int ImageConv(const float* src, float* dst, const float* kernel, int32_t width,
                           int32_t height, int32_t kw, int32_t kh, const uint8_t* mask);

// Box unsharp mask with a (2 radius + 1)^2 window: src * ((2r+1)^2 amount + 1) - amount * box sum,
// clamped to 0..65535 and truncated. With `normalise` the result is first stretched to 0..65535
// by normalize_32F; when that leaves its buffer untouched (a constant result, or one that spans
// 0..65535 exactly) the destination receives the source unsharpened, as hosts have always seen.
// A negative radius acts as 0. Source and destination may be the same buffer.
// Results: 1 done (also for a width or height below 1: nothing to do); -1 null source; -2 null
// destination; -4 radius above 1024, or more than 2^28 pixels. The cost does not depend on the
// radius; up to radius 7 the window sums are exact integer sums, equal to the float running sums.
VELTRANO_API int USM_BOX(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                         int32_t radius, float amount, bool normalise);

// USM_BOX with the settings of a struUSMParam: radius r, amount lam, normalise when isNeedNorm is
// non-zero. When the INI path is a non-empty string the record is first replaced by
// struUSMParam(iniPath), which reads the section "struFastNLMParam" of that file. Serves unsigned
// 16-bit data only; sizes above 2^31 - 1 leave nothing to do.
// Results: -1 null source; -2 null destination; -3 a pixel-type code other than 4; -4 null
// record; otherwise the result of USM_BOX.
VELTRANO_API int USM_EX(uint16_t* src, void* dst, uint32_t width, uint32_t height,
                        int32_t pixelType, struUSMParam* param, const char* iniPath);

// Gaussian unsharp mask: K[i][j] = exp(((j-r)^2 + (i-r)^2) * -1 / (2 sigma^2)), not normalised;
// result src * (S amount + 1) - (amount K correlated with src), clamped to 0..65535 (a NaN gives
// 0) and truncated. Sigma enters squared, so a negative sigma acts as its magnitude; 0 (or NaN)
// acts as 1.0, as in the Gaussian kernel generator. When `mask` is given it first receives 1 where
// |src - K correlated with src| is at least `threshold` and 0 elsewhere (the correlation with the
// unnormalised kernel, not a local mean); the Gaussian kernel is separable, so the mask does not
// restrict the sharpening pass. Source and destination may be the same buffer. Results: 1 done; -1
// null source; -2 null destination; -4 width or height below 1, radius not in 1..1024, or more than
// 2^28 elements in the image or in the image extended by the radius. Cost: 2 (2r + 1) products per
// pixel through ImageConv's separable split; when a small sigma makes the float weights underflow
// unevenly the kernel is not separable, and the direct sum visits only its nonzero weights.
VELTRANO_API int USM_Gaussian(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                              int32_t radius, float amount, int32_t threshold, float sigma,
                              uint8_t* mask);
