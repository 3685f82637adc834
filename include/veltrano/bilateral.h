// Edge-preserving smoothing of float images by a bilateral filter.
#pragma once

#include <cstdint>

#include "veltrano/export.h"
#include "veltrano/params.h"

// Every output pixel is the weighted mean of the k_h x k_w neighbourhood around it (centre at
// k_w / 2, k_h / 2, so even sizes reach one pixel further up and left; borders mirror about the
// edge pixel), weighted by exp(-(squared distance * cS + squared value difference * cR)) with
// cS = 1 / (2 sigColor_x sigColor_y) and cR = 1 / (2 sigSpace_x sigColor_y). That pairing of
// names is how existing settings files were tuned: sigColor_y shapes both fall-offs and
// sigSpace_y has no effect.
//
// A fall-off constant that comes out infinite (a sigma of 0) keeps only terms at distance 0 or
// value difference 0, so the centre weight stays 1. Settings that give a negative constant make
// weights grow instead of fall and can give infinite or NaN results. The filter reads only its
// own mirrored copy of the source, so source and destination may be the same buffer.
//
// Returns 1 always. Nothing is written when a pointer or the record is null, the width or height
// is below 1, k_w or k_h is outside 1..2049, or the image has more than 2^28 pixels.
//
// Cost: one exponential per weight, and every weight serves two pixels, so about
// width * height * k_w * k_h / 2 exponentials a call: 36 to 46 ms measured for a 5 x 5 kernel on a
// 1300 x 1800 frame with AVX2, growing with the kernel's area. Scratch memory is a few rows per
// kernel row and offset, at most 16 MiB; kernels needing more (beyond about 27 x 27 on such a
// frame) take the plain per-pixel path, with twice the exponentials and one extended copy of the
// image. Weights whose exponent is 104 or more are exactly 0 and cost no exponential. On processors
// with AVX2 the exponential is a vector form within 1 unit in the last place of the C library's, so
// outputs may differ from those of other processors in the last bits (the tests allow 2^-20 of the
// largest magnitude in the window).
VELTRANO_API int bilateralFilter_32F(float* src, float* dst, int width, int height,
                                     struBilatralParam* param);

// Kept for hosts that call it: checks the two pointers (-1 when either is null) and otherwise
// returns 1 without touching any pixel. The other arguments are not read.
VELTRANO_API int bilateralFilter_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                     struBilatralParam* param);
