// A program that a test runs beside itself and talks to over its standard input and output.
//
// Thread: one at a time. Owner: the test; the program is killed with it.
// Failure: of a start as a test failure; nothing where nothing came in time, or it has ended.
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
