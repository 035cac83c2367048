// What the placeholders of a block stand for: the text of the key "tolk.types".
//
// The format has no record for some values, for instance an absent one or a number of 64 bits. Such
// a value travels as a stream, and a note says what it is: "0=none 3=int64 5.1=uint64 6.*=int64". A
// path counts the records of a block from 0, keyed ones too; a point enters a list or a nested
// block; * stands for all elements.
//
// Thread: values. Owner: its own memory.
// Failure: std::bad_alloc. A text of a peer never fails: what is not a note is skipped, and a path
// of more than kMostDepth steps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tolk {

enum class TypeNote { none, int64, uint64, text, list, map };

// The notes about the records of one block. About one record: its own note, and those inside it.
class TypeNotes {
 public:
  static constexpr int kMostDepth = 64;

  static TypeNotes parse(std::string_view text);
  // None if they are about more than `most` records.
  static std::optional<TypeNotes> parse(std::string_view text, std::size_t most);
  std::string text() const;
  bool empty() const { return records_.empty(); }

  void add(std::uint32_t record, TypeNote note) { records_[record].own_ = note; }
  // All elements of a list have this type.
  void add_elements(std::uint32_t record, TypeNote note) { records_[record].add(kEvery, note); }
  // The record holds a block that has these notes.
  void add_inner(std::uint32_t record, const TypeNotes& inner);

  // What the notes of another block say about one of its records.
  void copy(std::uint32_t record, const TypeNotes& other, std::uint32_t other_record);

  std::optional<TypeNote> of(std::uint32_t record) const;
  // The notes about what is inside the record; null without any.
  const TypeNotes* inside(std::uint32_t record) const;

 private:
  static constexpr std::uint32_t kEvery = UINT32_MAX;

  // `room`: how many records may be added.
  bool add_path(std::string_view path, TypeNote note, std::size_t& room);
  void write(std::string& to, const std::string& path) const;
  const TypeNotes* find(std::uint32_t record) const;

  std::optional<TypeNote> own_;
  std::map<std::uint32_t, TypeNotes> records_;
};

}  // namespace tolk
