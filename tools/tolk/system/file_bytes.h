// The bytes of a file that the command line names.
//
// Thread: any. Failure: a Failure that names the file.
#pragma once

#include <string>

namespace tolk::tool {

// The name of standard input where a file is expected.
inline constexpr const char* kStandardInput = "-";

// The name for people.
std::string shown_file(const std::string& name);

std::string file_bytes(const std::string& name);

}  // namespace tolk::tool
