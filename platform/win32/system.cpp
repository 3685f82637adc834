#include "platform/system.h"

#include <windows.h>

namespace veltrano::platform {

void SleepMs(uint32_t ms) { ::Sleep(ms); }

void RaiseProcessPriority() { ::SetPriorityClass(::GetCurrentProcess(), HIGH_PRIORITY_CLASS); }

char PathSeparator() { return '\\'; }

std::string ExecutableFolder() {
    char path[MAX_PATH] = {0};
    const DWORD n = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) {
        return std::string();
    }
    std::string text(path, n);
    const size_t slash = text.find_last_of("\\/");
    return slash == std::string::npos ? std::string() : text.substr(0, slash + 1);
}

}  // namespace veltrano::platform
