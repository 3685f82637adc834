#include "platform/browser.h"

#include <windows.h>
#include <shellapi.h>

namespace veltrano::platform {

bool OpenInBrowser(const std::string& url) {
    // ShellExecute reports success with a value above 32.
    const HINSTANCE result =
        ::ShellExecuteA(nullptr, "open", url.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
    return reinterpret_cast<INT_PTR>(result) > 32;
}

}  // namespace veltrano::platform
