#include "tools/tolk/system/interrupt.h"

#include <condition_variable>
#include <mutex>

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
  static auto* const kState = new State;  // never destroyed: the signal thread uses it
  return *kState;
}

}  // namespace

bool note_interrupt() {
  State& now = state();
  const std::lock_guard<std::mutex> lock(now.mutex);
  if (!now.by_itself || now.interrupted) return false;
  now.interrupted = true;
  now.wanted = true;
  now.changed.notify_all();
  return true;
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
