#include "platform/listen_socket.h"

#include <winsock2.h>

namespace veltrano::platform {

void PrepareListeningSocket(uint64_t socket) {
    const BOOL yes = TRUE;
    setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
               reinterpret_cast<const char*>(&yes), sizeof yes);
}

}  // namespace veltrano::platform
