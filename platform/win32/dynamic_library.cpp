#include "platform/dynamic_library.h"

#include <windows.h>

namespace veltrano::platform {

namespace {

// Paths in this program are narrow strings in the ANSI code page, as the C runtime takes them.
std::wstring Widen(const std::string& text) {
    if (text.empty()) {
        return std::wstring();
    }
    const int n =
        ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0) {
        ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), &wide[0], n);
    }
    return wide;
}

}  // namespace

DynamicLibrary::~DynamicLibrary() { close(); }

std::string DynamicLibrary::fileNameFor(const std::string& baseName) { return baseName + ".dll"; }

bool DynamicLibrary::open(const std::string& baseName) {
    // The base name goes to the loader as it is: without a path or an extension, LoadLibraryW
    // appends ".dll" and uses the standard search order, which starts with the folder of the
    // executable.
    return openFile(baseName);
}

bool DynamicLibrary::openFile(const std::string& fileName) {
    close();
    error_.clear();
    handle_ = ::LoadLibraryW(Widen(fileName).c_str());
    if (handle_ == nullptr) {
        error_ = fileName + ": cannot be loaded (Windows error " +
                 std::to_string(::GetLastError()) + ")";
    }
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
