#include "platform/console.h"

#include <io.h>

#include <iostream>

namespace veltrano::platform {

bool IsTerminal(std::FILE* stream) { return ::_isatty(::_fileno(stream)) != 0; }

const char* NullDevice() { return "NUL"; }

StdoutToFile::StdoutToFile(const std::string& path) {
    std::cout.flush();
    std::fflush(stdout);
    std::FILE* log = std::fopen(path.c_str(), "a");
    if (log == nullptr) {
        return;
    }
    saved_ = ::_dup(::_fileno(stdout));
    ::_dup2(::_fileno(log), ::_fileno(stdout));
    std::fclose(log);
}

StdoutToFile::~StdoutToFile() {
    if (saved_ < 0) {
        return;
    }
    std::cout.flush();
    std::fflush(stdout);
    ::_dup2(saved_, ::_fileno(stdout));
    ::_close(saved_);
}

}  // namespace veltrano::platform
