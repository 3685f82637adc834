// Opening a web address in the user's browser, where the session has a desktop to show it on.
#pragma once

#include <string>

namespace veltrano::platform {

// Asks the desktop to open url in its browser without waiting for it. False when there is no
// desktop session (a terminal over ssh, a CI machine) or the request could not be made; the
// caller then tells the user the address instead. url must be an http address of our own making
// (no quotes or shell characters): the POSIX form passes it to xdg-open through the shell.
bool OpenInBrowser(const std::string& url);

}  // namespace veltrano::platform
