#include <signal.h>

#include <thread>

#include "tools/tolk/interrupt.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

void take_each(const sigset_t& signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) == 0) {
    if (!note_interrupt()) Output::get().leave(Exit::interrupted);
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

}  // namespace tolk::tool
