#include "platform/dynamic_library.h"

#include <dlfcn.h>

namespace veltrano::platform {

DynamicLibrary::~DynamicLibrary() { close(); }

std::string DynamicLibrary::fileNameFor(const std::string& baseName) {
    return "lib" + baseName + ".so";
}

bool DynamicLibrary::open(const std::string& baseName) {
    close();
    // A bare file name makes dlopen search the usual places: the calling module's run path
    // (the library's own folder), LD_LIBRARY_PATH and the system folders. RTLD_NOW so that a
    // library with unresolved references fails here instead of at its first call.
    handle_ = ::dlopen(fileNameFor(baseName).c_str(), RTLD_NOW | RTLD_LOCAL);
    return handle_ != nullptr;
}

void* DynamicLibrary::symbol(const char* name) const {
    if (handle_ == nullptr || name == nullptr) {
        return nullptr;
    }
    return ::dlsym(handle_, name);
}

void DynamicLibrary::close() {
    if (handle_ != nullptr) {
        ::dlclose(handle_);
        handle_ = nullptr;
    }
}

}  // namespace veltrano::platform
