#include "tools/tolk/command.h"

#include <charconv>
#include <cmath>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <thread>

namespace tolk::tool {
namespace {

Exit exit_of(Errc code) {
  switch (code) {
    case Errc::not_connected:
    case Errc::gone:
      return Exit::cannot_connect;
    case Errc::refused_version:
      return Exit::refused_version;
    case Errc::timed_out:
      return Exit::timed_out;
    case Errc::no_such_method:
      return Exit::no_such_method;
    case Errc::handler_failed:
    case Errc::wrong_arguments:
      return Exit::handler_failed;
    case Errc::bad_address:
      return Exit::usage;
    default:
      return Exit::failed;
  }
}

// What to try on a command line, where the layer's own hint is for programs.
std::string hint_of(const Error& error) {
  const std::string& address = error.address();
  switch (error.code()) {
    case Errc::not_connected:
      // Those of other users and other machines are not for `tolk list`.
      return address.starts_with("tcp")
                 ? "start the server first, and look at the address and the port"
                 : "start the server first, as the same user; tolk list shows those that run";
    case Errc::timed_out:
      return "allow more with --timeout 30s, or look what the handler is doing";
    case Errc::no_such_method:
    case Errc::wrong_arguments:
      return "tolk describe " + address + " shows the methods, if the server tells them";
    case Errc::handler_failed:
      return "look at the text, it is the handler's own";
    default:
      return error.hint();
  }
}

const std::map<std::string, double>& units_ms() {
  static const std::map<std::string, double> kUnits = {
      {"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}};
  return kUnits;
}

}  // namespace

Error unnamed(const Error& error) {
  return {error.code(), "", error.address(), error.detail(), error.hint()};
}

Failure failure_of(const Error& error, std::string_view method) {
  if (!error.method().empty() || method.empty()) {
    return {exit_of(error.code()), error.what(), hint_of(error)};
  }
  return failure_of(Error(error.code(), method, error.address(), error.detail(), error.hint()));
}

std::chrono::milliseconds duration_from(const char* option, const std::string& text) {
  if (text == "none") return forever;
  double amount = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, amount);
  const auto unit = units_ms().find(std::string(parsed.ptr, end));
  const bool valid = parsed.ec == std::errc() && unit != units_ms().end() && amount >= 0;
  const double amount_ms = valid ? amount * unit->second : 0;
  constexpr double kMost = 4'000'000'000;  // what a call can wait at most, 46 days
  if (!valid || !(amount_ms < kMost)) {
    throw CLI::ValidationError(option,
                               "\"" + text + "\" is no duration; write 500ms, 2s, 1.5m or none");
  }
  return std::chrono::milliseconds(std::llround(std::ceil(amount_ms)));
}

void add_output_flags(CLI::App& command, Options& options) {
  command.add_flag("-q,--quiet", options.quiet, "Print data and errors, and nothing else");
  command.add_flag("-v,--verbose", options.verbose,
                   "Print more about what happens, and the library's own lines");
  static const std::map<std::string, When> kWhen = {
      {"auto", When::automatic}, {"always", When::always}, {"never", When::never}};
  command
      .add_option_function<std::string>(
          "--color", [&options](const std::string& word) { options.color = kWhen.at(word); },
          "Colours: auto (on a terminal, unless NO_COLOR is set), always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->type_name("WHEN");
}

void add_timeout_flag(CLI::App& command, Options& options) {
  command
      .add_option_function<std::string>(
          "--timeout",
          [&options](const std::string& text) {
            options.timeout = duration_from("--timeout", text);
            options.timeout_given = true;
          },
          "How long to wait for an answer: 500ms, 2s, 1.5m, none; 5s if not given")
      ->type_name("TIME");
}

std::optional<JsonStyle> json_style_from(const std::string& word) {
  if (word == "pretty") return JsonStyle::pretty;
  if (word == "short") return JsonStyle::brief;
  if (word == "off") return JsonStyle::off;
  return std::nullopt;
}

CLI::Option* add_address(CLI::App& command, std::string& address) {
  return command
      .add_option("ADDRESS", address,
                  "pipe:5000, tcp4:127.0.0.1:5000 or tcp6:[::1]:5000;\na bare number is a pipe")
      ->type_name("")
      ->required();
}

void add_json_flag(CLI::App& command, Options& options) {
  command
      .add_option_function<std::string>(
          "--json", [&options](const std::string& word) { options.json = *json_style_from(word); },
          "Print JSON: pretty, or short, which is one line; off is plain text")
      ->check(CLI::IsMember({"pretty", "short", "off"}))
      ->type_name("STYLE");
}

CLI::Validator name_of_method() {
  return {[](const std::string& name) {
            return std::string(name.empty() ? "the name of a method is not empty" : "");
          },
          ""};
}

CLI::Validator count_from_zero() {
  return {[](const std::string& text) {
            int count = 0;
            const char* const end = text.data() + text.size();
            const auto parsed = std::from_chars(text.data(), end, count);
            const bool valid = parsed.ec == std::errc() && parsed.ptr == end && count >= 0;
            return valid ? std::string()
                         : "\"" + text + "\" is no whole number from 0 to 2147483647";
          },
          ""};
}

void add_examples(CLI::App& command, const std::string& lines, const std::string& about) {
  command.footer(about + (about.empty() ? "" : "\n\n") + "Examples:\n" + lines);
}

namespace {

// A connect that is given up goes on in the background, until the process ends.
struct Connecting {
  explicit Connecting(const tolk::Options& options) : client(options) {}

  Client client;
  std::promise<void> done;
};

Error too_slow(const std::string& address, std::chrono::milliseconds limit) {
  return {Errc::timed_out, "", address,
          "the server did not answer within " + std::to_string(limit.count()) + " ms"};
}

// The library takes 300 ms to say that nobody listens. A shorter time-out waits for that too, so
// that it is not told of a server which is not there.
constexpr std::chrono::milliseconds kRefusalIsTold{1000};

constexpr char kSilent[] =
    "look what listens there, it may be no server of this library; if it is, allow more with "
    "--timeout 30s";

void connect_within(Connecting& attempt, const Address& where, std::chrono::milliseconds limit) {
  std::future<void> done = attempt.done.get_future();
  std::thread([&attempt, where] {
    try {
      attempt.client.connect(where);
      attempt.done.set_value();
    } catch (...) {
      attempt.done.set_exception(std::current_exception());
    }
  }).detach();
  const bool late = limit != forever && done.wait_for(limit) != std::future_status::ready;
  if (late && (limit >= kRefusalIsTold ||
               done.wait_for(kRefusalIsTold - limit) != std::future_status::ready)) {
    throw too_slow(where.text(), limit);
  }
  done.get();
  if (late) throw too_slow(where.text(), limit);
}

}  // namespace

Client& connect_to(const std::string& address, std::string_view method, const Options& options) {
  static std::mutex mutex;
  static auto* const kept = new std::list<Connecting>;  // never destroyed, on purpose
  tolk::Options wanted;
  wanted.limit = options.timeout;
  try {
    const Address where(address);
    std::unique_lock<std::mutex> lock(mutex);
    Connecting& attempt = kept->emplace_back(wanted);
    lock.unlock();
    connect_within(attempt, where, options.timeout);
    return attempt.client;
  } catch (const Error& error) {
    if (error.code() != Errc::timed_out) throw failure_of(error, method);
    // It is no method that is slow.
    const Failure failure = failure_of(error, method);
    throw Failure(failure.exit, failure.what(), kSilent);
  }
}

Result<std::chrono::nanoseconds> round_trip(Client& client, std::chrono::milliseconds limit) {
  const auto begun = std::chrono::steady_clock::now();
  // The version check is the one method that every server has, with this layer or without.
  const Result<Values> answer = client.call<Values>("s_c_version", limit);
  if (!answer) return unnamed(answer.error());
  return std::chrono::nanoseconds(std::chrono::steady_clock::now() - begun);
}

}  // namespace tolk::tool
