#include "capi/type_notes.h"

#include <gtest/gtest.h>

#include <string>

namespace tolk {
namespace {

std::string parsed_and_written(std::string_view text) { return TypeNotes::parse(text).text(); }

TEST(TypeNotes, TextListsTheRecordsInOrder) {
  TypeNotes inner;
  inner.add(1, TypeNote::uint64);
  TypeNotes notes;
  notes.add(12, TypeNote::none);
  notes.add(3, TypeNote::map);
  notes.add_inner(3, inner);
  notes.add_elements(2, TypeNote::int64);
  EXPECT_EQ(notes.text(), "2.*=int64 3=map 3.1=uint64 12=none");
}

TEST(TypeNotes, WhatIsWrittenIsReadBack) {
  const std::string text = "0=none 1=int64 2=uint64 3=text 4=list 4.0=map 4.0.7=none 5.*=int64";
  EXPECT_EQ(parsed_and_written(text), text);
  EXPECT_TRUE(TypeNotes::parse("").empty());
}

TEST(TypeNotes, ElementsHaveTheNoteOfAllUnlessTheyHaveTheirOwn) {
  const TypeNotes notes = TypeNotes::parse("2.*=int64 2.5=none");
  const TypeNotes* const list = notes.inside(2);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->of(0), TypeNote::int64);
  EXPECT_EQ(list->of(4000000000), TypeNote::int64);
  EXPECT_EQ(list->of(5), TypeNote::none);
  EXPECT_EQ(notes.of(2), std::nullopt);
  EXPECT_EQ(notes.inside(3), nullptr);
}

TEST(TypeNotes, TheLastNoteOfARecordCounts) {
  EXPECT_EQ(parsed_and_written("1=none 1=text"), "1=text");
}

TEST(TypeNotes, WhatIsNotANoteIsSkipped) {
  for (const char* const text : {"1", "=none", "1=", "1=decimal", "-1=none", "+1=none", "x=none",
                                 ".=none", "1.=none", ".1=none", "1..2=none", "4294967295=none",
                                 "4294967296=none", "1=none=text", "  ", "**=none"}) {
    EXPECT_TRUE(TypeNotes::parse(text).empty()) << text;
  }
  EXPECT_EQ(parsed_and_written("1=decimal  7=none x"), "7=none");
}

TEST(TypeNotes, AVeryDeepPathIsSkipped) {
  std::string path = "0";
  for (int depth = 1; depth < TypeNotes::kMostDepth; ++depth) path += ".0";
  EXPECT_FALSE(TypeNotes::parse(path + "=none").empty());
  EXPECT_TRUE(TypeNotes::parse(path + ".0=none").empty());
}

}  // namespace
}  // namespace tolk
