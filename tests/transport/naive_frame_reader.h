// A second, naive reader of frames: every step as plainly as it can be put, for comparison.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tolk::test {

class NaiveFrameReader {
 public:
  // The payloads that this read completes.
  std::vector<std::string> feed(std::string_view read) {
    std::vector<std::string> payloads;
    const auto read_bytes = static_cast<std::int64_t>(read.size());
    if (read_bytes >= 4 && length_of(read) == read_bytes - 4) {
      payloads.emplace_back(read.substr(4));
      return payloads;
    }
    waiting_ += read;
    while (waiting_.size() >= 4) {
      const std::int64_t length = length_of(waiting_);
      const std::int64_t rest = static_cast<std::int64_t>(waiting_.size()) - 4;
      if (length > rest) break;
      payloads.push_back(length < 0 ? "" : waiting_.substr(4, static_cast<std::size_t>(length)));
      erase_front(length + 4);
    }
    return payloads;
  }

  std::size_t waiting_bytes() const { return waiting_.size(); }

 private:
  static std::int64_t length_of(std::string_view bytes) {
    std::int64_t length = 0;
    for (int i = 3; i >= 0; --i) {
      length = length * 256 + static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]);
    }
    return length < std::int64_t{1} << 31 ? length : length - (std::int64_t{1} << 32);
  }

  // A frame that covers nothing would come again forever: with it, all that waits is dropped.
  void erase_front(std::int64_t count) {
    if (count <= 0) count = static_cast<std::int64_t>(waiting_.size());
    waiting_.erase(0, static_cast<std::size_t>(count));
  }

  std::string waiting_;
};

}  // namespace tolk::test
