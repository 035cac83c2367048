#include <signal.h>

#include <thread>

#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

void receive_signals(const sigset_t& signals) {
  int signal = 0;
  while (sigwait(&signals, &signal) == 0) {
    if (!note_interrupt()) Output::get().leave(Exit::interrupted);
  }
}

}  // namespace

void take_signals() {
  // A write to a closed pipe then is an error and does not end the process.
  (void)signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGINT, SIGTERM}) sigaddset(&signals, each);
  struct sigaction hang_up {};
  sigaction(SIGHUP, nullptr, &hang_up);  // under nohup it stays ignored
  if (hang_up.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([signals] { receive_signals(signals); }).detach();
}

}  // namespace tolk::tool
