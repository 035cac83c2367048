// What a received block of the C interface holds, in the words of NaiveParser::text.
#pragma once

#include <map>
#include <string>

#include "capi/block.h"
#include "platform/text.h"
#include "tests/params/naive_parser.h"

namespace tolk::test {

inline std::string item_text(const Item& item) {
  switch (item.tag) {
    case Tag::Int:
      return NaiveParser::int_text(load_int(item.at));
    case Tag::Bool:
      return NaiveParser::bool_text(*item.at == '1');
    case Tag::Double:
      return NaiveParser::double_text(load_double(item.at));
    case Tag::String:
      return NaiveParser::string_text(item.bytes());
    default:
      return NaiveParser::stream_text(item.bytes());
  }
}

// The last of equal keys counts.
inline std::string elements_text(const Item& list) {
  std::string lines = list.tag == Tag::List ? "list\n" : "map\n";
  std::map<std::string, std::string> entries;
  RecordWalk walk(list);
  for (Item item; walk.next(item);) {
    if (list.tag == Tag::List) lines += "  " + item_text(item) + "\n";
    if (list.tag == Tag::Map) entries[std::string(cut_at_zero(item.key_view()))] = item_text(item);
  }
  for (const auto& [key, text] : entries)
    lines += "  " + NaiveParser::hexed(key) + "=" + text + "\n";
  return lines;
}

inline std::string c_block_text(bool verdict, const BlockIndex& index) {
  std::string lines = verdict ? "true\n" : "false\n";
  std::map<std::string, std::string> keyed;
  for (std::size_t i = 0; i < index.total(); ++i) {
    const Item& item = *index.at(i);
    if (item.key != nullptr) {
      keyed[std::string(item.key_view())] = item_text(item);
    } else {
      lines += item.tag <= Tag::Stream ? item_text(item) + "\n" : elements_text(item);
    }
  }
  for (const auto& [key, text] : keyed) lines += NaiveParser::hexed(key) + "=" + text + "\n";
  return lines;
}

}  // namespace tolk::test
