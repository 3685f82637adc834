// Repair of defective sensor pixels from a defect map, and trimming of the sensor's border.
#pragma once

#include <cstdint>

#include "veltrano/export.h"
#include "veltrano/params.h"

// Fills every pixel that the defect map marks (map value >= 1.0; values below 1, negative ones
// included, mark a good pixel) with the mean of the good pixels of the (2r+1) x (2r+1) window
// around it, working inwards from the rim of each defective cluster, one ring per pass, for at
// most maxPasses passes (below 1 counts as 1). A pixel whose good neighbours sum to 0 or less is
// not repaired and is retried in the next pass; pixels still defective at the end keep their
// source values. Passes stop early once a pass repairs nothing, since every later pass would
// see the same state. A radius below 0 repairs nothing. Source and destination may be the same.
// Results: 1 done; -1 null source; -2 null destination; -3 null map; -4 pixel type not 6
// (32-bit float), all checked before anything is written; -5 the image is too large for the
// pass bookkeeping (more than 2^31 - 1 pixels or not allocatable). An image with a width or
// height of zero or below is empty: 1.
VELTRANO_API int ImgFix(float* src, float* dst, float* defectMap, int width, int height, int radius,
                        int pixelType, int maxPasses);

// One-pass repair over the 3 x 3 neighbourhood: a pixel whose map value is 0.01 or more becomes
// the mean of its neighbours whose map value is below 0.01, or 0.0 when it has none. All reads
// come from the source. A null map copies the source to the destination and returns 1.
// Results: 1 done; -1 null source; -2 null destination; -3 the temporary buffer of an in-place
// call cannot be allocated. An image with a width or height of zero or below is empty: 1.
VELTRANO_API int FixBadPixel(float* src, float* dst, float* defectMap, int width, int height);

// Cuts param.up rows off the top, param.down off the bottom, param.left columns off the left and
// param.right off the right (negative margins count as 0), writing the remaining
// (rows - up - down) x (cols - left - right) pixels densely into dst. Note the row count comes
// before the column count. When the record names an INI file, the values in that file win over
// the ones passed. Margins that leave no row or column write nothing. The destination must hold
// the clipped image; the caller knows its size by the same arithmetic.
// Results: 1 done; -1 null source or destination.
VELTRANO_API int edgeClip_8U(uint8_t* src, uint8_t* dst, int rows, int cols, clipParam param);
VELTRANO_API int edgeClip_16U(uint16_t* src, uint16_t* dst, int rows, int cols, clipParam param);
VELTRANO_API int edgeClip_32F(float* src, float* dst, int rows, int cols, clipParam param);
