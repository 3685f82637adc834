// Event: an auto-reset event, the hand-over between a driver's thread and the caller's thread.
//
// set() wakes exactly one waiter (or the next wait, if nobody waits yet) and the event resets
// itself when that wait returns; reset() drops a pending signal. waitAny() waits for the first of
// two events. Win32 events on Windows, a mutex and condition variable elsewhere.
#pragma once

#include <cstdint>
#include <memory>

namespace veltrano::platform {

class Event {
public:
    static constexpr uint32_t kInfinite = 0xFFFFFFFFu;

    enum class WaitResult { Signalled, TimedOut, Failed };

    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set();
    void reset();
    // Waits up to timeoutMs milliseconds (kInfinite: no time-out).
    WaitResult wait(uint32_t timeoutMs);

    // Waits for whichever of the two fires first: 0 for `a`, 1 for `b`, -1 on time-out, -2 when
    // the wait itself failed. Only the event reported is consumed.
    static int waitAny(Event& a, Event& b, uint32_t timeoutMs);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace veltrano::platform
