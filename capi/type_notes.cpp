#include "capi/type_notes.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tolk {
namespace {

constexpr std::array<std::string_view, 6> kNames{"none", "int64", "uint64", "text", "list", "map"};

std::optional<TypeNote> note_of(std::string_view name) {
  const auto* const at = std::find(kNames.begin(), kNames.end(), name);
  if (at == kNames.end()) return std::nullopt;
  return static_cast<TypeNote>(at - kNames.begin());
}

// The text up to `end`, which is taken off the front of `rest` with it.
std::string_view next_part(std::string_view& rest, char end) {
  const std::string_view part = rest.substr(0, rest.find(end));
  rest.remove_prefix(std::min(part.size() + 1, rest.size()));
  return part;
}

}  // namespace

TypeNotes::TypeNotes(const TypeNotes& other)
    : own_(other.own_),
      records_(other.empty() ? nullptr : std::make_unique<Records>(*other.records_)) {}

TypeNotes& TypeNotes::operator=(TypeNotes other) noexcept {
  own_ = other.own_;
  records_ = std::move(other.records_);
  return *this;
}

TypeNotes& TypeNotes::of_record(std::uint32_t record) {
  if (empty()) records_ = std::make_unique<Records>();
  return (*records_)[record];
}

TypeNotes TypeNotes::parse(std::string_view text) { return *parse(text, text.size()); }

std::optional<TypeNotes> TypeNotes::parse(std::string_view text, std::size_t most) {
  TypeNotes notes;
  while (!text.empty()) {
    std::string_view type = next_part(text, ' ');
    const std::string_view path = next_part(type, '=');
    const auto note = note_of(type);
    if (note && !notes.add_path(path, *note, most)) return std::nullopt;
  }
  return notes;
}

// Looks at the whole path first: one that is skipped must leave nothing behind. False: no room.
bool TypeNotes::add_path(std::string_view path, TypeNote note, std::size_t& room) {
  if (path.empty() || path.back() == '.') return true;
  std::array<std::uint32_t, kMostDepth> steps{};
  std::size_t depth = 0;
  while (!path.empty()) {
    const std::string_view step = next_part(path, '.');
    if (depth == steps.size()) return true;
    std::uint32_t& record = steps.at(depth++);
    if (step == "*") {
      record = kEvery;
      continue;
    }
    const char* const end = step.data() + step.size();
    const auto parsed = std::from_chars(step.data(), end, record);
    if (parsed.ec != std::errc() || parsed.ptr != end || record == kEvery) return true;
  }
  TypeNotes* at = this;
  for (std::size_t i = 0; i < depth; ++i) {
    if (at->find_own(steps.at(i)) == nullptr && room-- == 0) return false;
    at = &at->of_record(steps.at(i));
  }
  at->own_ = note;
  return true;
}

std::string TypeNotes::written() const {
  std::string text;
  write(text, "");
  return text;
}

void TypeNotes::write(std::string& to, const std::string& path) const {
  if (empty()) return;
  for (const auto& [record, notes] : *records_) {
    const std::string here = path + (record == kEvery ? "*" : std::to_string(record));
    if (notes.own_) {
      if (!to.empty()) to += ' ';
      to += here;
      to += '=';
      to += kNames.at(static_cast<std::size_t>(*notes.own_));
    }
    notes.write(to, here + '.');
  }
}

void TypeNotes::add_inner(std::uint32_t record, const TypeNotes& inner) {
  if (!inner.empty()) of_record(record).records_ = std::make_unique<Records>(*inner.records_);
}

void TypeNotes::copy(std::uint32_t record, const TypeNotes& other, std::uint32_t other_record) {
  if (const TypeNotes* const found = other.find(other_record)) of_record(record) = *found;
}

const TypeNotes* TypeNotes::find_own(std::uint32_t record) const {
  if (empty()) return nullptr;
  const auto at = records_->find(record);
  return at == records_->end() ? nullptr : &at->second;
}

const TypeNotes* TypeNotes::find(std::uint32_t record) const {
  const TypeNotes* const own = find_own(record);
  return own != nullptr ? own : find_own(kEvery);
}

std::optional<TypeNote> TypeNotes::of(std::uint32_t record) const {
  const TypeNotes* const found = find(record);
  return found == nullptr ? std::nullopt : found->own_;
}

const TypeNotes* TypeNotes::inside(std::uint32_t record) const {
  const TypeNotes* const found = find(record);
  return found == nullptr || found->empty() ? nullptr : found;
}

}  // namespace tolk
