// PrepareListeningSocket: the options a loopback server's listening socket gets before bind.
//
// The address may be bound again at once after the previous server ended (its old connections
// still waiting out their close), but never by a second server while one listens: two servers
// sharing a port would each get part of the requests. POSIX SO_REUSEADDR without SO_REUSEPORT;
// Win32 SO_EXCLUSIVEADDRUSE.
#pragma once

#include <cstdint>

namespace veltrano::platform {

// `socket` is the native handle (an int on POSIX, a SOCKET on Windows), widened.
void PrepareListeningSocket(uint64_t socket);

}  // namespace veltrano::platform
