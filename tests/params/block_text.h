// What a parsed block holds, in the words of NaiveParser::text.
#pragma once

#include <string>

#include "params/content.h"
#include "params/value_access.h"
#include "tests/params/naive_parser.h"

namespace tolk::test {

inline std::string scalar_text(const TolkValue& value) {
  const std::string_view bytes = TolkValueAccess::bytes(value);
  switch (TolkValueAccess::type(value)) {
    case TolkValue::Int:
      return NaiveParser::int_text(value.GetInt());
    case TolkValue::Bool:
      return NaiveParser::bool_text(value.GetBool());
    case TolkValue::Double:
      return NaiveParser::double_text(value.GetDouble());
    case TolkValue::String:
      return NaiveParser::string_text(bytes);
    case TolkValue::Stream:
      return NaiveParser::stream_text(bytes);
    default:
      return "?";
  }
}

inline std::string value_text(TolkValue& value) {
  std::string lines;
  switch (TolkValueAccess::type(value)) {
    case TolkValue::List:
      lines = "list\n";
      for (const TolkValue* element : *value.GetList()) {
        lines += "  " + scalar_text(*element) + "\n";
      }
      return lines;
    case TolkValue::Map:
      lines = "map\n";
      for (const auto& [key, entry] : TolkValueAccess::map(value)) {
        lines += "  " + NaiveParser::hexed(key) + "=" + scalar_text(*entry) + "\n";
      }
      return lines;
    default:
      return scalar_text(value) + "\n";
  }
}

inline std::string block_text(bool verdict, const TolkParams& block) {
  const auto& content = TolkParamsAccess::content(block);
  std::string lines = verdict ? "true\n" : "false\n";
  for (TolkValue* value : content.values) lines += value_text(*value);
  for (const auto& [key, value] : content.keyed) {
    lines += NaiveParser::hexed(key) + "=" + scalar_text(*value) + "\n";
  }
  return lines;
}

}  // namespace tolk::test
