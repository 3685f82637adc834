// The choice among the implementations of a processing function.
//
// A function with a fast path keeps its straightforward implementation beside it, as the
// reference the fast one must match. Which one runs is decided at each call from what the
// processor can do (checked once, at first use) and an optional cap, set by tests or by the
// VELTRANO_IMPL environment variable ("reference", "scalar" or "avx2"). Vector code lives in
// functions marked VELTRANO_TARGET_AVX2 and runs only on a processor with AVX2, so the library
// loads and gives the same results on any x86 processor with SSE2.
#pragma once

#include "veltrano/export.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define VELTRANO_HAS_AVX2_PATHS 1
#define VELTRANO_TARGET_AVX2 __attribute__((target("avx2")))
#else
#define VELTRANO_HAS_AVX2_PATHS 0
#define VELTRANO_TARGET_AVX2
#endif

namespace veltrano {

// Ordered: each level may use everything of the levels below it.
enum class Impl : int {
    Reference = 0,  // the straightforward implementation, the oracle of the others
    Scalar = 1,     // the fast algorithm in plain code (SSE2 on x86, the baseline)
    Avx2 = 2,       // the fast algorithm with AVX2 vector code where it has some
};

// The level in effect now: the processor's best, capped by the test or environment setting.
Impl ActiveImpl();

// Tests and diagnosis only, not part of the host interface: caps the level for the whole
// process (a negative value goes back to the environment's cap, or none) and reports the level
// in effect.
VELTRANO_API void SetImplCapForTesting(int level);
VELTRANO_API int ActiveImplForTesting();

}  // namespace veltrano
