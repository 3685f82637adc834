// Fast non-local-means denoising of 8-bit images.
#pragma once

#include <cstdint>

#include "veltrano/export.h"

// Replaces every pixel by the mean of the pixels in the (2s+1) x (2s+1) search window around it,
// each weighted by exp(-D / (h^2 (2p+1)^2)), where D is the sum of squared differences between
// the (2p+1) x (2p+1) patches centred on the two pixels. Patch distances come from an integral
// image, so the cost grows with width x height x (2s+1)^2 and not with p. Borders mirror about
// the edge pixel; radii wider than the image are allowed (positions beyond one reflection repeat
// the edge pixel). The result is rounded half up. Source and destination may be the same buffer.
//
// Results: 1 done (a width or height below 1 leaves nothing to do); -1 null source; -2 null
// destination; -3 h is 0, not finite, or so small that 1 / (h^2 (2p+1)^2) overflows (the weights
// would be undefined); -4 p or s negative or above 1024. The radius check comes first.
VELTRANO_API int FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p, int s);
