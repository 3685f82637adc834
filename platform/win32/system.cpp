#include "platform/system.h"

#include <windows.h>

namespace veltrano::platform {

void SleepMs(uint32_t ms) { ::Sleep(ms); }

void RaiseProcessPriority() { ::SetPriorityClass(::GetCurrentProcess(), HIGH_PRIORITY_CLASS); }

char PathSeparator() { return '\\'; }

}  // namespace veltrano::platform
