// A server for the command to speak to, in the test's process.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <tolk/tolk.hpp>
#include <vector>

#include "tests/e2e/support/waiting.h"
#include "tests/layer/joined.h"
#include "tests/tool/process.h"

namespace tolk::test {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

// With the methods that the examples of --help call.
inline void add_methods(Server& server) {
  server.on(
      "add", [](int a, int b) { return a + b; }, "the sum of two numbers");
  server.on("echo", [](const Values& all) { return all; });
  server.on("log", [](named<"level", int> level, named<"text", std::string> text) {
    return std::to_string(level.value) + " " + text.value;
  });
  server.on("sum", [](const std::vector<int>& all) {
    int sum = 0;
    for (const int each : all) sum += each;
    return sum;
  });
  server.on("upload", [](const tolk::bytes& data) { return static_cast<int>(data.size()); });
  server.on(
      "store", [](const tolk::bytes& data, std::optional<int> year,
                  named<"draft", std::optional<bool>> draft, named<"name", std::string> name) {
        return name.value + " " + std::to_string(data.size()) + " " +
               std::to_string(year.value_or(0)) + (draft.value.value_or(false) ? " draft" : "");
      });
  server.on("download", [](const std::string& name) {
    const std::string text = "what is in " + name;
    return std::pair(name, from_bytes(tolk::bytes(
                               reinterpret_cast<const std::byte*>(text.data()),
                               reinterpret_cast<const std::byte*>(text.data()) + text.size())));
  });
  server.on("nothing", [] {});
  server.on("fail", []() -> int { throw std::runtime_error("the disk is full"); });
}

class ServedTest : public testing::Test {
 protected:
  ServedTest() {
    add_methods(server);
    server.on("slow", [this] {
      slow_begun.add();
      while (!slow_may_end) std::this_thread::sleep_for(5ms);
    });
    server.listen(fresh());
    at = server.address();
  }
  ~ServedTest() override { slow_may_end = true; }

  // What a call prints.
  Ended call(std::vector<std::string> words, const Given& given = {}) const {
    words.insert(words.begin(), {"call", at});
    return tolk_command(std::move(words), given);
  }

  Counter slow_begun;
  std::atomic<bool> slow_may_end{false};
  Server server;  // its end waits for handlers, which use the others
  std::string at;
};

}  // namespace tolk::test
