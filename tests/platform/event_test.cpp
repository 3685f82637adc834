#include "platform/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace veltrano::platform {
namespace {

using Clock = std::chrono::steady_clock;
using Result = Event::WaitResult;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Sets the event from another thread after a short pause.
std::thread SetLater(Event& event, int delayMs) {
    return std::thread([&event, delayMs] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        event.set();
    });
}

TEST(Event, WaitWithoutSignalTimesOutAfterAboutTheTimeout) {
    Event event;
    const auto start = Clock::now();
    EXPECT_EQ(event.wait(120), Result::TimedOut);
    const long long elapsed = MillisecondsSince(start);
    // Windows timers tick in steps of about 15 ms, and a loaded machine oversleeps.
    EXPECT_GE(elapsed, 100);
    EXPECT_LT(elapsed, 3000);

    EXPECT_EQ(event.wait(0), Result::TimedOut);
}

TEST(Event, WaitIsWokenBySetFromAnotherThread) {
    for (uint32_t timeout : {uint32_t{10000}, Event::kInfinite}) {
        SCOPED_TRACE(timeout);
        Event event;
        const auto start = Clock::now();
        std::thread setter = SetLater(event, 50);
        EXPECT_EQ(event.wait(timeout), Result::Signalled);
        // Woken by the set, not by the time-out.
        EXPECT_LT(MillisecondsSince(start), 5000);
        setter.join();
    }
}

TEST(Event, AutoResetLetsOneSetReleaseExactlyOneWait) {
    Event event;
    // A set with nobody waiting is kept for the next wait ...
    event.set();
    EXPECT_EQ(event.wait(0), Result::Signalled);
    // ... and taken by it.
    EXPECT_EQ(event.wait(50), Result::TimedOut);

    // Two sets before a wait are still one signal.
    event.set();
    event.set();
    EXPECT_EQ(event.wait(0), Result::Signalled);
    EXPECT_EQ(event.wait(0), Result::TimedOut);

    // Two threads wait, one set: exactly one of them is released.
    std::atomic<int> released{0};
    std::atomic<int> timedOut{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i) {
        waiters.emplace_back([&] {
            if (event.wait(800) == Result::Signalled) {
                ++released;
            } else {
                ++timedOut;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    event.set();
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(released.load(), 1);
    EXPECT_EQ(timedOut.load(), 1);
}

TEST(Event, ResetDropsAPendingSignal) {
    Event event;
    event.set();
    event.reset();
    EXPECT_EQ(event.wait(30), Result::TimedOut);
    // Resetting an event that is not signalled is harmless, and it still works afterwards.
    event.reset();
    event.set();
    EXPECT_EQ(event.wait(0), Result::Signalled);
}

TEST(Event, WaitAnyReportsTheEventThatFiredAndLeavesTheOtherSignalled) {
    Event a;
    Event b;
    EXPECT_EQ(Event::waitAny(a, b, 40), -1);

    b.set();
    EXPECT_EQ(Event::waitAny(a, b, 0), 1);
    EXPECT_EQ(b.wait(0), Result::TimedOut);

    // Both signalled: the first is reported and consumed, the second keeps its signal.
    a.set();
    b.set();
    EXPECT_EQ(Event::waitAny(a, b, 0), 0);
    EXPECT_EQ(a.wait(0), Result::TimedOut);
    EXPECT_EQ(b.wait(0), Result::Signalled);

    // Woken while waiting, by either event, from another thread.
    for (int which : {0, 1}) {
        SCOPED_TRACE(which);
        Event& target = which == 0 ? a : b;
        std::thread setter = SetLater(target, 40);
        EXPECT_EQ(Event::waitAny(a, b, Event::kInfinite), which);
        setter.join();
        EXPECT_EQ(Event::waitAny(a, b, 0), -1);
    }
}

// Two threads hand a token back and forth many times; a lost wake-up would hang one side
// until its time-out and show up as a failed wait.
TEST(Event, PingPongBetweenThreadsLosesNoSignal) {
    constexpr int kRounds = 2000;
    Event ping;
    Event pong;
    std::atomic<int> partnerFailures{0};
    std::thread partner([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (ping.wait(5000) != Result::Signalled) {
                ++partnerFailures;
                return;
            }
            pong.set();
        }
    });
    int failures = 0;
    for (int i = 0; i < kRounds && failures == 0; ++i) {
        ping.set();
        if (pong.wait(5000) != Result::Signalled) {
            ++failures;
        }
    }
    partner.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(partnerFailures.load(), 0);
}

}  // namespace
}  // namespace veltrano::platform
