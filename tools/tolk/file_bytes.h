// The bytes of a file that a command line names.
//
// Thread: any. Failure: a Failure that names the file.
#pragma once

#include <string>

namespace tolk::tool {

// What standard input is called where a file is wanted.
inline constexpr const char* kStandardInput = "-";

std::string file_bytes(const std::string& name);

}  // namespace tolk::tool
