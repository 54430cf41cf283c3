// Ctrl-C and SIGTERM during a conversion: the handler only records the signal; the write and
// progress callbacks and every read loop look at the record, stop the conversion, and the
// command removes its partial outputs before it ends with 128 + the signal's number.
#pragma once

namespace kavocli {

// Installs the handlers for SIGINT and SIGTERM (SIGINT alone where there is no SIGTERM).
void install_interrupt_handlers();

// The signal received so far, 0 when none.
int interrupt_signal();

inline bool interrupted() {
    return interrupt_signal() != 0;
}

// Ends the process as the received signal would have: with its default action where signals
// can be raised again, so that a calling shell sees the interrupt, else with 128 + its number.
[[noreturn]] void end_interrupted();

// With SIGINT and SIGTERM blocked while a thread is started, the thread never receives them
// and the handler runs on the main thread (where a blocking read then returns early).
void block_interrupts(bool blocked);

}  // namespace kavocli
