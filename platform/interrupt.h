// Ctrl-C: what happens when the user interrupts the program from its terminal.
//
// SetInterruptHandler(handler) makes Ctrl-C (SIGINT) call handler instead of ending the program
// and returns the handler it replaces, to be put back later; DefaultInterrupt() puts back the
// system's own action, which ends the program. A handler runs in signal context: it may only
// store to a lock-free atomic. POSIX sigaction (with SA_RESTART, so a read in progress goes on),
// Win32 the C runtime's signal().
#pragma once

namespace veltrano::platform {

using InterruptHandler = void (*)(int);

InterruptHandler SetInterruptHandler(InterruptHandler handler);

// The system's own action, as a handler that SetInterruptHandler accepts.
InterruptHandler DefaultInterrupt();

// The same for a polite request to end the process (SIGTERM: `kill`, a service manager); the
// same rules for the handler, and DefaultInterrupt() puts back the system's action here too.
InterruptHandler SetTerminationHandler(InterruptHandler handler);

}  // namespace veltrano::platform
