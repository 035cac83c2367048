// A line that shows the progress of a transfer:
// `report.pdf  [=====>    ]  52 %  5.2 MB of 10.0 MB  2.4 MB/s  2 s left`.
//
// Thread: any; each bar one at a time. Failure: none. Without a terminal nothing is shown.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

namespace tolk::tool {

// The line, at most `columns` wide. If there is too little room, the bar and the name are left out
// first. A rate of 0 is not known.
std::string progress_line(std::string_view name, std::uint64_t done, std::uint64_t total,
                          double bytes_per_second, int columns);

// `1 byte`, `512 bytes`, `5.2 MB`; a MB is a million bytes.
std::string size_text(std::uint64_t bytes);

class ProgressBar {
 public:
  explicit ProgressBar(std::string name) : name_(std::move(name)) {}

  // Updates the line ten times a second at most, and always when the transfer is complete.
  void show(std::uint64_t done, std::uint64_t total);

 private:
  using Time = std::chrono::steady_clock::time_point;

  double rate(std::uint64_t done, Time now);

  const std::string name_;
  Time next_;
  std::deque<std::pair<Time, std::uint64_t>> seen_;  // of the last seconds
};

}  // namespace tolk::tool
