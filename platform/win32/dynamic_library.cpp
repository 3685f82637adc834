#include "platform/dynamic_library.h"

#include <windows.h>

namespace veltrano::platform {

namespace {

// Library base names are plain ASCII ("FpdSys"), so widening byte by byte is enough.
std::wstring Widen(const std::string& text) {
    std::wstring wide;
    wide.reserve(text.size());
    for (unsigned char c : text) {
        wide.push_back(static_cast<wchar_t>(c));
    }
    return wide;
}

}  // namespace

DynamicLibrary::~DynamicLibrary() { close(); }

std::string DynamicLibrary::fileNameFor(const std::string& baseName) { return baseName + ".dll"; }

bool DynamicLibrary::open(const std::string& baseName) {
    close();
    // The base name goes to the loader as it is: without a path or an extension, LoadLibraryW
    // appends ".dll" and uses the standard search order, which starts with the folder of the
    // executable.
    handle_ = ::LoadLibraryW(Widen(baseName).c_str());
    return handle_ != nullptr;
}

void* DynamicLibrary::symbol(const char* name) const {
    if (handle_ == nullptr || name == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(handle_), name));
}

void DynamicLibrary::close() {
    if (handle_ != nullptr) {
        ::FreeLibrary(static_cast<HMODULE>(handle_));
        handle_ = nullptr;
    }
}

}  // namespace veltrano::platform
