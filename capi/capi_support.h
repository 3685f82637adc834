// The C interface (include/veltrano_c.h): converts C arguments and forwards to the C++ library.
//
// This header holds what every entry point shares: the calling thread's last-error text and the
// guard that keeps exceptions inside the library. Each entry point is one guarded call of the
// C++ function of the same name; nothing here computes an image.
#pragma once

#include <cstddef>
#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>

#include "veltrano_c.h"

namespace veltrano::capi {

// The last-error text of the calling thread. A fixed buffer, so that reporting an error can
// itself never fail for want of memory.
void ClearLastError() noexcept;
bool HasLastError() noexcept;
void SetLastError(const char* format, ...) noexcept
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// Copies text into a caller's buffer the snprintf way: cut to size - 1 characters and
// terminated when size > 0. Returns the full length (at most INT_MAX).
int CopyText(const std::string& text, char* buffer, std::size_t size) noexcept;

// The code and last-error text for the exception being handled; call inside a catch block.
int TranslateCurrentException(const char* function) noexcept;

// Which results of a function count as failures (and so set the last error).
inline bool NegativeFails(int result) { return result < 0; }
inline bool NonZeroFails(int result) { return result != 0; }
// The clahe functions report a null source with 0.
inline bool NotOneFails(int result) { return result != 1; }

// Runs call, which returns the C++ function's int result, so that no exception escapes: the
// last error is cleared first and set when the result fails by `fails` (unless call set a more
// telling text itself) or an exception arrives.
template <class Call>
int Guard(const char* function, Call&& call, bool (*fails)(int) = NegativeFails) noexcept {
    ClearLastError();
    try {
        const int result = call();
        if (fails(result) && !HasLastError()) {
            SetLastError("%s returned %d", function, result);
        }
        return result;
    } catch (...) {
        return TranslateCurrentException(function);
    }
}

// The same for calls whose result is not an int code (the numeric INI readers): the fallback is
// returned when an exception arrives.
template <class T, class Call>
T GuardValue(const char* function, T fallback, Call&& call) noexcept {
    ClearLastError();
    try {
        return call();
    } catch (...) {
        TranslateCurrentException(function);
        return fallback;
    }
}

}  // namespace veltrano::capi
