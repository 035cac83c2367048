#include "tools/tolk/text/signature.h"

#include <cctype>

#include "tools/tolk/text/bytes.h"

namespace tolk::tool {
namespace {

using Names = std::map<std::string, std::string>;

struct NotASignature {};

// Reads a text from its begin on. Throws NotASignature.
class TypeReader {
 public:
  explicit TypeReader(std::string_view text) : rest_(text) {}

  Signature signature() {
    Signature all;
    expect("(");
    all.parameters = parts(")");
    if (take("->")) all.results = parts("");
    if (!rest_.empty()) throw NotASignature();
    return all;
  }

 private:
  static constexpr int kDeepest = 64;  // peers choose the text

  void skip_blanks() {
    while (rest_.starts_with(' ')) rest_.remove_prefix(1);
  }
  bool take(std::string_view mark) {
    skip_blanks();
    if (!rest_.starts_with(mark)) return false;
    rest_.remove_prefix(mark.size());
    return true;
  }
  void expect(std::string_view mark) {
    if (!take(mark)) throw NotASignature();
  }
  std::string word() {
    skip_blanks();
    std::size_t size = 0;
    while (size < rest_.size() &&
           (std::isalnum(static_cast<unsigned char>(rest_[size])) != 0 || rest_[size] == '_' ||
            rest_[size] == '.' || static_cast<unsigned char>(rest_[size]) >= 0x80)) {
      ++size;
    }
    if (size == 0) throw NotASignature();
    std::string text(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return text;
  }

  // Types, each perhaps with a name, up to the mark.
  Type::Parts parts(std::string_view end) {
    Type::Parts all;
    if (!end.empty() && take(end)) return all;
    do {
      std::string name;
      const std::string_view before = rest_;
      try {
        name = word();
        expect(":");
      } catch (const NotASignature&) {
        rest_ = before;
        name.clear();
      }
      all.push_back({std::move(name), type()});
    } while (take(","));
    expect(end);
    return all;
  }
  Type type() {
    if (++depth_ > kDeepest) throw NotASignature();
    Type first = single();
    if (take("|")) {
      Type::Parts all{{"", std::move(first)}};
      do {
        all.push_back({"", single()});
      } while (take("|"));
      first = {Type::Kind::variant, false, "", std::move(all)};
    }
    --depth_;
    return first;
  }
  Type single() {
    Type read = take("[") ? list() : take("{") ? braces() : take("(") ? tuple() : plain();
    read.is_optional = take("?");
    return read;
  }
  Type plain() { return {Type::Kind::word, false, word(), {}}; }
  Type list() {
    Type all{Type::Kind::list, false, "", {{"", type()}}};
    if (take(":")) all.word = word();
    expect("]");
    return all;
  }
  Type tuple() { return {Type::Kind::tuple, false, "", parts(")")}; }
  Type braces() {
    const std::string_view before = rest_;
    try {
      return {Type::Kind::structure, false, "", parts("}")};
    } catch (const NotASignature&) {
      rest_ = before;
    }
    Type all{Type::Kind::map, false, "", {{"", type()}}};
    expect("->");
    all.parts.push_back({"", type()});
    expect("}");
    return all;
  }

  std::string_view rest_;
  int depth_ = 0;
};

std::string parts_text(const Type::Parts& parts, const char* between, const Names& names) {
  std::string text;
  for (const auto& [name, type] : parts) {
    text += (text.empty() ? "" : between) + (name.empty() ? "" : name + ": ") + type.text(names);
  }
  return text;
}

void add_structs(std::vector<Type>& all, const Type& type) {
  if (type.kind == Type::Kind::structure) {
    all.push_back(type);
    all.back().is_optional = false;
  }
  for (const auto& [name, part] : type.parts) add_structs(all, part);
}

Value fitted(const Value& value, const Type& type);

Value::Map fitted(Value::Map map, const Type& type) {
  for (auto& [key, value] : map) {
    for (const auto& [name, part] : type.parts) {
      if (type.kind == Type::Kind::map || name == key) value = fitted(value, part);
    }
  }
  return map;
}

Value::List fitted(Value::List list, const Type& type) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::size_t part = type.kind == Type::Kind::list ? 0 : i;
    if (part < type.parts.size()) list[i] = fitted(list[i], type.parts[part].type);
  }
  return list;
}

Value fitted(const Value& value, const Type& type) {
  const bool is_list = type.kind == Type::Kind::list || type.kind == Type::Kind::tuple;
  const bool is_map = type.kind == Type::Kind::structure || type.kind == Type::Kind::map;
  if (!is_list && !is_map) return value;
  if (const auto* const list = value.get_if<Value::List>()) return fitted(*list, type);
  if (const auto* const map = value.get_if<Value::Map>()) return fitted(*map, type);
  const auto* const data = value.get_if<bytes>();
  const auto inner = data == nullptr ? std::nullopt : Values::parse(view_of(*data));
  if (!inner) return value;
  if (is_list) return fitted(inner->positional(), type);
  return fitted(inner->keyed(), type);
}

}  // namespace

std::string Type::text(const Names& names) const {
  std::string all;
  switch (kind) {
    case Kind::word:
      all = word;
      break;
    case Kind::list:
      all = "[" + parts_text(parts, "", names) + (word.empty() ? "" : ": " + word) + "]";
      break;
    case Kind::structure:
      all = "{" + parts_text(parts, ", ", {}) + "}";
      if (const auto at = names.find(all); at != names.end()) {
        all = at->second;
      } else {
        all = "{" + parts_text(parts, ", ", names) + "}";
      }
      break;
    case Kind::map:
      all = "{" + parts_text(parts, " -> ", names) + "}";
      break;
    case Kind::tuple:
      all = "(" + parts_text(parts, ", ", names) + ")";
      break;
    case Kind::variant:
      all = parts_text(parts, " | ", names);
      break;
  }
  return all + (is_optional ? "?" : "");
}

std::string Signature::text(const Names& names) const {
  return "(" + parts_text(parameters, ", ", names) + ")" +
         (results.empty() ? "" : " -> " + parts_text(results, ", ", names));
}

std::optional<Signature> signature_in(std::string_view text) {
  try {
    return TypeReader(text).signature();
  } catch (const NotASignature&) {
    return std::nullopt;
  }
}

std::vector<Type> structs_of(const Signature& signature) {
  std::vector<Type> all;
  for (const auto& [name, type] : signature.parameters) add_structs(all, type);
  for (const auto& [name, type] : signature.results) add_structs(all, type);
  return all;
}

Values fitted(const Values& result, std::string_view signature) {
  const auto known = signature_in(signature);
  if (!known || known->results.empty()) return result;
  const Type& first = known->results.front().type;
  const bool are_several = first.kind == Type::Kind::tuple || known->results.size() > 1;
  const Type all{Type::Kind::tuple, false, "",
                 first.kind == Type::Kind::tuple ? first.parts : known->results};
  Values fit;
  for (const Value& value : fitted(result.positional(), all)) fit.add(value);
  for (const auto& [key, value] : fitted(result.keyed(), are_several ? all : first)) {
    fit.add(key, value);
  }
  return fit;
}

}  // namespace tolk::tool
