// The options that several subcommands share.
//
// Thread: the main thread fills them in; afterwards any thread may read them. Failure: none.
#pragma once

#include <chrono>

namespace tolk::tool {

enum class JsonStyle { off, brief, pretty };
enum class ColorMode { automatic, always, never };

struct CommonOptions {
  std::chrono::milliseconds timeout{5000};
  bool timeout_given = false;
  JsonStyle json = JsonStyle::off;
  bool quiet = false;
  bool verbose = false;
  ColorMode color = ColorMode::automatic;
};

}  // namespace tolk::tool
