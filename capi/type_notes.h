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
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tolk {

enum class TypeNote { none, int64, uint64, text, list, map };

// The notes about the records of one block. About one record: its own note, and those inside it.
class TypeNotes {
 public:
  static constexpr int kMostDepth = 64;

  TypeNotes() = default;
  TypeNotes(const TypeNotes& other);
  TypeNotes(TypeNotes&&) noexcept = default;
  TypeNotes& operator=(TypeNotes other) noexcept;
  ~TypeNotes() = default;

  static TypeNotes parse(std::string_view text);
  // None if they are about more than `most` records.
  static std::optional<TypeNotes> parse(std::string_view text, std::size_t most);
  std::string text() const { return empty() ? std::string() : written(); }
  bool empty() const { return records_ == nullptr; }

  void add(std::uint32_t record, TypeNote note) { of_record(record).own_ = note; }
  // All elements of a list have this type.
  void add_elements(std::uint32_t record, TypeNote note) { of_record(record).add(kEvery, note); }
  // The record holds a block that has these notes.
  void add_inner(std::uint32_t record, const TypeNotes& inner);

  // What the notes of another block say about one of its records.
  void copy(std::uint32_t record, const TypeNotes& other, std::uint32_t other_record);

  std::optional<TypeNote> of(std::uint32_t record) const;
  // The notes about what is inside the record; null without any.
  const TypeNotes* inside(std::uint32_t record) const;

 private:
  using Records = std::map<std::uint32_t, TypeNotes>;
  static constexpr std::uint32_t kEvery = UINT32_MAX;

  // `room`: how many records may be added.
  bool add_path(std::string_view path, TypeNote note, std::size_t& room);
  std::string written() const;
  TypeNotes& of_record(std::uint32_t record);
  void write(std::string& to, const std::string& path) const;
  const TypeNotes* find_own(std::uint32_t record) const;
  const TypeNotes* find(std::uint32_t record) const;  // or of all elements

  std::optional<TypeNote> own_;
  std::unique_ptr<Records> records_;  // most blocks have none, and must not pay for them
};

}  // namespace tolk
