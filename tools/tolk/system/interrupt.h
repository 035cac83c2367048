// Requests that the command ends: SIGINT, SIGTERM and SIGHUP; on Windows Ctrl-C, Ctrl-Break and the
// closing of the console.
//
// A subcommand that only calls a server ends at once, with exit code 130; the system closes its
// connections. A subcommand that serves, or prints a summary, calls `end_by_itself` and then waits
// for the request.
// Thread: any. Owner: a thread of its own receives the signals. Failure: none.
#pragma once

#include <chrono>

namespace tolk::tool {

// Call it before any other thread is made: threads inherit which signals are blocked.
void take_signals();

// Called for each signal. Whether the command ends by itself now; otherwise the process must end.
bool note_interrupt();

// From now on the first signal only makes `wait_for_end` return; a second one ends the process.
void end_by_itself();

// Makes `wait_for_end` return without a signal, because nothing is left to wait for.
void ask_to_end();

// Whether the command was asked to end.
bool end_is_wanted();
// Whether a signal asked for it.
bool was_interrupted();

// Waits until the command is asked to end; `false` when that does not happen within `pause`.
bool wait_for_end(std::chrono::milliseconds pause);
void wait_for_end();

}  // namespace tolk::tool
