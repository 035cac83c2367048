#include <windows.h>

#include "tools/tolk/interrupt.h"
#include "tools/tolk/output.h"

namespace tolk::tool {
namespace {

// On a thread of the system's.
BOOL WINAPI take(DWORD event) {
  if (!note_interrupt()) Output::get().leave(Exit::interrupted);
  // When its console closes, the process lives as long as this does not return, and some seconds at
  // most.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

}  // namespace

void take_signals() { SetConsoleCtrlHandler(take, TRUE); }

}  // namespace tolk::tool
