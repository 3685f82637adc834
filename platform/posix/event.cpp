#include "platform/event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace veltrano::platform {

namespace {

// All events share one mutex and one condition variable. That is what lets waitAny() sleep
// on two events at once, and the traffic is tiny (a handful of hand-overs per exposure), so
// the occasional spurious wake-up of an unrelated waiter costs nothing. The pair is created
// on first use and deliberately never destroyed, so that events living in static objects can
// still be used and destroyed during program exit.
struct SharedState {
    std::mutex mutex;
    std::condition_variable changed;
};

SharedState& Shared() {
    static SharedState* const state = new SharedState;
    return *state;
}

using Clock = std::chrono::steady_clock;

// Sleeps on the shared condition variable until ready() holds or the time-out passes; the
// caller holds the lock. Returns ready()'s last value.
template <typename Ready>
bool WaitUntilReady(std::unique_lock<std::mutex>& lock, uint32_t timeoutMs, Ready ready) {
    SharedState& shared = Shared();
    if (timeoutMs == Event::kInfinite) {
        shared.changed.wait(lock, ready);
        return true;
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    return shared.changed.wait_until(lock, deadline, ready);
}

}  // namespace

struct Event::Impl {
    bool signalled = false;  // guarded by the shared mutex
};

Event::Event() : impl_(new Impl) {}

Event::~Event() = default;

void Event::set() {
    SharedState& shared = Shared();
    {
        std::lock_guard<std::mutex> lock(shared.mutex);
        impl_->signalled = true;
    }
    // Every waiter re-checks its own events under the lock; only the first to see this one
    // signalled consumes it, the others go back to sleep.
    shared.changed.notify_all();
}

void Event::reset() {
    std::lock_guard<std::mutex> lock(Shared().mutex);
    impl_->signalled = false;
}

Event::WaitResult Event::wait(uint32_t timeoutMs) {
    std::unique_lock<std::mutex> lock(Shared().mutex);
    Impl& self = *impl_;
    if (!WaitUntilReady(lock, timeoutMs, [&self] { return self.signalled; })) {
        return WaitResult::TimedOut;
    }
    self.signalled = false;  // auto-reset: this wait takes the signal
    return WaitResult::Signalled;
}

int Event::waitAny(Event& a, Event& b, uint32_t timeoutMs) {
    std::unique_lock<std::mutex> lock(Shared().mutex);
    Impl& first = *a.impl_;
    Impl& second = *b.impl_;
    if (!WaitUntilReady(lock, timeoutMs,
                        [&first, &second] { return first.signalled || second.signalled; })) {
        return -1;
    }
    // When both are signalled the first one wins and the second keeps its signal, as with
    // WaitForMultipleObjects.
    if (first.signalled) {
        first.signalled = false;
        return 0;
    }
    second.signalled = false;
    return 1;
}

}  // namespace veltrano::platform
