#include "platform/console.h"

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

namespace veltrano::platform {

bool IsTerminal(std::FILE* stream) { return ::isatty(::fileno(stream)) != 0; }

const char* NullDevice() { return "/dev/null"; }

StdoutToFile::StdoutToFile(const std::string& path) {
    std::cout.flush();
    std::fflush(stdout);
    const int log = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log < 0) {
        return;
    }
    saved_ = ::dup(::fileno(stdout));
    ::dup2(log, ::fileno(stdout));
    ::close(log);
}

StdoutToFile::~StdoutToFile() {
    if (saved_ < 0) {
        return;
    }
    std::cout.flush();
    std::fflush(stdout);
    ::dup2(saved_, ::fileno(stdout));
    ::close(saved_);
}

}  // namespace veltrano::platform
