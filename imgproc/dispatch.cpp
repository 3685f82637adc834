#include "imgproc/dispatch.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace veltrano {
namespace {

int ProcessorLevel() {
    static const int level = [] {
#if VELTRANO_HAS_AVX2_PATHS
        __builtin_cpu_init();
        // The check includes the operating system's support for the wide registers.
        if (__builtin_cpu_supports("avx2")) return static_cast<int>(Impl::Avx2);
#endif
        return static_cast<int>(Impl::Scalar);
    }();
    return level;
}

int EnvironmentCap() {
    static const int cap = [] {
        const char* v = std::getenv("VELTRANO_IMPL");
        if (v == nullptr) return static_cast<int>(Impl::Avx2);
        if (std::strcmp(v, "reference") == 0) return static_cast<int>(Impl::Reference);
        if (std::strcmp(v, "scalar") == 0) return static_cast<int>(Impl::Scalar);
        return static_cast<int>(Impl::Avx2);
    }();
    return cap;
}

std::atomic<int> g_testCap{-1};

}  // namespace

Impl ActiveImpl() {
    int cap = g_testCap.load(std::memory_order_relaxed);
    if (cap < 0) cap = EnvironmentCap();
    return static_cast<Impl>(std::min(cap, ProcessorLevel()));
}

void SetImplCapForTesting(int level) {
    g_testCap.store(level < 0 ? -1 : std::min(level, static_cast<int>(Impl::Avx2)),
                    std::memory_order_relaxed);
}

int ActiveImplForTesting() { return static_cast<int>(ActiveImpl()); }

}  // namespace veltrano
