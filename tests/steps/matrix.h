// What a program of a matrix plays: cells with a name, each in a process of its own.
// Thread: one round of one cell at a time in a process. Failure: a report's trouble.
#pragma once

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

struct Report {
  std::string trouble;  // empty when all was well
  // The latest return of a caller behind the moment at which it had to return, less the documented
  // allowance for the sweep.
  Milliseconds latest{};
};

using PlayRound = std::function<Report(std::mt19937& random)>;

struct MatrixCell {
  std::string name;
  // Makes what all rounds of the cell have in common.
  std::function<PlayRound()> begin;
};

// Of the program.
std::vector<MatrixCell> matrix_cells();

}  // namespace tolk::test
