#include "platform/interrupt.h"

#include <signal.h>

namespace veltrano::platform {

namespace {

// The same as glibc's signal(): the handler stays installed after it has run, and a read that
// the signal interrupts is restarted rather than failing with EINTR.
InterruptHandler SetHandler(int signal, InterruptHandler handler) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    struct sigaction previous = {};
    if (::sigaction(signal, &action, &previous) != 0) {
        return SIG_DFL;
    }
    return previous.sa_handler;
}

}  // namespace

InterruptHandler SetInterruptHandler(InterruptHandler handler) {
    return SetHandler(SIGINT, handler);
}

InterruptHandler SetTerminationHandler(InterruptHandler handler) {
    return SetHandler(SIGTERM, handler);
}

InterruptHandler DefaultInterrupt() { return SIG_DFL; }

}  // namespace veltrano::platform
