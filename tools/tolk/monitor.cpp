#include "tools/tolk/command.h"

namespace tolk::tool {

void add_monitor(CLI::App&, Options&) {}

}  // namespace tolk::tool
