#include "platform/dynamic_library.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

namespace veltrano::platform {

namespace {

// The folder of the module (shared library or program) that holds this code, with a trailing
// '/'; empty when it cannot be told.
std::string OwnFolder() {
    Dl_info info;
    if (::dladdr(reinterpret_cast<void*>(&OwnFolder), &info) == 0 || info.dli_fname == nullptr) {
        return {};
    }
    std::string path = info.dli_fname;
    if (path.find('/') == std::string::npos) {
        // The main program is named as it was started: "veltrano" when the shell found it on
        // the PATH. The kernel knows its file.
        char exe[PATH_MAX];
        const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
        path = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string();
    }
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace

DynamicLibrary::~DynamicLibrary() { close(); }

std::string DynamicLibrary::fileNameFor(const std::string& baseName) {
    return "lib" + baseName + ".so";
}

bool DynamicLibrary::open(const std::string& baseName) { return openFile(fileNameFor(baseName)); }

bool DynamicLibrary::openFile(const std::string& fileName) {
    close();
    error_.clear();
    // A bare file name makes dlopen search the usual places: LD_LIBRARY_PATH, the calling
    // module's run path (our library's own folder), the system folders. RTLD_NOW so that a
    // library with unresolved references fails here instead of at its first call.
    handle_ = ::dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr && fileName.find('/') == std::string::npos) {
        // The run path belongs to whoever calls dlopen, and a sanitizer runtime that
        // intercepts dlopen becomes that caller. Looking beside our own module explicitly
        // keeps the search the same with or without one.
        const std::string folder = OwnFolder();
        if (!folder.empty()) {
            handle_ = ::dlopen((folder + fileName).c_str(), RTLD_NOW | RTLD_LOCAL);
        }
    }
    if (handle_ == nullptr) {
        // The last attempt's reason: where the file was looked for beside our module, it names
        // that path.
        const char* why = ::dlerror();
        error_ = why != nullptr ? why : "cannot be loaded";
    }
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
