#include "tools/tolk/text/shortened.h"

#include "tools/tolk/text/record_json.h"

namespace tolk::tool {
namespace {

constexpr std::size_t kBeginBytes = 48;

// Not in the middle of a character.
std::string begin_of(const std::string& text) {
  std::size_t size = kBeginBytes;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) --size;
  return text.substr(0, size);
}

Json of_list(const Json& json) {
  Json all = Json::array();
  for (const Json& element : json) {
    if (all.size() == kMostShownElements) {
      all.push_back({{"$more", json.size() - all.size()}});
      break;
    }
    all.push_back(shortened(element));
  }
  return all;
}

Json of_base64(const std::string& text) {
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  const std::size_t size = text.size() / 4 * 3 - padding;
  if (size <= kMostShownBytes) return {{"$base64", text}};
  return {{"$bytes", size}, {"$first", text.substr(0, kBeginBytes / 3 * 4)}};
}

Json of_object(const Json& json) {
  const auto data = json.find("$base64");
  if (data != json.end() && data->is_string()) return of_base64(data->get<std::string>());
  Json all = Json::object();
  for (const auto& [key, value] : json.items()) all[key] = shortened(value);
  return all;
}

}  // namespace

Json shortened(const Json& json) {
  if (json.is_array()) return of_list(json);
  if (json.is_object()) return of_object(json);
  if (!json.is_string()) return json;
  const auto text = json.get<std::string>();
  if (text.size() <= kMostShownBytes) return json;
  return {{"$bytes", text.size()}, {"$text", begin_of(text)}};
}

}  // namespace tolk::tool
