#include "tools/tolk/interrupt.h"

#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  bool by_itself = false;
  bool wanted = false;
  bool interrupted = false;
};

State& state() {
  static auto* const kState = new State;  // never destroyed: the thread of the signals uses it
  return *kState;
}

// Whether the command ends by itself now.
bool note_signal() {
  State& now = state();
  const std::lock_guard<std::mutex> lock(now.mutex);
  if (!now.by_itself || now.interrupted) return false;
  now.interrupted = true;
  now.wanted = true;
  now.changed.notify_all();
  return true;
}

void take_each(const sigset_t& signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) == 0) {
    if (!note_signal()) Output::get().leave(Exit::interrupted);
  }
}

}  // namespace

void take_signals() {
  // A reader that has gone is an error of the write, and no reason to die.
  (void)signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGINT, SIGTERM}) sigaddset(&signals, each);
  struct sigaction hang_up {};
  sigaction(SIGHUP, nullptr, &hang_up);  // left alone under nohup
  if (hang_up.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals] { take_each(signals); }).detach();
}

void end_by_itself() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().by_itself = true;
}

void ask_to_end() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().wanted = true;
  state().changed.notify_all();
}

bool end_is_wanted() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().wanted;
}

bool was_interrupted() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().interrupted;
}

bool wait_for_end(std::chrono::milliseconds pause) {
  std::unique_lock<std::mutex> lock(state().mutex);
  return state().changed.wait_for(lock, pause, [] { return state().wanted; });
}

void wait_for_end() {
  std::unique_lock<std::mutex> lock(state().mutex);
  state().changed.wait(lock, [] { return state().wanted; });
}

}  // namespace tolk::tool
