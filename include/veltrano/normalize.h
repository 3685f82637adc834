// Linear normalisation of raw single-channel buffers.
//
// Every member stretches the buffer's own minimum..maximum onto [low, high] (the bounds are
// swapped when given the wrong way round). Two early exits are part of the contract: a
// constant image, and an image that already spans exactly [low, high], return 1 without
// writing the destination. Results: 1 done, -1 a null pointer.
#pragma once

#include <cstdint>

#include "veltrano/export.h"

VELTRANO_API int normalize_8U(const uint8_t* src, uint8_t* dst, uint32_t width, uint32_t height,
                              uint8_t low, uint8_t high);
VELTRANO_API int normalize_16U(const uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                               uint16_t low, uint16_t high);
VELTRANO_API int normalize_32F(const float* src, float* dst, uint32_t width, uint32_t height,
                               float low, float high);
VELTRANO_API int normalize_64F(const double* src, double* dst, uint32_t width, uint32_t height,
                               double low, double high);

// Kept for hosts that call it: checks its pointers (-1 source, -2 destination) and returns 1
// without touching the destination. The fifth argument is not read.
VELTRANO_API int Normalize_TruncMinMax(uint8_t* src, uint8_t* dst, uint32_t width, uint32_t height,
                                       int32_t unused, int32_t pixelType);
