#include "tools/tolk/command/connect.h"

#include <future>
#include <list>
#include <mutex>
#include <thread>

#include "tools/tolk/text/nearest.h"
#include "tools/tolk/text/output.h"

namespace tolk::tool {
namespace {

// When the command stops waiting for a connection, the attempt goes on in the background until the
// process ends.
struct Connecting {
  explicit Connecting(const tolk::Options& options) : client(options) {}

  Client client;
  std::promise<void> done;
};

Error too_slow(const std::string& address, std::chrono::milliseconds limit) {
  return {Errc::timed_out, "", address,
          "the server did not answer within " + std::to_string(limit.count()) + " ms"};
}

// With a very short timeout the command still waits for the report that nobody listens: otherwise
// the error would speak of a server that does not exist.
constexpr std::chrono::milliseconds kRefusalIsReported{1000};

constexpr char kSilentHint[] =
    "check what listens there, it may not be a server of this library; if it is one, allow more "
    "time with --timeout 30s";

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
  if (late && (limit >= kRefusalIsReported ||
               done.wait_for(kRefusalIsReported - limit) != std::future_status::ready)) {
    throw too_slow(where.text(), limit);
  }
  done.get();
  if (late) throw too_slow(where.text(), limit);
}

}  // namespace

Client& connect_to(const std::string& address, std::string_view method,
                   const CommonOptions& options) {
  static std::mutex mutex;
  static auto* const kept =
      new std::list<Connecting>;  // never destroyed: threads may still connect
  tolk::Options wanted;
  wanted.limit = options.timeout;
  try {
    const Address where(address);
    std::unique_lock<std::mutex> lock(mutex);
    Connecting& attempt = kept->emplace_back(wanted);
    lock.unlock();
    attempt.client.log([](std::string_view line) {
      while (line.ends_with('\n')) line.remove_suffix(1);
      Output::get().detail(line);
    });
    connect_within(attempt, where, options.timeout);
    return attempt.client;
  } catch (const Error& error) {
    if (error.code() != Errc::timed_out) throw failure_of(error, method);
    // The hint for a timeout is about a slow handler, and no handler ran.
    const Failure failure = failure_of(error, method);
    throw Failure(failure.exit, failure.what(), kSilentHint);
  }
}

Failure failure_of_call(Client& client, const Error& error) {
  Failure failure = failure_of(error);
  if (error.code() != Errc::no_such_method) return failure;
  const auto methods = client.describe();
  if (!methods) return failure;
  std::vector<std::string> names;
  for (const MethodInfo& method : *methods) names.push_back(method.name);
  const std::string guess = did_you_mean(error.method(), names);
  if (!guess.empty()) {
    failure.hint = guess + "tolk describe " + client.address() + " shows the methods";
  }
  return failure;
}

Result<std::chrono::nanoseconds> round_trip(Client& client, std::chrono::milliseconds limit) {
  const auto begun = std::chrono::steady_clock::now();
  // The version check is the one method that every server has, whether it uses the C++ layer or
  // not.
  const Result<Values> answer = client.call<Values>("s_c_version", limit);
  if (!answer) return unnamed(answer.error());
  return std::chrono::nanoseconds(std::chrono::steady_clock::now() - begun);
}

}  // namespace tolk::tool
