#include "transport/handler_scope.h"

#include <atomic>

namespace tolk {
namespace {

thread_local int handlers_on_this_thread = 0;
constinit std::atomic<bool> exit_has_begun{false};

}  // namespace

HandlerScope::HandlerScope() { ++handlers_on_this_thread; }

HandlerScope::~HandlerScope() { --handlers_on_this_thread; }

bool HandlerScope::inside() { return handlers_on_this_thread > 0; }

bool process_exits() { return exit_has_begun; }

void note_process_exit() { exit_has_begun = true; }

}  // namespace tolk
