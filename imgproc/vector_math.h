// Natural logarithm and exponential of four doubles at once, for the tables and passes that
// would otherwise call the C library once per value.
//
// Both follow the classic reduction-and-polynomial scheme whose error stays below one unit in
// the last place of a double. A result rounded to single precision therefore equals the C
// library's rounded result except when the exact value lies within about 2^-52 (relative) of a
// single-precision rounding boundary; the tests state and check that bound against the
// platform's own library. Only the domains stated below are served; callers route every other
// value to the C library.
#pragma once

#include "imgproc/dispatch.h"

#if VELTRANO_HAS_AVX2_PATHS
#include <immintrin.h>

namespace veltrano {

// log(x) for positive, finite, normal x.
VELTRANO_TARGET_AVX2 inline __m256d LogPd(__m256d x) {
    const __m256i bits = _mm256_castpd_si256(x);
    // x = 2^k * m with m in [1, 2); then m in [sqrt(1/2), sqrt(2)) by moving one factor 2.
    __m256i k = _mm256_sub_epi64(_mm256_srli_epi64(bits, 52), _mm256_set1_epi64x(1023));
    __m256d m = _mm256_castsi256_pd(
        _mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi64x(0x000FFFFFFFFFFFFFLL)),
                        _mm256_set1_epi64x(0x3FF0000000000000LL)));
    const __m256d big = _mm256_cmp_pd(m, _mm256_set1_pd(1.4142135623730951), _CMP_GT_OQ);
    m = _mm256_blendv_pd(m, _mm256_mul_pd(m, _mm256_set1_pd(0.5)), big);
    k = _mm256_sub_epi64(k, _mm256_castpd_si256(big));  // the mask is -1 where m was halved
    // k as a double: 1.5 * 2^52 + k is exact in the bits for |k| < 2^51.
    const __m256d magic = _mm256_set1_pd(6755399441055744.0);
    const __m256d dk =
        _mm256_sub_pd(_mm256_castsi256_pd(_mm256_add_epi64(k, _mm256_castpd_si256(magic))), magic);

    const __m256d f = _mm256_sub_pd(m, _mm256_set1_pd(1.0));
    const __m256d s = _mm256_div_pd(f, _mm256_add_pd(_mm256_set1_pd(2.0), f));
    const __m256d z = _mm256_mul_pd(s, s);
    const __m256d w = _mm256_mul_pd(z, z);
    const __m256d t1 = _mm256_mul_pd(
        w, _mm256_add_pd(
               _mm256_set1_pd(3.999999999940941908e-01),
               _mm256_mul_pd(
                   w, _mm256_add_pd(_mm256_set1_pd(2.222219843214978396e-01),
                                    _mm256_mul_pd(w, _mm256_set1_pd(1.531383769920937332e-01))))));
    const __m256d t2 = _mm256_mul_pd(
        z,
        _mm256_add_pd(
            _mm256_set1_pd(6.666666666666735130e-01),
            _mm256_mul_pd(
                w, _mm256_add_pd(
                       _mm256_set1_pd(2.857142874366239149e-01),
                       _mm256_mul_pd(
                           w, _mm256_add_pd(
                                  _mm256_set1_pd(1.818357216161805012e-01),
                                  _mm256_mul_pd(w, _mm256_set1_pd(1.479819860511658591e-01))))))));
    const __m256d r = _mm256_add_pd(t2, t1);
    const __m256d hfsq = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(0.5), f), f);
    const __m256d ln2Hi = _mm256_set1_pd(6.93147180369123816490e-01);
    const __m256d ln2Lo = _mm256_set1_pd(1.90821492927058770002e-10);
    // k ln2_hi - ((hfsq - (s (hfsq + R) + k ln2_lo)) - f)
    const __m256d inner =
        _mm256_add_pd(_mm256_mul_pd(s, _mm256_add_pd(hfsq, r)), _mm256_mul_pd(dk, ln2Lo));
    return _mm256_sub_pd(_mm256_mul_pd(dk, ln2Hi), _mm256_sub_pd(_mm256_sub_pd(hfsq, inner), f));
}

// exp(x) for x in [-700, 700].
VELTRANO_TARGET_AVX2 inline __m256d ExpPd(__m256d x) {
    const __m256d k = _mm256_round_pd(_mm256_mul_pd(x, _mm256_set1_pd(1.44269504088896338700e+00)),
                                      _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m256d hi =
        _mm256_sub_pd(x, _mm256_mul_pd(k, _mm256_set1_pd(6.93147180369123816490e-01)));
    const __m256d lo = _mm256_mul_pd(k, _mm256_set1_pd(1.90821492927058770002e-10));
    const __m256d r = _mm256_sub_pd(hi, lo);
    const __m256d t = _mm256_mul_pd(r, r);
    __m256d p = _mm256_set1_pd(4.13813679705723846039e-08);
    p = _mm256_add_pd(_mm256_set1_pd(-1.65339022054652515390e-06), _mm256_mul_pd(t, p));
    p = _mm256_add_pd(_mm256_set1_pd(6.61375632143793436117e-05), _mm256_mul_pd(t, p));
    p = _mm256_add_pd(_mm256_set1_pd(-2.77777777770155933842e-03), _mm256_mul_pd(t, p));
    p = _mm256_add_pd(_mm256_set1_pd(1.66666666666666019037e-01), _mm256_mul_pd(t, p));
    const __m256d c = _mm256_sub_pd(r, _mm256_mul_pd(t, p));
    // 1 - ((lo - r c / (2 - c)) - hi)
    const __m256d q = _mm256_div_pd(_mm256_mul_pd(r, c), _mm256_sub_pd(_mm256_set1_pd(2.0), c));
    const __m256d y = _mm256_sub_pd(_mm256_set1_pd(1.0), _mm256_sub_pd(_mm256_sub_pd(lo, q), hi));
    // 2^k from the exponent bits; |k| stays below 1011 in this domain.
    const __m256i ki = _mm256_cvtepi32_epi64(_mm256_cvtpd_epi32(k));
    const __m256i scaleBits = _mm256_slli_epi64(_mm256_add_epi64(ki, _mm256_set1_epi64x(1023)), 52);
    return _mm256_mul_pd(y, _mm256_castsi256_pd(scaleBits));
}

}  // namespace veltrano

#endif
