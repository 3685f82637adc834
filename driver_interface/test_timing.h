// The setting with which test runs shorten the waits of both sides of the driver interface:
// VELTRANO_TIME_DIVISOR=N (a whole number from 2 to 1000) in the environment of a process that
// a test starts (the program, a C or Python host) divides the library's pauses and command
// time-outs and the virtual sensor's exposure window by N. Hosts leave it unset; anything else
// there leaves every duration as it is.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace fpdsys {

inline uint32_t TimeDivisorFromEnvironment() {
    const char* text = std::getenv("VELTRANO_TIME_DIVISOR");
    if (text == nullptr) {
        return 1;
    }
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return (end != text && *end == '\0' && value >= 2 && value <= 1000)
               ? static_cast<uint32_t>(value)
               : 1;
}

}  // namespace fpdsys
