// The program's standard streams: whether one is a terminal, the null device, and sending
// standard output to a file for a while.
//
// StdoutToFile works on the file descriptor under stdout, so that everything written to standard
// output lands in the file: printf and std::cout of this program, and the library's own output.
// POSIX isatty/open/dup/dup2, Win32 _isatty/_dup/_dup2 of the C runtime.
#pragma once

#include <cstdio>
#include <string>

namespace veltrano::platform {

// True when stream is an interactive terminal (a console window on Windows). The Windows runtime
// also says true for any character device, the null device among them.
bool IsTerminal(std::FILE* stream);

// The device that swallows whatever is written to it: "/dev/null", or "NUL" on Windows.
const char* NullDevice();

// Sends standard output to the end of a file (created if missing) until the object is
// destroyed, then back where it went before. If the file cannot be opened standard output is
// left as it is and active() is false.
class StdoutToFile {
public:
    explicit StdoutToFile(const std::string& path);
    ~StdoutToFile();
    StdoutToFile(const StdoutToFile&) = delete;
    StdoutToFile& operator=(const StdoutToFile&) = delete;

    bool active() const { return saved_ >= 0; }

private:
    int saved_ = -1;
};

}  // namespace veltrano::platform
