#include "platform/system.h"

#include <chrono>
#include <thread>

namespace veltrano::platform {

void SleepMs(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Raising the priority of a process needs privileges on POSIX systems and the driver does not
// depend on it, so this deliberately does nothing.
void RaiseProcessPriority() {}

char PathSeparator() { return '/'; }

}  // namespace veltrano::platform
