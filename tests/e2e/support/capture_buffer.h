// The stream buffer behind Capture. Only capture.cpp and environment.cpp use it.
// Thread: any; one lock around everything.
#pragma once

#include <mutex>
#include <streambuf>
#include <string>

namespace tolk::test {

class CaptureBuffer final : public std::streambuf {
 public:
  static CaptureBuffer& instance();

  void collect(bool on);  // empties it too
  void clear();
  std::string text();

 private:
  std::streamsize xsputn(const char* data, std::streamsize count) override;
  int_type overflow(int_type character) override;

  std::mutex mutex_;
  bool collecting_ = false;
  std::string text_;
};

}  // namespace tolk::test
