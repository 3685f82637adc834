// The AVX2 registers of float and double as one interface, so that a vector loop over either
// element type is written once as a template: L::kLanes elements per register, and the
// operations the whole-frame passes use. Include only where VELTRANO_HAS_AVX2_PATHS is set, and
// call only from functions marked VELTRANO_TARGET_AVX2.
#pragma once

#include <cstddef>
#include <immintrin.h>

#include "imgproc/dispatch.h"

namespace veltrano {

struct FloatLanes {
    using T = float;
    using V = __m256;
    static constexpr size_t kLanes = 8;
    VELTRANO_TARGET_AVX2 static V Set(T v) { return _mm256_set1_ps(v); }
    VELTRANO_TARGET_AVX2 static V Load(const T* p) { return _mm256_loadu_ps(p); }
    VELTRANO_TARGET_AVX2 static void Store(T* p, V v) { _mm256_storeu_ps(p, v); }
    VELTRANO_TARGET_AVX2 static V Add(V a, V b) { return _mm256_add_ps(a, b); }
    VELTRANO_TARGET_AVX2 static V Sub(V a, V b) { return _mm256_sub_ps(a, b); }
    VELTRANO_TARGET_AVX2 static V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
    // As the instructions do: the second operand when either is not a number.
    VELTRANO_TARGET_AVX2 static V Min(V a, V b) { return _mm256_min_ps(a, b); }
    VELTRANO_TARGET_AVX2 static V Max(V a, V b) { return _mm256_max_ps(a, b); }
    // x where the comparison fails (not-a-number included), else the bound.
    VELTRANO_TARGET_AVX2 static V CapAbove(V x, V bound) {
        return _mm256_blendv_ps(x, bound, _mm256_cmp_ps(x, bound, _CMP_GT_OQ));
    }
    VELTRANO_TARGET_AVX2 static V CapBelow(V x, V bound) {
        return _mm256_blendv_ps(x, bound, _mm256_cmp_ps(x, bound, _CMP_LT_OQ));
    }
};

struct DoubleLanes {
    using T = double;
    using V = __m256d;
    static constexpr size_t kLanes = 4;
    VELTRANO_TARGET_AVX2 static V Set(T v) { return _mm256_set1_pd(v); }
    VELTRANO_TARGET_AVX2 static V Load(const T* p) { return _mm256_loadu_pd(p); }
    VELTRANO_TARGET_AVX2 static void Store(T* p, V v) { _mm256_storeu_pd(p, v); }
    VELTRANO_TARGET_AVX2 static V Add(V a, V b) { return _mm256_add_pd(a, b); }
    VELTRANO_TARGET_AVX2 static V Sub(V a, V b) { return _mm256_sub_pd(a, b); }
    VELTRANO_TARGET_AVX2 static V Mul(V a, V b) { return _mm256_mul_pd(a, b); }
    VELTRANO_TARGET_AVX2 static V Min(V a, V b) { return _mm256_min_pd(a, b); }
    VELTRANO_TARGET_AVX2 static V Max(V a, V b) { return _mm256_max_pd(a, b); }
    VELTRANO_TARGET_AVX2 static V CapAbove(V x, V bound) {
        return _mm256_blendv_pd(x, bound, _mm256_cmp_pd(x, bound, _CMP_GT_OQ));
    }
    VELTRANO_TARGET_AVX2 static V CapBelow(V x, V bound) {
        return _mm256_blendv_pd(x, bound, _mm256_cmp_pd(x, bound, _CMP_LT_OQ));
    }
};

// The lanes of an element type.
template <class T>
struct LanesOf;
template <>
struct LanesOf<float> {
    using type = FloatLanes;
};
template <>
struct LanesOf<double> {
    using type = DoubleLanes;
};

}  // namespace veltrano
