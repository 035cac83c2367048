// SIGINT, SIGTERM and SIGHUP, on Windows Ctrl-C, Ctrl-Break and the end of the console: what
// happens when somebody wants the command to end.
//
// A command that only calls ends at once, with exit code 130: the system ends its connections. One
// that serves, or has a summary to print, says that it ends by itself, and is then asked.
// Thread: any. Failure: none. Owner: a thread of its own, which takes the signals.
#pragma once

#include <chrono>

namespace tolk::tool {

// Before any other thread is made: they inherit who takes the signals.
void take_signals();

// For what takes them: whether the command ends by itself now.
bool note_interrupt();

// From now on a signal only makes `wait_for_end` return; a second one ends the process.
void end_by_itself();

// Ends the waiting without a signal: there is nothing to wait for any more.
void ask_to_end();

// Whether the end is wanted.
bool end_is_wanted();
// Whether a signal was what asked for it.
bool was_interrupted();

// Waits until the end is wanted; `false` when that did not happen within `pause`.
bool wait_for_end(std::chrono::milliseconds pause);
void wait_for_end();

}  // namespace tolk::tool
