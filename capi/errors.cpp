// The C interface's last-error text, the exception translation and the version.
#include <climits>
#include <cstdarg>
#include <cstring>

#include "capi/capi_support.h"

#ifndef VELTRANO_VERSION_TEXT
#define VELTRANO_VERSION_TEXT "0.0.0"
#endif

namespace veltrano::capi {

namespace {
thread_local char t_lastError[512];
}

void ClearLastError() noexcept { t_lastError[0] = '\0'; }

bool HasLastError() noexcept { return t_lastError[0] != '\0'; }

void SetLastError(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    std::vsnprintf(t_lastError, sizeof t_lastError, format, args);
    va_end(args);
}

int CopyText(const std::string& text, char* buffer, std::size_t size) noexcept {
    if (buffer != nullptr && size > 0) {
        const std::size_t n = text.size() < size - 1 ? text.size() : size - 1;
        std::memcpy(buffer, text.data(), n);
        buffer[n] = '\0';
    }
    return text.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX
                                                           : static_cast<int>(text.size());
}

int TranslateCurrentException(const char* function) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        SetLastError("%s: out of memory", function);
        return VT_ERR_NO_MEMORY;
    } catch (const std::invalid_argument& e) {
        SetLastError("%s: %s", function, e.what());
        return VT_ERR_INVALID_NUMBER;
    } catch (const std::out_of_range& e) {
        SetLastError("%s: %s", function, e.what());
        return VT_ERR_NUMBER_OUT_OF_RANGE;
    } catch (const std::exception& e) {
        SetLastError("%s: %s", function, e.what());
        return VT_ERR_INTERNAL;
    } catch (...) {
        SetLastError("%s: unknown failure", function);
        return VT_ERR_INTERNAL;
    }
}

}  // namespace veltrano::capi

extern "C" {

VT_API const char* VT_CALL vt_last_error(void) { return veltrano::capi::t_lastError; }

VT_API const char* VT_CALL vt_version(void) { return VELTRANO_VERSION_TEXT; }

}  // extern "C"
