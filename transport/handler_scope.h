// Who is inside a handler, and whether the process exits.
//
// When a process exits, libuv waits for its workers: a handler that waits for an answer then would
// keep the process from ending. So the waits of handlers end when the exit begins.
// Thread: any.
#pragma once

namespace tolk {

// While alive, the calling worker is inside a handler.
class HandlerScope {
 public:
  HandlerScope();
  ~HandlerScope();
  HandlerScope(const HandlerScope&) = delete;
  HandlerScope& operator=(const HandlerScope&) = delete;

  // Whether the calling thread is.
  static bool inside();
};

// From the first exit handler on.
bool process_exits();
void note_process_exit();

}  // namespace tolk
