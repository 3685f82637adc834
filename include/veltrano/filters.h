// Neighbourhood filters: general correlation with a caller's kernel, the Gaussian kernel and
// filter, the box (mean) filter and the median filter.
//
// Borders: the image is extended by mirroring about the edge pixel without repeating it
// (a b c d e -> c b | a b c d e | d c), the extension limited to the image's own size on each
// axis. A window that reaches past that limited extension (a kernel or radius larger than the
// image) would read outside the extended image; there the linear filters add nothing to their
// sums (the correlation leaves those kernel weights out, so even an infinite weight there leaves
// no trace, and the box filter counts 0); the median filter repeats the nearest pixel of the
// extension instead, since a 0 would shift its ranks.
//
// A width or height of zero or below is an empty image: nothing is read or written and the
// result is 1 (after the argument checks). Scratch buffers are sized in 64 bits; buffers that
// cannot be allocated give the function's "too large" code and leave the destination untouched.
// The linear filters also refuse, with that code and before allocating anything, images and
// kernels of more than 2^28 elements (far beyond any sensor).
//
// Speed: the linear filters run a fast path (vector code where the processor has AVX2) beside the
// straightforward one; both give the same results, except the Gaussian filter's separable form
// (below). VELTRANO_IMPL=reference runs the straightforward paths. The fast paths need a few rows
// of scratch, plus a copy of the source when source and destination are the same buffer.
#pragma once

#include <cstdint>

#include "veltrano/export.h"

// Correlation (the kernel is not flipped): out(x, y) = sum kernel(i, j) * src(x + j - kw/2,
// y + i - kh/2). Kernel element (i, j) is kernel[i * kw + j]. The order of the two kernel sizes
// differs between the members on purpose: filter2D_16U takes rows then columns, filter2D_8U and
// filter2D_32F columns then rows. The rows are split over OpenMP threads; the result does not
// depend on the thread count.
//
// Each pixel is the sum of eight partial sums (kernel element t = i * kw + j goes to partial
// t % 8, in kernel order) added in order, whichever path and thread computes it.
//
// Results: 1 done; -1 null source or destination; -3 null kernel; -4 a kernel size below 1;
// -5 too large (more than 2^28 pixels or kernel elements, or no scratch). filter2D_16U stores the
// result clamped to 0..65535 and truncated (NaN gives 0). filter2D_8U's result is never stored:
// it checks its arguments, returns what the correlation would, and leaves the destination's
// bytes as they are (hosts depend on that), without doing the work.
//
// Cost: kw * kh multiply-adds per pixel (a 5 x 5 kernel on a 1300 x 1800 frame takes a few ms on
// one thread); a kernel larger than the image visits only the kernel rows and columns that meet
// the mirrored extension, at most nine times the image's pixel count per pixel.
VELTRANO_API int filter2D_16U(uint16_t* src, uint16_t* dst, int width, int height, float* kernel,
                              int kh, int kw);
VELTRANO_API int filter2D_8U(uint8_t* src, uint8_t* dst, int width, int height, float* kernel,
                             int kw, int kh);
VELTRANO_API int filter2D_32F(float* src, float* dst, int width, int height, float* kernel, int kw,
                              int kh);

// Normalised Gaussian kernel of kh rows by kw columns, exp(-(dx^2 + dy^2) / (2 sigmaX sigmaY))
// with the centre at (kw/2, kh/2); a sigma of 0 or below counts as 1. Results: 1 done; -1 null
// kernel; -2 both sizes below 1 (one size below 1 writes nothing and returns 1).
VELTRANO_API int getGaussker_32F(float* kernel, int kw, int kh, double sigmaX, double sigmaY);
VELTRANO_API int getGaussker_64F(double* kernel, int kw, int kh, double sigmaX, double sigmaY);

