// A program that a test starts, and with which it communicates over standard input and output.
//
// Thread: one at a time. Owner: the test; the program is killed with it.
// Failure: a failed start throws or fails the test; no output in time, or its end, is std::nullopt.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

class ChildProgram {
 public:
  ChildProgram(const std::string& program, const std::vector<std::string>& arguments);
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  bool write(const std::string& bytes);
  std::optional<std::string> read_some(Milliseconds limit);

 private:
  struct System;

  const std::unique_ptr<System> system_;
};

}  // namespace tolk::test
