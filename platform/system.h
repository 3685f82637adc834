// Small process-wide facilities: sleeping, process priority, the path separator and the folder
// of the running program.
#pragma once

#include <cstdint>
#include <string>

namespace veltrano::platform {

// Blocks the calling thread for ms milliseconds.
void SleepMs(uint32_t ms);

// Raises the process to high priority (SetPriorityClass(HIGH_PRIORITY_CLASS) on Windows). On
// other systems this is a best-effort no-op: it never fails and never needs privileges.
void RaiseProcessPriority();

// '\\' on Windows, '/' elsewhere.
char PathSeparator();

// Folder of the running program's executable file, with a trailing separator; empty when it
// cannot be told. /proc/self/exe on POSIX systems, GetModuleFileNameA on Windows.
std::string ExecutableFolder();

}  // namespace veltrano::platform
