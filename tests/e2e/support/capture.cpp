#include "tests/e2e/support/capture.h"

#include <algorithm>
#include <sstream>

#include "tests/e2e/support/capture_buffer.h"

namespace tolk::test {

CaptureBuffer& CaptureBuffer::instance() {
  static auto* const buffer = new CaptureBuffer;  // loop threads may write until the very end
  return *buffer;
}

void CaptureBuffer::collect(bool on) {
  const std::lock_guard<std::mutex> lock(mutex_);
  collecting_ = on;
  text_.clear();
}

void CaptureBuffer::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  text_.clear();
}

std::string CaptureBuffer::text() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return text_;
}

std::streamsize CaptureBuffer::xsputn(const char* data, std::streamsize count) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (collecting_) text_.append(data, static_cast<std::size_t>(count));
  return count;
}

CaptureBuffer::int_type CaptureBuffer::overflow(int_type character) {
  const char byte = traits_type::to_char_type(character);
  if (!traits_type::eq_int_type(character, traits_type::eof())) xsputn(&byte, 1);
  return traits_type::not_eof(character);
}

Capture::Capture() { CaptureBuffer::instance().collect(true); }
Capture::~Capture() { CaptureBuffer::instance().collect(false); }

std::string Capture::text() const { return CaptureBuffer::instance().text(); }

std::vector<std::string> Capture::lines() const {
  std::istringstream in(text());
  std::vector<std::string> all;
  for (std::string line; std::getline(in, line);) all.push_back(line);
  return all;
}

void Capture::clear() { CaptureBuffer::instance().clear(); }

int Capture::count(std::string_view line) const {
  const auto all = lines();
  return static_cast<int>(std::count(all.begin(), all.end(), line));
}

bool Capture::wait_for_line(std::string_view line, Milliseconds limit) const {
  return wait_for_lines(line, 1, limit);
}

bool Capture::wait_for_lines(std::string_view line, int times, Milliseconds limit) const {
  return eventually([&] { return count(line) >= times; }, limit);
}

bool Capture::wait_for_text(std::string_view wanted, Milliseconds limit) const {
  return eventually([&] { return text() == wanted; }, limit);
}

std::string Capture::line_starting(std::string_view start, Milliseconds limit) const {
  std::string found;
  eventually(
      [&] {
        for (const std::string& line : lines()) {
          if (line.starts_with(start)) found = line;
          if (!found.empty()) return true;
        }
        return false;
      },
      limit);
  return found;
}

}  // namespace tolk::test
