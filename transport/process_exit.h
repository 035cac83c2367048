// Who is inside a handler, and what happens when the process exits.
//
// libuv waits for its workers when a process exits: a handler that waits for a reply at that time
// would keep the process from ending. So the waits of handlers end when the exit begins.
// Thread: any. Owner: none. Failure: none.
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

// Work for the beginning of the exit. Static objects only.
class AtProcessExit {
 public:
  // Work of one process is not done in a forked child, not even in one that has sessions of its
  // own: threads of the parent may have left its locks taken.
  enum class In { one_process, every_process };

  explicit AtProcessExit(void (*work)(), In in = In::one_process) noexcept;
  AtProcessExit(const AtProcessExit&) = delete;
  AtProcessExit& operator=(const AtProcessExit&) = delete;

 private:
  friend void note_process_exit();
  friend void install_exit_handler();

  static void run_all(bool in_child);

  void (*const work_)();
  const In in_;
  const AtProcessExit* const next_;
};

// Installs the library's only exit handler, once in a process. Every session calls it when it is
// made, also one that a host thread runs: no memory is needed for it later.
void install_exit_handler();

// True from the beginning of the exit.
bool process_exits();

// The beginning of the exit: runs all registered work.
void note_process_exit();

}  // namespace tolk
