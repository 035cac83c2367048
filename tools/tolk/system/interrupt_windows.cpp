#include <windows.h>

#include "tools/tolk/system/interrupt.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

// The system calls it on a thread of its own.
BOOL WINAPI take(DWORD event) {
  if (!note_interrupt()) Output::get().leave(Exit::interrupted);
  // After its console closes, the process runs until this function returns, and a few seconds at
  // most.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

}  // namespace

void take_signals() { SetConsoleCtrlHandler(take, TRUE); }

}  // namespace tolk::tool
