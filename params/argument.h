// Arguments of hosts: safe lengths, and arguments that point into the block itself.
//
// Thread: any; there is no state. Owner: the views borrow from the host until the operation
// returns. Failure: std::bad_alloc from Argument.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace tolk {

// Null and a negative length count as empty.
inline std::string_view bytes_of(const char* data, long len) {
  if (data == nullptr || len <= 0) return {};
  return {data, static_cast<std::size_t>(len)};
}

// The part of `bytes` whose length fits in the 32 bits of a record.
inline std::string_view wire_part(std::string_view bytes) {
  return bytes.substr(0, static_cast<std::uint32_t>(bytes.size()));
}

// An argument of an operation that appends to `buffer`. An argument that points into the buffer is
// copied, since the buffer moves as it grows.
class Argument {
 public:
  Argument(const std::string& buffer, std::string_view bytes) : view_(bytes) {
    if (!lies_inside(buffer, bytes)) return;
    copy_ = std::make_unique<std::string>(bytes);
    view_ = *copy_;
  }
  Argument(const Argument&) = delete;
  Argument& operator=(const Argument&) = delete;

  std::string_view view() const { return view_; }

 private:
  static bool lies_inside(const std::string& buffer, std::string_view bytes) {
    // std::less also orders pointers into different objects.
    const std::less<const char*> before;
    return !before(bytes.data(), buffer.data()) &&
           before(bytes.data(), buffer.data() + buffer.size());
  }

  std::unique_ptr<std::string> copy_;  // rarely there, so that it costs little
  std::string_view view_;
};

}  // namespace tolk
