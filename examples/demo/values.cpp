#include "values.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>

namespace demo {
namespace {

constexpr std::string_view kStream("\x00\xff\x10", 3);
constexpr std::string_view kKeyedStream("\x01\x00\x02", 3);

std::string number_text(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%g", value);
  return text.data();
}

std::string hex_text(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    std::array<char, 4> two{};
    std::snprintf(two.data(), two.size(), "%02x", static_cast<unsigned char>(byte));
    text += (text.empty() ? "" : " ") + std::string(two.data());
  }
  return text;
}

std::string_view stream_of(const TolkValue& value) {
  long size = 0;
  const char* const data = value.GetStream(size);
  return {data, static_cast<std::size_t>(size)};
}

std::string list_text(const TolkValue& list) {
  std::string text;
  for (const TolkValue* element : *list.GetList()) {
    text += (text.empty() ? "" : ", ") + shown(element);
  }
  return "[" + text + "]";
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string reversed(std::string_view bytes) { return {bytes.rbegin(), bytes.rend()}; }

void add_reversed(const TolkValue& list, ListParams* out) {
  const auto& elements = *list.GetList();
  for (auto at = elements.rbegin(); at != elements.rend(); ++at) {
    const TolkValue& element = **at;
    if (element.IsBool()) out->AddBool(element.GetBool());
    if (element.IsInt()) out->AddInt(element.GetInt());
    if (element.IsDouble()) out->AddDouble(element.GetDouble());
    const std::string_view bytes =
        element.IsString() || element.IsStream() ? stream_of(element) : std::string_view();
    if (element.IsString()) out->AddString(bytes.data(), static_cast<long>(bytes.size()));
    if (element.IsStream()) out->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  }
}

void mirror_positional(const TolkValue& value, TolkParams* out) {
  if (value.IsBool()) out->AddBool(!value.GetBool());
  if (value.IsInt()) out->AddInt(value.GetInt() + 1);
  if (value.IsDouble()) out->AddDouble(value.GetDouble() / 2);
  if (value.IsString()) out->AddString(upper(value.GetString()).c_str());
  if (value.IsStream()) {
    const std::string bytes = reversed(stream_of(value));
    out->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  }
  if (value.IsList()) {
    ListParams* const list = TolkParams::CreateListParams();
    add_reversed(value, list);
    out->AddList(list);
  }
}

void mirror_keyed(const char* key, const TolkValue& value, TolkParams* out) {
  if (value.IsBool()) out->AddKeyValueBool(key, !value.GetBool());
  if (value.IsInt()) out->AddKeyValueInt(key, value.GetInt() + 1);
  if (value.IsDouble()) out->AddKeyValueDouble(key, value.GetDouble() / 2);
  if (value.IsString()) out->AddKeyValueString(key, upper(value.GetString()).c_str());
  if (value.IsStream()) {
    const std::string bytes = reversed(stream_of(value));
    out->AddKeyValueStream(key, bytes.data(), static_cast<long>(bytes.size()));
  }
}

const std::vector<const char*>& keys() {
  static const std::vector<const char*> all{"awake", "age", "size", "name", "data"};
  return all;
}

constexpr std::size_t kPositionalRows = 6;

}  // namespace

std::string shown(const TolkValue* value) {
  if (value == nullptr) return "nothing";
  if (value->IsBool()) return value->GetBool() ? "true" : "false";
  if (value->IsInt()) return std::to_string(value->GetInt());
  if (value->IsDouble()) return number_text(value->GetDouble());
  if (value->IsString()) return '"' + std::string(value->GetString()) + '"';
  if (value->IsStream()) return hex_text(stream_of(*value));
  return value->IsList() ? list_text(*value) : "a value of another kind";
}

std::string shown(const TolkParams* reply) { return reply == nullptr ? "null" : "a reply"; }

std::string value_at(TolkParams* reply, int position) {
  return reply == nullptr ? "no reply" : shown(reply->GetValue(position));
}

std::string value_of(TolkParams* reply, const char* key) {
  return reply == nullptr ? "no reply" : shown(reply->GetMap(key));
}

int int_at(TolkParams* block, int position) {
  const TolkValue* const value = block == nullptr ? nullptr : block->GetValue(position);
  return value != nullptr && value->IsInt() ? value->GetInt() : 0;
}

std::string text_at(TolkParams* block, int position) {
  const TolkValue* const value = block == nullptr ? nullptr : block->GetValue(position);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

void add_values(TolkParams& block) {
  block.AddBool(true);
  block.AddInt(41);
  block.AddDouble(2.5);
  block.AddString("ada");
  block.AddStream(kStream.data(), static_cast<long>(kStream.size()));
  ListParams* const list = TolkParams::CreateListParams();
  list->AddInt(1);
  list->AddString("two", 3);
  list->AddDouble(3.5);
  list->AddBool(true);
  list->AddStream("\x04\x05", 2);
  block.AddList(list);
  block.AddKeyValueBool("awake", false);
  block.AddKeyValueInt("age", 36);
  block.AddKeyValueDouble("size", -0.5);
  block.AddKeyValueString("name", "lovelace");
  block.AddKeyValueStream("data", kKeyedStream.data(), static_cast<long>(kKeyedStream.size()));
}

void mirror(TolkParams* in, TolkParams* out) {
  for (int i = 0; i < in->ParamsSize(); ++i) mirror_positional(*in->GetValue(i), out);
  for (const char* key : keys()) {
    const TolkValue* const value = in->GetMap(key);
    if (value != nullptr) mirror_keyed(key, *value, out);
  }
}

const std::vector<MirrorRow>& mirror_rows() {
  static const std::vector<MirrorRow> rows{
      {"bool", "true", "false"},
      {"int", "41", "42"},
      {"double", "2.5", "1.25"},
      {"string", "\"ada\"", "\"ADA\""},
      {"stream", "00 ff 10", "10 ff 00"},
      {"list", "[1, \"two\", 3.5, true, 04 05]", "[04 05, true, 3.5, \"two\", 1]"},
      {"keyed bool", "awake: false", "awake: true"},
      {"keyed int", "age: 36", "age: 37"},
      {"keyed double", "size: -0.5", "size: -0.25"},
      {"keyed string", "name: \"lovelace\"", "name: \"LOVELACE\""},
      {"keyed stream", "data: 01 00 02", "data: 02 00 01"},
  };
  return rows;
}

std::string mirrored(TolkParams* reply, std::size_t row) {
  if (row < kPositionalRows) return value_at(reply, static_cast<int>(row));
  const char* const key = keys()[row - kPositionalRows];
  return std::string(key) + ": " + value_of(reply, key);
}

std::string digest(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char byte : bytes) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 0x100000001b3;
  }
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(hash));
  return text.data();
}

std::string noise(std::size_t count) {
  std::string bytes(count, '\0');
  std::uint64_t state = 0x9e3779b97f4a7c15;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    byte = static_cast<char>(state >> 32);
  }
  return bytes;
}

}  // namespace demo
