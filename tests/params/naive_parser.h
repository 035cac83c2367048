// A second parser of blocks, to compare the real one with.
//
// It shares no code with the real one and follows the record tables word by word, with sums in
// wrapping signed 32-bit numbers and a guard around every single byte. Slow on purpose. Thread:
// any. Failure: `ok` is false.
#pragma once

#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolk::test {

struct NaiveValue {
  // As text: "int 7", "string 6100"; lists and maps have it in `elements` and `entries`.
  std::string scalar;
  std::vector<std::string> elements;
  std::map<std::string, std::string> entries;
  char kind = 's';  // scalar, list, map
};

class NaiveParser {
 public:
  bool ok = false;
  std::vector<NaiveValue> values;
  std::map<std::string, std::string> keyed;

  explicit NaiveParser(std::string_view input) : buf_(input) {
    try {
      ok = parse();
    } catch (const Outside&) {
      ok = false;
    }
  }

  // One line for each value: what a block with these contents looks like.
  std::string text() const {
    std::string lines = ok ? "true\n" : "false\n";
    for (const NaiveValue& value : values) {
      if (value.kind == 's') lines += value.scalar + "\n";
      if (value.kind == 'l') {
        lines += "list\n";
        for (const std::string& element : value.elements) lines += "  " + element + "\n";
      }
      if (value.kind == 'm') {
        lines += "map\n";
        for (const auto& [key, entry] : value.entries)
          lines += "  " + hexed(key) + "=" + entry + "\n";
      }
    }
    for (const auto& [key, value] : keyed) lines += hexed(key) + "=" + value + "\n";
    return lines;
  }

  static std::string hexed(std::string_view bytes) {
    std::string digits;
    for (const char c : bytes) {
      digits += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
      digits += "0123456789abcdef"[static_cast<unsigned char>(c) & 15];
    }
    return digits;
  }

  static std::string int_text(std::int32_t v) { return "int " + std::to_string(v); }
  static std::string bool_text(bool v) { return v ? "bool 1" : "bool 0"; }
  static std::string double_text(double v) {
    return "double " + std::to_string(std::bit_cast<std::uint64_t>(v));
  }
  static std::string string_text(std::string_view v) { return "string " + hexed(v); }
  static std::string stream_text(std::string_view v) { return "stream " + hexed(v); }

 private:
  struct Outside {};

  unsigned at(std::int64_t offset) const {
    if (offset < 0 || offset >= len()) throw Outside();
    return static_cast<unsigned char>(buf_[static_cast<std::size_t>(offset)]);
  }

  std::uint64_t number(std::int64_t offset, int size) const {
    std::uint64_t word = 0;
    for (int i = 0; i < size; ++i) word += std::uint64_t{at(offset + i)} << (8 * i);
    return word;
  }

  std::int32_t int_at(std::int64_t offset) const {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number(offset, 4)));
  }

  std::string bytes(std::int64_t offset, std::int64_t size) const {
    std::string copy;
    for (std::int64_t i = 0; i < size; ++i) copy += static_cast<char>(at(offset + i));
    return copy;
  }

  std::int64_t len() const { return static_cast<std::int64_t>(buf_.size()); }

  // A sum as a signed 32-bit number, which wraps around.
  static std::int32_t sum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a + b));
  }

  bool check_word(std::int64_t q) {
    if (int_at(q) != static_cast<std::int32_t>(q)) return false;
    off_ = q + 4;
    return true;
  }

  static std::string cut(const std::string& key) { return key.c_str(); }

  bool parse() {
    if (len() < 1) return true;
    for (;;) {
      const unsigned tag = at(off_);
      if (tag > 7) return false;
      if (!record(tag)) return false;
      if (off_ >= len()) return true;
    }
  }

  bool record(unsigned tag) {
    if (tag == 5) return key_and_value();
    if (tag == 6) return list();
    if (tag == 7) return map();
    return scalar(tag, [this](const std::string& value) {
      values.push_back({value, {}, {}, 's'});
    });
  }

  template <class Store>
  bool scalar(unsigned tag, Store store) {
    if (tag == 0) {
      if (sum(off_, 4) > len()) return false;
      store(int_text(int_at(off_ + 1)));
      return check_word(off_ + 5);
    }
    if (tag == 1) {
      if (off_ >= len()) return false;
      store(bool_text(at(off_ + 1) == 0x31));
      return check_word(off_ + 2);
    }
    if (tag == 2) {
      if (sum(off_, 8) > len()) return false;
      store(double_text(std::bit_cast<double>(number(off_ + 1, 8))));
      return check_word(off_ + 9);
    }
    const auto n = static_cast<std::int64_t>(number(off_ + 1, 4));
    if (sum(off_ + 5, n) > len()) return false;
    const std::string data = bytes(off_ + 5, n);
    store(tag == 3 ? string_text(data) : stream_text(data));
    return check_word(off_ + 5 + n);
  }

  // Nothing when the record is malformed.
  std::optional<std::string> key() {
    if (at(off_ + 1) != 3) return {};
    const std::int32_t k = int_at(off_ + 2);
    if (sum(off_, 10) > len()) return {};
    if (k < 0) throw Outside();
    const std::string name = bytes(off_ + 6, k);
    if (!check_word(off_ + 6 + k)) return {};
    return name;
  }

  bool key_and_value() {
    const auto name = key();
    if (!name) return false;
    keyed.erase(cut(*name));
    const unsigned tag = at(off_);
    if (tag > 4) return true;
    const std::string stored = tag <= 2 ? cut(*name) : *name;
    return scalar(tag, [&](const std::string& value) { keyed[stored] = value; });
  }

  bool list() {
    std::int64_t c = int_at(off_ + 1);
    off_ += 5;
    NaiveValue made{"", {}, {}, 'l'};
    while (c > 0) {
      const unsigned tag = at(off_);
      if (tag > 4) {
        c = 1;  // all that remain see this same byte
      } else if (!scalar(tag, [&](const std::string& value) { made.elements.push_back(value); })) {
        return false;
      }
      --c;
    }
    values.push_back(made);
    return true;
  }

  bool map() {
    std::int64_t c = int_at(off_ + 1);
    off_ += 5;
    NaiveValue made{"", {}, {}, 'm'};
    while (c > 0) {
      if (at(off_) != 5) {
        c = 1;  // all that remain see this same byte
      } else if (!map_entry(made)) {
        return false;
      }
      --c;
    }
    values.push_back(made);
    return true;
  }

  bool map_entry(NaiveValue& made) {
    const auto name = key();
    if (!name) return false;
    keyed.erase(cut(*name));
    const unsigned tag = at(off_);
    if (tag > 4) return true;
    return scalar(tag, [&](const std::string& value) { made.entries[cut(*name)] = value; });
  }

  const std::string buf_;
  std::int64_t off_ = 0;
};

}  // namespace tolk::test
