#include "tools/tolk/command.h"

namespace tolk::tool {

void add_dump(CLI::App&, Options&) {}

}  // namespace tolk::tool
