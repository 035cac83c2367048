// The readable dump of a block's parsed values.

#include <cstddef>
#include <locale>
#include <ostream>
#include <sstream>
#include <string>

#include "params/content.h"
#include "params/value_access.h"
#include "platform/standard_output.h"

namespace {

using Access = TolkValueAccess;

constexpr char hyphens[] = "-------------------------------------------------------------";

// On purpose: raw bytes of the GBK code page ("not text"), never converted to anything else.
constexpr char stream_word[] = "\xB6\xFE\xBD\xF8\xD6\xC6";

// Writes one scalar as a line that starts with `indent`, and nothing for a value of another type.
void dump_scalar(std::ostream& out, const char* indent, const TolkValue& value, const char* word) {
  switch (Access::type(value)) {
    case TolkValue::Int:
      out << indent << "int: " << value.GetInt() << '\n';
      break;
    case TolkValue::Bool:
      out << indent << "bool: " << value.GetBool() << '\n';
      break;
    case TolkValue::Double:
      out << indent << "double: " << value.GetDouble() << '\n';
      break;
    case TolkValue::String:
      out << indent << "string: " << value.GetString() << '\n';
      break;
    case TolkValue::Stream:
      out << indent << "stream: " << word << ' ' << Access::bytes(value).size() << '\n';
      break;
    default:
      break;
  }
}

void dump_list(std::ostream& out, const TolkValue& list) {
  const auto& elements = *list.GetList();
  out << "  list begin: " << elements.size() << "-----\n";
  for (const TolkValue* element : elements) dump_scalar(out, "       ", *element, stream_word);
  out << "  list end-----\n";
}

// On purpose: a Map prints nothing, and a keyed Map not even the end of its line. A keyed stream
// has no word, so that two spaces come before its length.
std::string dump(TolkParamsAccess::Content& content) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << "\nparams " << static_cast<int>(content.values.size()) << hyphens << '\n';
  for (const TolkValue* value : content.values) {
    if (value->IsList()) {
      dump_list(out, *value);
    } else {
      dump_scalar(out, "  ", *value, stream_word);
    }
  }
  out << "\nmaps " << static_cast<int>(content.keyed.size()) << hyphens << '\n';
  for (const auto& [key, value] : content.keyed_view()) {
    out << "   " << key << " - ";
    dump_scalar(out, "", *value, "");
  }
  out << '\n';
  return out.str();
}

}  // namespace

void TolkParams::print() { tolk::platform::print_lines(dump(TolkParamsAccess::content(*this))); }
