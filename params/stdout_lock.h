// The process-wide lock of everything that the library writes to standard output.
//
// Thread: any. A leaf: nothing else is locked, and nothing of the host's runs, while it is held
// (but for a stream buffer that the host installed). Lifetime: from before the first static
// initialiser until after the last destructor. Failure: none.
#pragma once

#include <mutex>

namespace tolk {

std::mutex& stdout_mutex();

}  // namespace tolk
