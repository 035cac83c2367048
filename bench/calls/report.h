// How results are shown: tables for people, one JSON document for programs.
//
// Thread: one at a time. Failure: std::runtime_error when the file can't be written.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "bench/calls/scenarios.h"

namespace bench {

// Processor, kernel, compiler and kind of build, in one line.
std::string machine_line();

// The figures of each contestant (medians over the rounds), under them their ratios to each
// baseline (medians of the ratios within each round), then every round on its own.
void print_table(std::FILE* out, const Result& result);

void write_json(const std::string& path, const Plan& plan, const std::vector<Result>& results);

// Exchanges without the right answer.
double wrong_answers(const Result& result);

}  // namespace bench
