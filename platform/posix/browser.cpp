#include "platform/browser.h"

#include <cstdlib>

namespace veltrano::platform {

bool OpenInBrowser(const std::string& url) {
    if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
        return false;
    }
    for (const char c : url) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                           (c >= 'A' && c <= 'Z') || c == ':' || c == '/' || c == '.' || c == '-' ||
                           c == '_';
        if (!plain) {
            return false;
        }
    }
    const std::string command = "xdg-open '" + url + "' >/dev/null 2>&1 &";
    return std::system(command.c_str()) == 0;
}

}  // namespace veltrano::platform
