// Fast non-local-means denoising of 8-bit images.
#pragma once

#include <cstdint>

#include "veltrano/export.h"

// Replaces every pixel by the mean of the pixels in the (2s+1) x (2s+1) search window around it,
// each weighted by exp(-D / (h^2 (2p+1)^2)), where D is the sum of squared differences between
// the (2p+1) x (2p+1) patches centred on the two pixels. Borders mirror about the edge pixel. The
// result is rounded half up. Source and destination may be the same buffer.
//
// Radii wider than the image: on an axis where the patch radius or the search radius exceeds
// the image's size minus one (the farthest a one-pixel mirror reaches), that radius is cut to the
// size minus one on that axis, and the weight uses the patch area that remains. Such a window
// already covers the whole image from every pixel; going further would only revisit mirrored
// pixels at an unbounded cost. A 1 x 1 image is returned as it is. Radii within the image give
// the full filter, whose extension (p + s on each side) may reflect a second time from the far
// edge; a position beyond that reads the first pixel of its row or column.
//
// Cost: about width x height x (2s'+1) x (2s''+1) weighted sums, s' and s'' the search radii in
// effect across and down; it does not grow with p (the patch sums run down and along the rows).
// A large search radius on a large image is slow: the default radius 3 takes 49 sums per pixel,
// radius 30 takes 3721, and radius 1023 on a 2048 x 2048 image about 4 million.
// Memory: the source extended by p + s on each side, and up to about 2 MiB of sums per row; for
// search windows whose sums do not fit there, two float sums per pixel besides.
//
// Results: 1 done (a width or height below 1 leaves nothing to do); -1 null source; -2 null
// destination; -3 h is 0, not finite, or so small that 1 / (h^2 x patch area) overflows (the
// weights would be undefined); -4 p or s negative or above 1024; -5 the image has more than 2^28
// pixels, or the working buffers cannot be allocated (nothing is written). The radius check comes
// first, then h, then the size.
VELTRANO_API int FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p, int s);
