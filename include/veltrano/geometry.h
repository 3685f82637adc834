// Small geometric operations on packed row-major buffers: pasting a block, blending a watermark,
// making a square symmetric about a diagonal, and masking one side of a line.
//
// The bytes per pixel follow the pixel-type code (3, 12: 1; 4, 5: 2; 1: 3; 2, 6, 7, 8, 13: 4;
// 9: 6; others 8). A width or height of zero or below is an empty image: nothing is read or
// written and the result is 1 (after the pointer checks).
#pragma once

#include <cstdint>

#include "veltrano/export.h"

// Copies the source to the destination (unless they are the same buffer), then pastes the block
// at (x, y), clipped to the image. Deliberately, block rows are read with the stride of the
// clipped width, and a negative x or y moves the block to 0 without skipping any of it.
// Results: 1; -1 null source; -2 null destination; -3 null block.
VELTRANO_API int CopyRoiTo(uint8_t* src, uint8_t* dst, uint8_t* block, int pixelType, int width,
                           int height, int blockWidth, int blockHeight, int x, int y);

// Blends the mark into the rectangle at (x, y): dst = (1 - alpha) * dst + alpha * mark, clamped
// to the type's range, where the mark is not zero (zero is transparent; for 3 and 4 channels,
// where its first three channels are all zero). Codes 4 and 9 are 16-bit (1 and 3 channels),
// 1, 2, 3 and 7 8-bit (3, 4, 1 and 4 channels), 6 float; any other code returns 1 and writes
// nothing. A fourth channel is never changed. Results: 1; -1 null source; -2 null destination;
// -3 null mark.
VELTRANO_API int AddWaterMask(uint8_t* src, uint8_t* dst, uint8_t* mark, int width, int height,
                              int markWidth, int markHeight, int x, int y, int pixelType,
                              float alpha);

// Makes the side x side square at (x, y) (clamped to the image) symmetric about a diagonal:
// Copy_LeftDown_To_RightUp mirrors the triangle below the main diagonal onto the one above it,
// Copy_RightDown_To_LeftUp the triangle below the anti-diagonal onto the one above it. The rest
// of the destination is the source. A square of side below 2 returns 1 without writing the
// destination at all, on purpose. Results: 1; -1 null source; -2 null destination; -3 scratch
// not available.
VELTRANO_API int Copy_LeftDown_To_RightUp(uint8_t* src, uint8_t* dst, int width, int height,
                                          int pixelType, int x, int y, int side);
VELTRANO_API int Copy_RightDown_To_LeftUp(uint8_t* src, uint8_t* dst, int width, int height,
                                          int pixelType, int x, int y, int side);

// Normal form a*x + b*y + c = 0 of the line through two points, (a, b) the unit normal; all three
// are 0 when the points coincide. A null output pointer is skipped.
VELTRANO_API void GetLine2D(float x1, float y1, float x2, float y2, float* a, float* b, float* c);

// Writes fill on one side of the line through (x1, y1) and (x2, y2) and the source elsewhere:
// side 1 fills where x*a + y*b + c >= 0, any other side fills where it is < 0. Two equal points
// write nothing. Results: 1; -1 null source; -2 null destination.
VELTRANO_API int MakeMaskByLine(uint16_t* src, uint16_t* dst, int width, int height, float x1,
                                float y1, float x2, float y2, uint8_t side, uint16_t fill);
