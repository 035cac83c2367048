#include "tests/e2e/support/envelopes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace tolk::test {
namespace {

constexpr std::array kTypes{"int", "bool", "double", "string", "stream"};
constexpr double kReal = 0.1;  // whose first four bytes are not zero

Field with(const Scalar& value) {
  std::string shown = kTypes[value.index()];
  if (const auto* const text = std::get_if<std::string>(&value)) shown += " '" + *text + "'";
  return {shown, value, false, {}};
}

Field absent() { return {"absent", {}, false, {}}; }
Field forgotten() { return {"before a list", {}, true, {}}; }
Field twice(const Scalar& value) {
  Field field = with(value);
  field.shown += ", and before with another type";
  field.before = value.index() == 0 ? Scalar("first") : Scalar(4711);
  return field;
}
Field dropped(const Scalar& value) {
  return {with(value).shown + ", and then before a list", {}, true, value};
}

void write(BlockWriter& block, const char* key, const Field& field) {
  if (field.before) block.keyed(key, *field.before);
  if (field.value) block.keyed(key, *field.value);
  if (field.forgotten) {
    // The key, and then a record that is not a scalar.
    block.lone_key(key).list({1, "two"});
  }
}

std::optional<std::string> text_of(const std::optional<Scalar>& value) {
  if (!value) return std::nullopt;
  if (const auto* const stream = std::get_if<Stream>(&*value)) return stream->bytes;
  const auto* const text = std::get_if<std::string>(&*value);
  return text == nullptr ? std::nullopt : std::optional(*text);
}

std::string a_block() { return BlockWriter().add("ping").bytes(); }

}  // namespace

std::string Envelope::payload(std::size_t order) const {
  std::array<std::pair<const char*, const Field*>, 4> fields{
      {{kName, &name}, {kCallId, &call_id}, {kArguments, &arguments}, {kToken, &token}}};
  for (std::size_t left = fields.size(); left > 1; --left) {
    std::swap(fields[left - 1], fields[order % left]);
    order /= left;
  }
  BlockWriter block;
  for (const auto& [key, field] : fields) write(block, key, *field);
  return block.bytes();
}

std::string Envelope::shown() const {
  return "name " + name.shown + "; call id " + call_id.shown + "; arguments " + arguments.shown +
         "; token " + token.shown;
}

std::optional<std::string> Envelope::read_name() const {
  if (!name.value) return std::nullopt;
  return text_of(name.value).value_or("");
}

std::optional<int> Envelope::read_call_id() const {
  if (!call_id.value) return std::nullopt;
  if (const auto* const integer = std::get_if<int>(&*call_id.value)) return *integer;
  if (const auto* const truth = std::get_if<bool>(&*call_id.value)) return *truth ? 1 : 0;
  const auto* const real = std::get_if<double>(&*call_id.value);
  int number = 0;
  if (real != nullptr) std::memcpy(&number, real, sizeof number);
  return number;
}

std::string Envelope::read_argument() const {
  return text_of(arguments.value) == a_block() ? "ping" : "";
}

std::optional<std::string> Envelope::read_token() const {
  if (!token.value) return std::nullopt;
  const auto* const text = std::get_if<std::string>(&*token.value);
  return text == nullptr ? std::nullopt : std::optional(*text);
}

const std::vector<Field>& names() {
  static const std::vector<Field> all{absent(),
                                      forgotten(),
                                      with(7),
                                      with(true),
                                      with(kReal),
                                      with(""),
                                      with("nobody"),
                                      with("echo"),
                                      with(Stream{"echo"}),
                                      twice("echo"),
                                      dropped("echo"),
                                      with("retval"),
                                      with(Stream{"retval"}),
                                      with("s_c_version"),
                                      with("s_c_req_body")};
  return all;
}

const std::vector<Field>& call_ids() {
  static const std::vector<Field> all{
      absent(),   forgotten(), with(7),   with(std::numeric_limits<int>::min()),
      with(true), with(kReal), with("7"), with(Stream{"\x07"}),
      twice(7)};
  return all;
}

const std::vector<Field>& arguments() {
  static const std::vector<Field> all{absent(),
                                      forgotten(),
                                      with(7),
                                      with(true),
                                      with(kReal),
                                      with(a_block()),
                                      with(Stream{a_block()}),
                                      with(Stream{"\xFF no block"})};
  return all;
}

// None of them is the token of a call: tokens count up from 1.
const std::vector<Field>& tokens() {
  static const std::vector<Field> all{absent(),
                                      forgotten(),
                                      with(7),
                                      with(true),
                                      with(kReal),
                                      with(""),
                                      with("0xfffffffffffffff0"),
                                      with(Stream{"0xfffffffffffffff0"}),
                                      twice("%n 0x"),
                                      dropped("0xfffffffffffffff0")};
  return all;
}

std::string random_message(std::mt19937& random) {
  const auto one_of = [&](const std::vector<Field>& fields) {
    return fields[random() % fields.size()];
  };
  BlockWriter block;
  for (std::size_t left = 1 + random() % 6; left > 0; --left) {
    switch (random() % 6) {
      case 0:
        write(block, kName, one_of(names()));
        break;
      case 1:
        write(block, kCallId, one_of(call_ids()));
        break;
      case 2:
        write(block, kArguments, one_of(arguments()));
        break;
      case 3:
        write(block, kToken, one_of(tokens()));
        break;
      case 4:
        write(block, "s_c_sw_nam", one_of(names()));
        break;
      default:
        block.map({{kName, "echo"}, {kCallId, static_cast<int>(random() % 8)}});
    }
  }
  std::string bytes = block.bytes();
  if (bytes.empty()) return bytes;
  if (random() % 2 == 0) bytes[random() % bytes.size()] = static_cast<char>(random());
  if (random() % 4 == 0) bytes.resize(random() % bytes.size());
  return bytes;
}

unsigned test_seed() {
  constexpr unsigned kMost = 99999;  // what the flag takes
  const auto told = static_cast<unsigned>(GTEST_FLAG_GET(random_seed));
  return told != 0 ? told : 1 + std::random_device{}() % kMost;
}

}  // namespace tolk::test
