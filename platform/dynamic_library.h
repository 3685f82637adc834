// DynamicLibrary: a shared library loaded at run time by its base name.
//
// open("FpdSys") searches the ordinary way for FpdSys.dll on Windows (LoadLibraryW) and for
// libFpdSys.so elsewhere (dlopen, then beside our own module); openFile() takes the file name
// or path as it is; symbol() looks up an entry point, close() unloads it.
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
    // Loads the library of this file name, searched as open() searches, or of this path; false
    // when it cannot be found or loaded.
    bool openFile(const std::string& fileName);
    // Address of an exported entry point, or null when the library is not open or lacks it.
    void* symbol(const char* name) const;
    // Unloads the library if it is open.
    void close();
    bool isOpen() const { return handle_ != nullptr; }
    // Why the last open() or openFile() failed, in the system's words (one line); empty after
    // one that succeeded.
    const std::string& error() const { return error_; }

    // The file name that open() asks the system loader for, e.g. "libFpdSys.so".
    static std::string fileNameFor(const std::string& baseName);

private:
    void* handle_ = nullptr;
    std::string error_;
};

}  // namespace veltrano::platform
