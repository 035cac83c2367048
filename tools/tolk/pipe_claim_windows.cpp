#include <string>

#include "tools/tolk/pipe_claim.h"

namespace tolk::tool {

std::string pipe_path(int number) { return R"(\\?\pipe\echo.sock.)" + std::to_string(number); }

// The system itself refuses a second server of a name, and forgets the name with its last handle.
PipeClaim::PipeClaim(int number) : path_(pipe_path(number)) {}
PipeClaim::~PipeClaim() = default;

// By default only the user that made a pipe may write to it.
void PipeClaim::close_to_others() const {}

}  // namespace tolk::tool
