#include "host_system.h"

#include <cstdio>
#include <iostream>

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>
#endif

namespace vcli {

namespace {
using WriteCalibrationFn = int (*)(const char*, int);
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

int WriteVirtualSensorCalibration(const std::string& workDir, int frames, std::string& error) {
    // The ordinary search order looks in the executable's folder first, where the build puts
    // the driver library. It stays loaded: the library opens the same driver right after.
    HMODULE module = LoadLibraryW(L"FpdSys");
    if (module == nullptr) {
        error = "the driver library FpdSys.dll cannot be loaded";
        return -1000;
    }
    auto fn = reinterpret_cast<WriteCalibrationFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "VirtualSensor_WriteCalibration")));
    if (fn == nullptr) {
        FreeLibrary(module);
        error = "the driver library is not the virtual sensor (no VirtualSensor_WriteCalibration)";
        return -1000;
    }
    return fn(workDir.c_str(), frames);
}

SetFlatDoseFn FindVirtualSensorSource() {
    HMODULE module = LoadLibraryW(L"FpdSys");
    return module == nullptr ? nullptr
                             : reinterpret_cast<SetFlatDoseFn>(reinterpret_cast<void*>(
                                   GetProcAddress(module, "VirtualSensor_SetFlatDose")));
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

int WriteVirtualSensorCalibration(const std::string& workDir, int frames, std::string& error) {
    // The library finds libFpdSys.so beside itself; the build puts the program there too, so
    // look beside the executable first and then the ordinary way. The driver stays loaded: the
    // library opens it by name right after, and then finds this very copy among the loaded
    // libraries, whatever its own search would have found (under AddressSanitizer, for one,
    // the library's run path is not searched).
    void* module = dlopen((ExecutableDir() + "libFpdSys.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        module = dlopen("libFpdSys.so", RTLD_NOW | RTLD_LOCAL);
    }
    if (module == nullptr) {
        error = "the driver library libFpdSys.so cannot be loaded";
        return -1000;
    }
    auto fn = reinterpret_cast<WriteCalibrationFn>(dlsym(module, "VirtualSensor_WriteCalibration"));
    if (fn == nullptr) {
        dlclose(module);
        error = "the driver library is not the virtual sensor (no VirtualSensor_WriteCalibration)";
        return -1000;
    }
    return fn(workDir.c_str(), frames);
}

SetFlatDoseFn FindVirtualSensorSource() {
    void* module = dlopen((ExecutableDir() + "libFpdSys.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        module = dlopen("libFpdSys.so", RTLD_NOW | RTLD_LOCAL);
    }
    return module == nullptr ? nullptr
                             : reinterpret_cast<SetFlatDoseFn>(dlsym(module, "VirtualSensor_SetFlatDose"));
}

#endif

}  // namespace vcli
