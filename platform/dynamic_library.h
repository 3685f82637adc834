// DynamicLibrary: a shared library loaded at run time by its base name.
//
// open("FpdSys") searches the ordinary way for FpdSys.dll on Windows (LoadLibraryW) and for
// libFpdSys.so elsewhere (dlopen, then beside our own module); symbol() looks up an entry
// point, close() unloads it.
#pragma once

#include <string>

namespace veltrano::platform {

class DynamicLibrary {
public:
    DynamicLibrary() = default;
    ~DynamicLibrary();
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;

    // Loads the library; false when it cannot be found or loaded. A library already open is
    // closed first.
    bool open(const std::string& baseName);
    // Address of an exported entry point, or null when the library is not open or lacks it.
    void* symbol(const char* name) const;
    // Unloads the library if it is open.
    void close();
    bool isOpen() const { return handle_ != nullptr; }

    // The file name that open() asks the system loader for, e.g. "libFpdSys.so".
    static std::string fileNameFor(const std::string& baseName);

private:
    void* handle_ = nullptr;
};

}  // namespace veltrano::platform
