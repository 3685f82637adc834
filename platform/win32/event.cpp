#include "platform/event.h"

#include <windows.h>

namespace veltrano::platform {

struct Event::Impl {
    // Auto-reset, initially not signalled. A failed creation leaves a null handle, and every
    // wait on it then reports Failed.
    HANDLE handle = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

Event::Event() : impl_(new Impl) {}

Event::~Event() {
    if (impl_->handle != nullptr) {
        ::CloseHandle(impl_->handle);
    }
}

void Event::set() {
    if (impl_->handle != nullptr) {
        ::SetEvent(impl_->handle);
    }
}

void Event::reset() {
    if (impl_->handle != nullptr) {
        ::ResetEvent(impl_->handle);
    }
}

Event::WaitResult Event::wait(uint32_t timeoutMs) {
    if (impl_->handle == nullptr) {
        return WaitResult::Failed;
    }
    // kInfinite has the value of INFINITE, so the time-out passes through unchanged.
    switch (::WaitForSingleObject(impl_->handle, timeoutMs)) {
    case WAIT_OBJECT_0:
        return WaitResult::Signalled;
    case WAIT_TIMEOUT:
        return WaitResult::TimedOut;
    default:
        return WaitResult::Failed;
    }
}

int Event::waitAny(Event& a, Event& b, uint32_t timeoutMs) {
    if (a.impl_->handle == nullptr || b.impl_->handle == nullptr) {
        return -2;
    }
    // Waiting for any one object consumes only the event reported; with both signalled the
    // lower index wins.
    const HANDLE handles[2] = {a.impl_->handle, b.impl_->handle};
    const DWORD result = ::WaitForMultipleObjects(2, handles, FALSE, timeoutMs);
    if (result == WAIT_OBJECT_0) {
        return 0;
    }
    if (result == WAIT_OBJECT_0 + 1) {
        return 1;
    }
    return result == WAIT_TIMEOUT ? -1 : -2;
}

static_assert(Event::kInfinite == INFINITE, "the infinite time-out must be the system's");

}  // namespace veltrano::platform
