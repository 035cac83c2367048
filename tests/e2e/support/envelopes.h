// Envelopes of every shape: each of the four keys absent, with a value of each type, and in places
// where it is ignored; and how the receiver must read each.
#pragma once

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/e2e/support/raw_block.h"
#include "tests/e2e/support/system.h"

namespace tolk::test {

inline constexpr const char* kName = "s_c_sw_name";
inline constexpr const char* kCallId = "s_c_sw_threadid";
inline constexpr const char* kArguments = "s_c_sw_data";
inline constexpr const char* kToken = "s_c_sw_semid";

// One key of a message and its value.
struct Field {
  std::string shown;             // for messages
  std::optional<Scalar> value;   // std::nullopt if absent or `forgotten`
  bool forgotten = false;        // a list follows the key in place of a value
  std::optional<Scalar> before;  // an earlier value of the key, which is ignored
};

struct Envelope {
  Field name;
  Field call_id;
  Field arguments;
  Field token;

  // The message, with its keys in one of their 24 orders.
  std::string payload(std::size_t order) const;
  std::string shown() const;

  // The receiver's reading, by the rules of the format.
  std::optional<std::string> read_name() const;  // "" for a value that is not a text
  std::optional<int> read_call_id() const;       // 0 for a value that is not a number
  std::string read_argument() const;             // the first of the arguments, if it is a string
  std::optional<std::string> read_token() const;
};

// The forms of each key. Names are "echo", "nobody", "retval" and two of the library.
const std::vector<Field>& names();
const std::vector<Field>& call_ids();
const std::vector<Field>& arguments();
const std::vector<Field>& tokens();

// Each n-th combination is used: all of them, but on Windows a sample that contains each form of
// each key, since an exchange takes many times longer under Wine.
inline constexpr std::size_t kEnvelopeStride = kOnWindows ? 37 : 1;

// Calls `visit(envelope, number)` with every combination.
template <class Visit>
void for_every_envelope(const Field& name, const Visit& visit) {
  std::size_t number = 0;
  for (const Field& call_id : call_ids()) {
    for (const Field& argument : arguments()) {
      for (const Field& token : tokens()) {
        if (number % kEnvelopeStride == 0) visit(Envelope{name, call_id, argument, token}, number);
        ++number;
      }
    }
  }
}

// Any envelope, mostly damaged: keys missing, doubled, misspelt, bytes changed, the end cut off.
std::string random_message(std::mt19937& random);

// A different one in each run unless --gtest_random_seed is given.
unsigned test_seed();

}  // namespace tolk::test
