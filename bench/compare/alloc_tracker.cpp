// Counting replacements of the C allocation functions. glibc exports its own implementations
// as __libc_*, which these forward to; every block is counted by malloc_usable_size, the same
// number on the way in and on the way out, so the running total never drifts.
#include "alloc_tracker.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* ptr);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<long long> g_current{0};
std::atomic<long long> g_peak{0};

void Add(void* ptr) {
    if (ptr == nullptr) {
        return;
    }
    const long long now = g_current.fetch_add(static_cast<long long>(malloc_usable_size(ptr)),
                                              std::memory_order_relaxed) +
                          static_cast<long long>(malloc_usable_size(ptr));
    long long peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {}
}

void Remove(void* ptr) {
    if (ptr != nullptr) {
        g_current.fetch_sub(static_cast<long long>(malloc_usable_size(ptr)),
                            std::memory_order_relaxed);
    }
}

bool PowerOfTwo(size_t v) { return v != 0 && (v & (v - 1)) == 0; }

}  // namespace

namespace compare::alloc {

namespace {
std::atomic<long long> g_mark{0};
}

long long Current() { return g_current.load(std::memory_order_relaxed); }

void Mark() {
    const long long now = Current();
    g_mark.store(now, std::memory_order_relaxed);
    g_peak.store(now, std::memory_order_relaxed);
}

long long PeakSinceMark() {
    return g_peak.load(std::memory_order_relaxed) - g_mark.load(std::memory_order_relaxed);
}

}  // namespace compare::alloc

// The replacements must be visible to the shared libraries, whatever the default visibility.
#define COMPARE_EXPORT extern "C" __attribute__((visibility("default")))

COMPARE_EXPORT void* malloc(size_t size) {
    void* p = __libc_malloc(size);
    Add(p);
    return p;
}

COMPARE_EXPORT void free(void* ptr) {
    Remove(ptr);
    __libc_free(ptr);
}

COMPARE_EXPORT void* calloc(size_t count, size_t size) {
    void* p = __libc_calloc(count, size);
    Add(p);
    return p;
}

COMPARE_EXPORT void* realloc(void* ptr, size_t size) {
    const long long before = ptr != nullptr ? static_cast<long long>(malloc_usable_size(ptr)) : 0;
    void* p = __libc_realloc(ptr, size);
    if (p != nullptr) {
        g_current.fetch_sub(before, std::memory_order_relaxed);
        Add(p);
    } else if (ptr != nullptr && size == 0) {
        // realloc(p, 0) frees p.
        g_current.fetch_sub(before, std::memory_order_relaxed);
    }
    return p;
}

COMPARE_EXPORT void* memalign(size_t alignment, size_t size) {
    void* p = __libc_memalign(alignment, size);
    Add(p);
    return p;
}

COMPARE_EXPORT void* aligned_alloc(size_t alignment, size_t size) {
    void* p = __libc_memalign(alignment, size);
    Add(p);
    return p;
}

COMPARE_EXPORT int posix_memalign(void** out, size_t alignment, size_t size) {
    if (!PowerOfTwo(alignment) || alignment % sizeof(void*) != 0) {
        return EINVAL;
    }
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    Add(p);
    *out = p;
    return 0;
}

COMPARE_EXPORT void* valloc(size_t size) {
    void* p = __libc_memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), size);
    Add(p);
    return p;
}
