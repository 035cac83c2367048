#include "values.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace interop {
namespace {

constexpr int kLeast = std::numeric_limits<int>::min();
constexpr double kMost = std::numeric_limits<double>::max();
const std::string kText =
    "Gr\xC3\xBC\xC3\x9F"
    "e, \xE4\xB8\x96\xE7\x95\x8C\r\n";
const std::string kBytes("\0\x1A\r\n\xFF\0", 6);

long size_of(const std::string& bytes) { return static_cast<long>(bytes.size()); }

bool is_stream(const TolkValue* value, const std::string& bytes) {
  long size = 0;
  const char* const data = value != nullptr && value->IsStream() ? value->GetStream(size) : nullptr;
  return data != nullptr && std::string(data, static_cast<std::size_t>(size)) == bytes;
}

bool is_double(const TolkValue* value, double number) {
  return value != nullptr && value->IsDouble() && value->GetDouble() == number &&
         std::signbit(value->GetDouble()) == std::signbit(number);
}

bool is_int(const TolkValue* value, int number) {
  return value != nullptr && value->IsInt() && value->GetInt() == number;
}

bool is_text(const TolkValue* value, const std::string& text) {
  return value != nullptr && value->IsString() && text == value->GetString();
}

bool is_bool(const TolkValue* value, bool truth) {
  return value != nullptr && value->IsBool() && value->GetBool() == truth;
}

}  // namespace

void fill(TolkParams* block, int side) {
  block->AddInt(side);
  block->AddInt(kLeast);
  block->AddBool(true);
  block->AddDouble(-0.0);
  block->AddDouble(kMost);
  block->AddString(kText.c_str());
  block->AddString("");
  block->AddStream(kBytes.data(), size_of(kBytes));
  ListParams* const list = TolkParams::CreateListParams();
  list->AddInt(side);
  list->AddBool(false);
  list->AddDouble(0.1);
  list->AddString(kText.data(), size_of(kText));
  list->AddStream(kBytes.data(), size_of(kBytes));
  block->AddList(list);
  block->AddKeyValueInt("int", side);
  block->AddKeyValueBool("bool", true);
  block->AddKeyValueDouble("double", 0.1);
  block->AddKeyValueString("string", kText.c_str());
  block->AddKeyValueStream("stream", kBytes.data(), size_of(kBytes));
}

std::string fault(TolkParams* block, int side) {
  if (block == nullptr) return "no block";
  if (!is_int(block->GetValue(0), side)) return "whose it is";
  if (!is_int(block->GetValue(1), kLeast)) return "the least int";
  if (!is_bool(block->GetValue(2), true)) return "bool";
  if (!is_double(block->GetValue(3), -0.0)) return "minus zero";
  if (!is_double(block->GetValue(4), kMost)) return "the largest double";
  if (!is_text(block->GetValue(5), kText)) return "string";
  if (!is_text(block->GetValue(6), "")) return "empty string";
  if (!is_stream(block->GetValue(7), kBytes)) return "stream";
  const TolkValue* const list = block->GetValue(8);
  if (list == nullptr || !list->IsList() || list->GetList() == nullptr) return "list";
  const auto& elements = *list->GetList();
  if (elements.size() != 5 || !is_int(elements[0], side) || !is_bool(elements[1], false) ||
      !is_double(elements[2], 0.1) || !is_text(elements[3], kText) ||
      !is_stream(elements[4], kBytes)) {
    return "an element of the list";
  }
  if (!is_int(block->GetMap("int"), side)) return "int under a key";
  if (!is_bool(block->GetMap("bool"), true)) return "bool under a key";
  if (!is_double(block->GetMap("double"), 0.1)) return "double under a key";
  if (!is_text(block->GetMap("string"), kText)) return "string under a key";
  return is_stream(block->GetMap("stream"), kBytes) ? "" : "stream under a key";
}

std::string large_data(std::size_t bytes, int side) {
  std::string data(bytes, '\0');
  std::uint32_t state = static_cast<std::uint32_t>(side);
  for (char& byte : data) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return data;
}

}  // namespace interop
