// The arithmetic of the linear filters' fast paths, one output row at a time, in two forms that
// give identical results: plain code (the Scalar level) and AVX2 vectors. Each form computes
// every pixel with the same operations in the same order; the vectors only run eight pixels side
// by side. Borders, buffers and the walk over the rows belong to the callers (filters.cpp,
// usm.cpp, window_helpers.h), which pass rows that are already extended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "imgproc/dispatch.h"

namespace veltrano {

// True when the call should take the AVX2 form of the kernels below.
bool UseAvx2(Impl impl);

// One sequential sum per pixel: out[x] = 0 + w[0] * in[0][x] + w[1] * in[1][x] + ..., added in
// tap order, for x below width. With in1 and out1 given, a second output row is computed from
// in1 with the same weights (two rows share each weight, which halves the weight traffic).
void SequentialSumRows(Impl impl, const float* const* in0, const float* const* in1,
                       const float* weights, size_t taps, size_t width, float* out0, float* out1);

// The correlation core's taps, grouped by the partial sum they belong to: group l holds, in
// kernel order, the taps whose kernel index i * kw + j is l modulo 8.
struct LaneTaps {
    int kw = 0;
    int kh = 0;
    const float* kernel = nullptr;  // kh rows of kw weights, kernel order
    std::vector<float> weights;     // group order, like rows and cols
    std::vector<uint32_t> rows;
    std::vector<uint32_t> cols;
    uint32_t groupBegin[9] = {};  // group l is [groupBegin[l], groupBegin[l + 1])

    // False when the lists cannot be allocated.
    bool build(const float* k, int width, int height);
};

// The correlation core's sum for one output row: rows[i] is the extended input row that kernel
// row i reads (element x + j for pixel x and kernel column j). Each group is summed on its own
// in kernel order and the eight group sums are added in group order. The described sums start
// from 0; here they start from their first product and the result gets a final + 0, which gives
// the same value: a sum of products that starts from +0 can never be -0, and the two differ at
// most in the sign of a zero. `scratch` holds taps.weights.size() pointers.
void LaneSumRow(Impl impl, const LaneTaps& taps, const float* const* rows, const float** scratch,
                size_t width, float* out);

// Integer box sums. col[x] += add[x] and then col[x] -= sub[x] (either may be null).
void ColumnUpdate(Impl impl, int32_t* col, const uint8_t* add, const uint8_t* sub, size_t n);
void ColumnUpdate(Impl impl, int32_t* col, const uint16_t* add, const uint16_t* sub, size_t n);
void ColumnUpdate(Impl impl, int32_t* col, const int16_t* add, const int16_t* sub, size_t n);

// sums[x] = ext[x] + ... + ext[x + k - 1] for x below n, through prefix sums in `prefix` (n + k
// elements of scratch). The prefix sums wrap modulo 2^32, so the window sums are exact whenever
// they fit in 32 bits themselves.
void WindowSums(Impl impl, const int32_t* ext, size_t n, size_t k, uint32_t* prefix, int32_t* sums);

// Truncating division of window sums by the area a (1 <= a < 2^23) for the box filter's rows
// after the first: t = sum / a rounded toward zero, stored as t for t >= 0 and t + 1 for t < 0
// (the half added before the final truncation toward zero). Every mean lies in the pixel type's
// range, so nothing needs clamping.
void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, uint8_t* out);
void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, uint16_t* out);
void BoxMeanRow(Impl impl, const int32_t* sums, size_t n, int32_t a, int16_t* out);

// 16-bit store of the linear filters: values above 65535 become 65535, values not above 0 (and
// NaN) become 0, the rest are truncated toward zero.
void StoreClampedU16(Impl impl, const float* in, size_t n, uint16_t* out);

}  // namespace veltrano
