// The signatures of methods, as servers tell them: `(int, {x: int}) -> [{x: int}]`.
//
// | written | type |
// |---|---|
// | word | a scalar, or a name |
// | [T], [T: 3] | a list |
// | {name: T, ...}, {K -> T} | a struct, a map |
// | (T, ...) | a list of these values |
// | T?, T | T | one that may be absent, one of several |
//
// Thread: values. Failure: nothing for a text that is not of this form; std::bad_alloc.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tolk/tolk.hpp>
#include <vector>

namespace tolk::tool {

struct NamedType;

struct Type {
  enum class Kind { word, list, structure, map, tuple, variant };
  using Parts = std::vector<NamedType>;

  Kind kind = Kind::word;
  bool is_optional = false;
  std::string word;  // of a word; of a list of fixed size: its size
  Parts parts;       // with names, where they are known

  // The text. Structs whose text is a key of `names` are written by their name there.
  std::string text(const std::map<std::string, std::string>& names = {}) const;
};

struct NamedType {
  std::string name;
  Type type;
};

struct Signature {
  Type::Parts parameters;
  Type::Parts results;

  std::string text(const std::map<std::string, std::string>& names = {}) const;
};

std::optional<Signature> signature_in(std::string_view text);

// The structs in a signature, each before those inside it, as often as they are written.
std::vector<Type> structs_of(const Signature& signature);

// The result of a method of that signature, where older peers have sent bytes for lists and
// structs.
Values fitted(const Values& result, std::string_view signature);

}  // namespace tolk::tool