// Gaussian filter: a ksize1 x ksize1 kernel passed to the member's filter2D with the sizes
// (ksize1, ksize2) as its sixth and seventh arguments; callers pass ksize1 == ksize2. When
// ksize2 > ksize1 the correlation reads kernel elements that were never generated: they are 0.
// Every argument is checked before the kernel is built.
// Results: the kernel generator's code when it is not 1 (-2 for ksize1 below 1), -5 when the
// kernel (ksize1 * ksize1 or ksize1 * ksize2 elements) or the image has more than 2^28 elements,
// else filter2D's code. gaussFilter_8U therefore leaves its destination unchanged, and does no
// work.
//
// Accuracy: each element of the 2-D kernel is rounded to float on its own, so no column pass and
// row pass reproduce it bit for bit. With ksize1 == ksize2 and a kernel within the image, the fast
// path runs such a separable form (2 * ksize products per pixel instead of ksize^2): a float
// result then differs from the exact correlation by at most 1e-6 of the sum of |weight * pixel|
// (measured up to 4.6e-7 on kernels up to 25 x 25), and a 16-bit result differs by one only where
// the exact value lies that close to an integer. VELTRANO_IMPL=reference gives the exact kernel.
VELTRANO_API int gaussFilter_8U(uint8_t* src, uint8_t* dst, int width, int height, int ksize1,
                                int ksize2, double sigmaX, double sigmaY);
VELTRANO_API int gaussFilter_16U(uint16_t* src, uint16_t* dst, int width, int height, int ksize1,
                                 int ksize2, double sigmaX, double sigmaY);
VELTRANO_API int gaussFilter_32F(float* src, float* dst, int width, int height, int ksize1,
                                 int ksize2, double sigmaX, double sigmaY);

// Mean over the (2r+1) x (2r+1) window by running sums, r = max(radius, 1), for codes 3, 4, 5,
// 6 and 11. Integer images get the mean rounded half up in row 0 and truncated in every other
// row; float images are clamped below to the smallest positive normal number. Both are kept on
// purpose. The half is added before truncation toward zero for signed images too, so a negative
// mean moves one step up (a flat -10 becomes -9). Results: 1 done; -1 null source; -2 null
// destination; -3 code not served; -4 too large (more than 2^28 pixels, or no scratch). Safe in
// place. The cost does not depend on the radius: integer images sum exactly in 32-bit integers
// up to radius 90 (16-bit) or 1447 (8-bit), with the same results as the described sums.
VELTRANO_API int Box_Filter(void* src, void* dst, int width, int height, int pixelType, int radius);

// Median of the (2r+1) x (2r+1) window for codes 3, 4, 5 and 6 (radius before the code, unlike
// Box_Filter): the element of rank n/2 of the n = (2r+1)^2 window values, the window read from
// the mirrored image (past the mirror's limit, the nearest mirrored pixel repeated). Radius 0
// copies the image. Safe in place.
//
// Bounds: the selection indexes the window in the pixel type itself, so radii whose windows it
// cannot index are refused: up to 7 for code 3, 90 for code 5, 127 for code 4 and 2047 for code 6.
// An image of more than kMaxElements (2^28) pixels, or whose copy extended by the radius on every
// side would exceed 2^28 elements, is refused with -3 before anything is allocated or read.
//
// Cost: radii 1 to 3 take a fixed number of comparisons per pixel (a full 1300 x 1800 frame in
// a few milliseconds); radius 4 and above take about 2 min(2r+1, height) histogram updates per
// pixel, so a window far wider than the image costs no more than the image's height; floats there
// also sort the image once. Scratch: a few rows for radii 1 to 3 (one frame more in place), about
// one frame for integers and five for floats at radius 4 and above.
//
// Float windows whose median is decided by the order of the elements rather than their values
// (those holding a NaN, or both +0 and -0 around a zero median) get the long-standing quickselect's
// element up to radius 3. Beyond radius 3 they get the element of rank n/2 in the order
// -inf < ... < -0 < +0 < ... < +inf < NaN: the quickselect's cost on them grows with n squared
// (seconds for one NaN in a small flat image at radius 30).
//
// Results: 1 done; -1 null source; -2 null destination; -3 code not served, image too large or
// scratch not allocated; -4 radius below 0 or above the type's limit.
VELTRANO_API int Median_Blur(void* src, void* dst, int width, int height, int radius,
                             int pixelType);
