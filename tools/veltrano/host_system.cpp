#include "host_system.h"

#include <cstdio>
#include <iostream>

#include "platform/dynamic_library.h"

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>
#endif

namespace vcli {

namespace {

using WriteCalibrationFn = int (*)(const char*, int);

// The driver library, loaded on first use and kept for the rest of the run: the Veltrano
// library opens the same driver by name right after, and then finds this very copy among the
// loaded libraries, and the entry points handed out stay valid. Null when it cannot be loaded.
const veltrano::platform::DynamicLibrary* DriverLibrary() {
    static veltrano::platform::DynamicLibrary* const driver = [] {
        auto* library = new veltrano::platform::DynamicLibrary;  // never unloaded
        library->open("FpdSys");
        return library;
    }();
    return driver->isOpen() ? driver : nullptr;
}

}  // namespace

bool WriteVirtualSensorCalibration(const std::string& workDir, int frames, std::string& error) {
    const veltrano::platform::DynamicLibrary* driver = DriverLibrary();
    if (driver == nullptr) {
        error = "the driver library " +
                veltrano::platform::DynamicLibrary::fileNameFor("FpdSys") + " cannot be loaded";
        return false;
    }
    const auto write =
        reinterpret_cast<WriteCalibrationFn>(driver->symbol("VirtualSensor_WriteCalibration"));
    if (write == nullptr) {
        error = "the driver library is not the virtual sensor (no VirtualSensor_WriteCalibration)";
        return false;
    }
    const int result = write(workDir.c_str(), frames);
    if (result != 0) {
        error = "the virtual sensor could not write its calibration (code " +
                std::to_string(result) + ")";
        return false;
    }
    return true;
}

SetFlatDoseFn FindVirtualSensorSource() {
    const veltrano::platform::DynamicLibrary* driver = DriverLibrary();
    return driver == nullptr
               ? nullptr
               : reinterpret_cast<SetFlatDoseFn>(driver->symbol("VirtualSensor_SetFlatDose"));
}

#if defined(_WIN32)

std::string ExecutableDir() {
    char path[MAX_PATH] = {0};
    const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) {
        return std::string();
    }
    std::string text(path, n);
    const size_t slash = text.find_last_of("\\/");
    return slash == std::string::npos ? std::string() : text.substr(0, slash + 1);
}

bool StderrIsTerminal() { return _isatty(_fileno(stderr)) != 0; }

StdoutToFile::StdoutToFile(const std::string& path) {
    std::cout.flush();
    std::fflush(stdout);
    FILE* log = std::fopen(path.c_str(), "a");
    if (log == nullptr) {
        return;
    }
    saved_ = _dup(_fileno(stdout));
    _dup2(_fileno(log), _fileno(stdout));
    std::fclose(log);
}

StdoutToFile::~StdoutToFile() {
    if (saved_ < 0) {
        return;
    }
    std::cout.flush();
    std::fflush(stdout);
    _dup2(saved_, _fileno(stdout));
    _close(saved_);
}

#else

std::string ExecutableDir() {
    char path[PATH_MAX] = {0};
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return std::string();
    }
    std::string text(path, static_cast<size_t>(n));
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? std::string() : text.substr(0, slash + 1);
}

bool StderrIsTerminal() { return isatty(fileno(stderr)) != 0; }

StdoutToFile::StdoutToFile(const std::string& path) {
    std::cout.flush();
    std::fflush(stdout);
    const int log = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log < 0) {
        return;
    }
    saved_ = dup(fileno(stdout));
    dup2(log, fileno(stdout));
    close(log);
}

StdoutToFile::~StdoutToFile() {
    if (saved_ < 0) {
        return;
    }
    std::cout.flush();
    std::fflush(stdout);
    dup2(saved_, fileno(stdout));
    close(saved_);
}

#endif

}  // namespace vcli
