// Small process-wide facilities: sleeping, process priority and the path separator.
#pragma once

#include <cstdint>

namespace veltrano::platform {

// Blocks the calling thread for ms milliseconds.
void SleepMs(uint32_t ms);

// Raises the process to high priority (SetPriorityClass(HIGH_PRIORITY_CLASS) on Windows). On
// other systems this is a best-effort no-op: it never fails and never needs privileges.
void RaiseProcessPriority();

// '\\' on Windows, '/' elsewhere.
char PathSeparator();

}  // namespace veltrano::platform
