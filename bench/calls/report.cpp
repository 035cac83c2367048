#include "bench/calls/report.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

namespace bench {
namespace {

struct Figure {
  const char* key;
  const char* title;
  double (*of)(const Sample& sample);
};

constexpr Figure kFigures[] = {
    {"calls_per_s", "calls/s", [](const Sample& s) { return s.calls / s.seconds; }},
    {"p50_us", "p50 us", [](const Sample& s) { return s.p50_us; }},
    {"p99_us", "p99 us", [](const Sample& s) { return s.p99_us; }},
    {"caller_cpu_us_per_call", "cpu here",
     [](const Sample& s) { return s.caller.processor_us / s.calls; }},
    {"peer_cpu_us_per_call", "cpu peer",
     [](const Sample& s) { return s.peer.processor_us / s.calls; }},
    {"caller_switches_per_call", "sw here",
     [](const Sample& s) { return s.caller.switches / s.calls; }},
    {"peer_switches_per_call", "sw peer",
     [](const Sample& s) { return s.peer.switches / s.calls; }},
};

constexpr std::size_t kRate = 0;
constexpr std::size_t kMedianTime = 1;

std::vector<double> values(const Line& line, const Figure& figure) {
  std::vector<double> all;
  for (const Sample& sample : line.runs) all.push_back(figure.of(sample));
  return all;
}

// 0 where the baseline has nothing to compare with.
double ratio(const Line& line, const Line& baseline, const Figure& figure) {
  const std::vector<double> mine = values(line, figure);
  const std::vector<double> theirs = values(baseline, figure);
  std::vector<double> ratios;
  for (std::size_t i = 0; i < mine.size() && i < theirs.size(); ++i) {
    if (theirs[i] > 0) ratios.push_back(mine[i] / theirs[i]);
  }
  return median(std::move(ratios));
}

double megabytes_per_second(const Result& result, const Line& line) {
  return median(values(line, kFigures[kRate])) * result.bytes_each / 1e6;
}

void print_head(std::FILE* out, const Result& result) {
  fmt::print(out, "\n{}: {}\n{:<28}", name_of(result.transport), result.title, "");
  for (const Figure& figure : kFigures) fmt::print(out, "{:>11}", figure.title);
  if (result.bytes_each > 0) fmt::print(out, "{:>11}", "MB/s");
  fmt::print(out, "\n");
}

void print_figures(std::FILE* out, const Result& result, const Line& line) {
  fmt::print(out, "{:<28}", line.contestant);
  for (const Figure& figure : kFigures) fmt::print(out, "{:>11.1f}", median(values(line, figure)));
  if (result.bytes_each > 0) fmt::print(out, "{:>11.1f}", megabytes_per_second(result, line));
  fmt::print(out, "\n");
}

void print_ratios(std::FILE* out, const Result& result, const Line& line, const Line& baseline) {
  fmt::print(out, "{:<28}", "  to " + baseline.contestant);
  for (const Figure& figure : kFigures)
    fmt::print(out, "{:>10.2f}x", ratio(line, baseline, figure));
  if (result.bytes_each > 0) fmt::print(out, "{:>10.2f}x", ratio(line, baseline, kFigures[kRate]));
  fmt::print(out, "\n");
}

void print_rounds(std::FILE* out, const Line& line, const Figure& figure) {
  fmt::print(out, "{:<28}", fmt::format("  {}, {}", line.contestant, figure.title));
  for (const double value : values(line, figure)) fmt::print(out, " {:.1f}", value);
  fmt::print(out, "\n");
}

std::string processor_name() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(": ");
    if (line.starts_with("model name") && colon != std::string::npos) {
      return line.substr(colon + 2);
    }
  }
  return "unknown processor";
}

const char* compiler() {
#if defined(__clang__)
  return "clang " __clang_version__;
#else
  return "gcc " __VERSION__;
#endif
}

nlohmann::json json_of(const Result& result, const Line& line) {
  nlohmann::json out = {{"name", line.contestant}, {"baseline", line.is_baseline}};
  for (const Figure& figure : kFigures) {
    out["runs"][figure.key] = values(line, figure);
    for (const Line& other : result.lines) {
      if (!other.is_baseline || &other == &line) continue;
      out["ratio_to"][other.contestant][figure.key] = ratio(line, other, figure);
    }
  }
  return out;
}

}  // namespace

std::string machine_line() {
  utsname system{};
  uname(&system);
  return fmt::format("{}, {} cores, {} {}, {}, {}", processor_name(),
                     std::thread::hardware_concurrency(), system.sysname, system.release,
                     compiler(), TOLK_BENCH_BUILD_TYPE);
}

void print_table(std::FILE* out, const Result& result) {
  print_head(out, result);
  for (const Line& line : result.lines) {
    print_figures(out, result, line);
    for (const Line& baseline : result.lines) {
      if (baseline.is_baseline && &baseline != &line) print_ratios(out, result, line, baseline);
    }
  }
  fmt::print(out, "every round:\n");
  for (const Line& line : result.lines) {
    print_rounds(out, line, kFigures[kRate]);
    print_rounds(out, line, kFigures[kMedianTime]);
  }
  std::fflush(out);
}

void write_json(const std::string& path, const Plan& plan, const std::vector<Result>& results) {
  nlohmann::json document = {{"machine", machine_line()},
                             {"rounds", plan.rounds},
                             {"turn_ms", plan.turn.count()},
                             {"results", nlohmann::json::array()}};
  for (const Result& result : results) {
    nlohmann::json one = {{"transport", name_of(result.transport)}, {"title", result.title}};
    for (const Line& line : result.lines) one["contestants"].push_back(json_of(result, line));
    document["results"].push_back(std::move(one));
  }
  std::ofstream file(path);
  file << document.dump(2) << '\n';
  if (!file.flush()) throw std::runtime_error("can't write " + path);
}

double wrong_answers(const Result& result) {
  double wrong = 0;
  for (const Line& line : result.lines) {
    for (const Sample& sample : line.runs) wrong += sample.wrong;
  }
  return wrong;
}

}  // namespace bench
