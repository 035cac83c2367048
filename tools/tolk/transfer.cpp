#include "tools/tolk/command.h"

namespace tolk::tool {

void add_send(CLI::App&, Options&) {}
void add_receive(CLI::App&, Options&) {}

}  // namespace tolk::tool
