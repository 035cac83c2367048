// A line that shows the progress of a transfer: `report.pdf  [=====>    ]  52 %  5.2 of 10.0 MB`.
//
// Thread: any; each bar one at a time. Failure: none. Without a terminal nothing is shown.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>

namespace tolk::tool {

// The line, at most `columns` wide. If there is too little room, the name is left out first.
std::string progress_line(std::string_view name, std::uint64_t done, std::uint64_t total,
                          int columns);

// `1 byte`, `512 bytes`, `5.2 MB`; a MB is a million bytes.
std::string size_text(std::uint64_t bytes);

class ProgressBar {
 public:
  explicit ProgressBar(std::string name) : name_(std::move(name)) {}

  // Updates the line ten times a second at most, and always when the transfer is complete.
  void show(const Progress& progress);

 private:
  const std::string name_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tolk::tool
