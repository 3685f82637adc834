#include "platform/interrupt.h"

#include <csignal>

namespace veltrano::platform {

// The C runtime turns the console's Ctrl-C event into SIGINT and calls the handler on a thread of
// its own; it resets the handler to the default action before calling it.
InterruptHandler SetInterruptHandler(InterruptHandler handler) {
    const InterruptHandler previous = std::signal(SIGINT, handler);
    return previous == SIG_ERR ? DefaultInterrupt() : previous;
}

// The C runtime raises SIGTERM only when the program raises it itself; closing the console
// arrives as another event. Kept for the same code on both systems.
InterruptHandler SetTerminationHandler(InterruptHandler handler) {
    const InterruptHandler previous = std::signal(SIGTERM, handler);
    return previous == SIG_ERR ? DefaultInterrupt() : previous;
}

InterruptHandler DefaultInterrupt() { return SIG_DFL; }

}  // namespace veltrano::platform
