#include "platform/interrupt.h"

#include <signal.h>

namespace veltrano::platform {

InterruptHandler SetInterruptHandler(InterruptHandler handler) {
    // The same as glibc's signal(): the handler stays installed after it has run, and a read
    // that Ctrl-C interrupts is restarted rather than failing with EINTR.
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    struct sigaction previous = {};
    if (::sigaction(SIGINT, &action, &previous) != 0) {
        return DefaultInterrupt();
    }
    return previous.sa_handler;
}

InterruptHandler DefaultInterrupt() { return SIG_DFL; }

}  // namespace veltrano::platform
