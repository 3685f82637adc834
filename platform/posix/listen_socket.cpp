#include "platform/listen_socket.h"

#include <sys/socket.h>

namespace veltrano::platform {

void PrepareListeningSocket(uint64_t socket) {
    const int yes = 1;
    setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

}  // namespace veltrano::platform
