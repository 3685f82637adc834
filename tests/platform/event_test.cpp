#include "platform/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace veltrano::platform {
namespace {

using Result = Event::WaitResult;

std::thread SetLater(Event& event, int delayMs) {
    return std::thread([&event, delayMs] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        event.set();
    });
}

TEST(Event, WaitTimesOutOrIsWokenFromAnotherThread) {
    Event event;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(event.wait(120), Result::TimedOut);
    // Generous bounds: Windows timers tick in steps of about 15 ms, loaded machines oversleep.
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(100));
    EXPECT_LT(waited, std::chrono::milliseconds(3000));
    for (uint32_t timeout : {uint32_t{10000}, Event::kInfinite}) {
        std::thread setter = SetLater(event, 50);
        EXPECT_EQ(event.wait(timeout), Result::Signalled);
        setter.join();
    }
}

TEST(Event, OneSetReleasesExactlyOneWaitAndResetDropsIt) {
    Event event;
    event.set();  // kept until somebody waits, and two sets are still one signal
    event.set();
    EXPECT_EQ(event.wait(0), Result::Signalled);
    EXPECT_EQ(event.wait(30), Result::TimedOut);
    event.set();
    event.reset();
    EXPECT_EQ(event.wait(30), Result::TimedOut);
    // Two threads wait, one set: exactly one of them is released.
    std::atomic<int> released{0};
    auto waiter = [&] { released += event.wait(800) == Result::Signalled ? 1 : 0; };
    std::thread first(waiter), second(waiter);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    event.set();
    first.join();
    second.join();
    EXPECT_EQ(released.load(), 1);
}

TEST(Event, WaitAnyReportsTheEventThatFiredAndLeavesTheOtherSignalled) {
    Event a, b;
    EXPECT_EQ(Event::waitAny(a, b, 40), -1);
    // Both signalled: the first is reported and consumed, the second keeps its signal.
    a.set();
    b.set();
    EXPECT_EQ(Event::waitAny(a, b, 0), 0);
    EXPECT_EQ(a.wait(0), Result::TimedOut);
    EXPECT_EQ(Event::waitAny(a, b, 0), 1);
    EXPECT_EQ(b.wait(0), Result::TimedOut);
    for (int which : {0, 1}) {
        std::thread setter = SetLater(which == 0 ? a : b, 40);
        EXPECT_EQ(Event::waitAny(a, b, Event::kInfinite), which);
        setter.join();
    }
}

// Two threads hand a token back and forth; a lost wake-up shows as a failed wait (and ends the
// game, so that a fault costs seconds rather than hours).
TEST(Event, PingPongBetweenThreadsLosesNoSignal) {
    Event ping, pong;
    std::atomic<int> failures{0};
    std::thread partner([&] {
        for (int i = 0; i < 2000 && failures == 0; ++i) {
            failures += ping.wait(5000) == Result::Signalled ? 0 : 1;
            pong.set();
        }
    });
    for (int i = 0; i < 2000 && failures == 0; ++i) {
        ping.set();
        failures += pong.wait(5000) == Result::Signalled ? 0 : 1;
    }
    partner.join();
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
}  // namespace veltrano::platform
