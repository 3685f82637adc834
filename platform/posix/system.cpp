#include "platform/system.h"

#include <limits.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace veltrano::platform {

void SleepMs(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Raising the priority of a process needs privileges on POSIX systems and the driver does not
// depend on it, so this deliberately does nothing.
void RaiseProcessPriority() {}

char PathSeparator() { return '/'; }

std::string ExecutableFolder() {
    char path[PATH_MAX] = {0};
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return std::string();
    }
    std::string text(path, static_cast<size_t>(n));
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? std::string() : text.substr(0, slash + 1);
}

}  // namespace veltrano::platform
