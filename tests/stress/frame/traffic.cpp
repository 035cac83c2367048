#include "tests/stress/frame/traffic.h"

#include <algorithm>
#include <cmath>

namespace tolk::stress {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTrafficPatienceMs = 20000;
constexpr int kFewest = 10;

TolkValue* value_at(TolkParams* block, int position) {
  return block == nullptr ? nullptr : block->GetValue(position);
}

std::string text_in(TolkParams* block) {
  TolkValue* const value = value_at(block, 1);
  if (value == nullptr || !value->IsStream()) return {};
  long size = 0;
  const char* const bytes = value->GetStream(size);
  return {bytes, static_cast<std::size_t>(size)};
}

std::string text_for(int number, std::size_t bytes) {
  std::string text(bytes, '\0');
  auto state = static_cast<std::uint32_t>(number);
  for (char& byte : text) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return text;
}

}  // namespace

Question::Question(int number, std::size_t bytes)
    : number_(number), text_(text_for(number, bytes)) {
  arguments_.AddInt(number_);
  if (!text_.empty()) arguments_.AddStream(text_.data(), static_cast<long>(text_.size()));
}

bool Question::is_answered_by(TolkParams* reply) const {
  return number_in(reply) == number_ && text_in(reply) == text_;
}

void answer_question(TolkParams* in, TolkParams* out) {
  if (in == nullptr || out == nullptr || number_in(in) < 0) return;
  out->AddInt(number_in(in));
  const std::string text = text_in(in);
  if (!text.empty()) out->AddStream(text.data(), static_cast<long>(text.size()));
}

int number_in(TolkParams* block) {
  TolkValue* const value = value_at(block, 0);
  return value != nullptr && value->IsInt() ? value->GetInt() : -1;
}

void Latencies::add_all(const Latencies& others) {
  all_.insert(all_.end(), others.all_.begin(), others.all_.end());
}

double Latencies::percentile_us(double percent) {
  if (all_.empty()) return 0;
  const auto last = static_cast<double>(all_.size() - 1);
  const auto at = static_cast<std::ptrdiff_t>(std::lround(last * percent / 100));
  std::nth_element(all_.begin(), all_.begin() + at, all_.end());
  return all_[static_cast<std::size_t>(at)];
}

Bystander::Bystander(Run& run, const test::Address& address, int call_id)
    : run_(run), call_id_(call_id) {
  run_.expect(test::connect_client(client_.get(), address), "a bystander could not connect");
}

Bystander::~Bystander() = default;

bool Bystander::call(Latencies* latencies) {
  Question question(++number_, 64);
  const auto begin = Clock::now();
  TolkParams* const reply =
      client_->SendMsgFast("echo", question.arguments(), call_id_, kTrafficPatienceMs);
  const std::chrono::duration<double, std::micro> took = Clock::now() - begin;
  if (latencies != nullptr) latencies->add(took.count());
  return run_.expect(question.is_answered_by(reply), "a bystander's call ", number_,
                     reply == nullptr ? " got nothing" : " got a wrong answer", " after ",
                     took.count() / 1000, " ms");
}

template <class Done>
Latencies Bystander::call_while_not(const Done& done) {
  Latencies seen;
  for (int i = 0; i < kFewest || !done(); ++i) {
    if (!call(&seen)) break;
    std::this_thread::sleep_for(Milliseconds(1));
  }
  return seen;
}

Latencies Bystander::call_until(const std::atomic<bool>& done) {
  return call_while_not([&] { return done.load(); });
}

Latencies Bystander::call_for(std::chrono::milliseconds time) {
  const Stopwatch clock;
  return call_while_not([&] { return clock.elapsed() >= time; });
}

}  // namespace tolk::stress
