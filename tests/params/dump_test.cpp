#include <gtest/gtest.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <iomanip>
#include <iostream>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "params/content.h"
#include "params/value_access.h"
#include "platform/standard_output.h"
#include "tests/params/hex.h"
#include "tests/platform/redirected_stdout.h"

namespace {

const std::string hyphens(61, '-');
const std::string not_text = "\xB6\xFE\xBD\xF8\xD6\xC6";

// Catches what is written to standard output while it lives.
class Captured {
 public:
  Captured() : original_(std::cout.rdbuf(text_.rdbuf())) {}
  ~Captured() { std::cout.rdbuf(original_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* original_;
};

std::string printed(TolkParams& block) {
  const Captured captured;
  block.print();
  return captured.text();
}

std::string printed_after_parse(TolkParams& block) {
  EXPECT_TRUE(block.ToParams());
  return printed(block);
}

std::string frame(int values, const std::string& lines, int keyed, const std::string& keyed_lines) {
  return "\nparams " + std::to_string(values) + hyphens + "\n" + lines + "\nmaps " +
         std::to_string(keyed) + hyphens + "\n" + keyed_lines + "\n";
}

TEST(Dump, EmptyBlockIsFiveLines) {
  TolkParams block;
  EXPECT_EQ(printed(block), "\nparams 0" + hyphens + "\n\nmaps 0" + hyphens + "\n\n");
}

TEST(Dump, ShowsNoValuesBeforeAParse) {
  TolkParams block;
  block.AddInt(7);
  EXPECT_EQ(printed(block), frame(0, "", 0, ""));
}

TEST(Dump, IntStreamAndKeyedString) {
  TolkParams block;
  block.AddInt(7);
  block.AddStream("abc", 3);
  block.AddKeyValueString("name", "x");
  EXPECT_EQ(printed_after_parse(block), "\nparams 2" + hyphens +
                                            "\n  int: 7\n  stream: " + not_text + " 3\n\nmaps 1" +
                                            hyphens + "\n   name - string: x\n\n");
}

TEST(Dump, EachPositionalKind) {
  TolkParams block;
  block.AddInt(-7);
  block.AddBool(true);
  block.AddBool(false);
  block.AddDouble(1.0 / 3);
  block.AddDouble(1e20);
  block.AddString("text");
  block.AddStream("", 0);
  EXPECT_EQ(printed_after_parse(block),
            frame(7,
                  "  int: -7\n  bool: 1\n  bool: 0\n  double: 0.333333\n  double: 1e+20\n"
                  "  string: text\n  stream: " +
                      not_text + " 0\n",
                  0, ""));
}

TEST(Dump, StringEndsAtItsFirstZeroByte) {
  const std::string bytes = tolk::test::hex("03 03000000 610062 08000000");
  TolkParams block;
  ASSERT_TRUE(block.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_EQ(printed(block), frame(1, "  string: a\n", 0, ""));
}

TEST(Dump, ListShowsItsElements) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddInt(7);
  list->AddBool(true);
  list->AddDouble(0.5);
  list->AddString("x", 1);
  list->AddStream("abc", 3);
  TolkParams block;
  block.AddList(list);
  EXPECT_EQ(printed_after_parse(block),
            frame(1,
                  "  list begin: 5-----\n       int: 7\n       bool: 1\n       double: 0.5\n"
                  "       string: x\n       stream: " +
                      not_text + " 3\n  list end-----\n",
                  0, ""));
}

TEST(Dump, EmptyListIsTwoLines) {
  TolkParams block;
  block.AddList(TolkParams::CreateListParams());
  EXPECT_EQ(printed_after_parse(block), frame(1, "  list begin: 0-----\n  list end-----\n", 0, ""));
}

TEST(Dump, ElementOfAnotherKindPrintsNothing) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddInt(7);
  TolkParams block;
  block.AddList(list);
  ASSERT_TRUE(block.ToParams());
  block.GetValue(0)->GetList()->at(0)->clear();
  EXPECT_EQ(printed(block), frame(1, "  list begin: 1-----\n  list end-----\n", 0, ""));
}

TEST(Dump, PositionalMapAndNonePrintNothing) {
  const std::string bytes =
      tolk::test::hex("07 01000000 05 03 01000000 6B 0C000000 01 31 12000000 01 31 18000000");
  TolkParams block;
  ASSERT_TRUE(block.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_EQ(printed(block), frame(2, "  bool: 1\n", 0, ""));
  block.GetValue(1)->clear();
  EXPECT_EQ(printed(block), frame(2, "", 0, ""));
}

TEST(Dump, EachKeyedKind) {
  const std::pair<void (*)(TolkParams&), std::string> kinds[] = {
      {[](TolkParams& block) { block.AddKeyValueInt("k", 7); }, "int: 7"},
      {[](TolkParams& block) { block.AddKeyValueBool("k", true); }, "bool: 1"},
      {[](TolkParams& block) { block.AddKeyValueDouble("k", 0.5); }, "double: 0.5"},
      {[](TolkParams& block) { block.AddKeyValueString("k", "x"); }, "string: x"},
      {[](TolkParams& block) { block.AddKeyValueStream("k", "abc", 3); }, "stream:  3"}};
  for (const auto& [add, line] : kinds) {
    TolkParams block;
    add(block);
    EXPECT_EQ(printed_after_parse(block), frame(0, "", 1, "   k - " + line + "\n"));
  }
}

TEST(Dump, KeyedValuesStandInTheOrderOfTheView) {
  TolkParams block;
  for (const char* key : {"a", "b", "c", "d"}) block.AddKeyValueInt(key, 1);
  ASSERT_TRUE(block.ToParams());
  std::string lines;
  for (const auto& [key, value] : *block.GetMapPtr()) {
    lines += "   " + std::string(key) + " - int: 1\n";
  }
  EXPECT_EQ(printed(block), frame(0, "", 4, lines));
}

TEST(Dump, KeyedValueOfAnotherKindDoesNotEndItsLine) {
  TolkParams block;
  block.AddKeyValueInt("k", 1);
  ASSERT_TRUE(block.ToParams());
  block.GetMap("k")->clear();
  EXPECT_EQ(printed(block), frame(0, "", 1, "   k - "));
}

TEST(Dump, FormatOfTheHostsStreamHasNoEffectAndStays) {
  TolkParams block;
  block.AddInt(255);
  block.AddBool(true);
  block.AddDouble(2.5);
  ASSERT_TRUE(block.ToParams());
  const auto flags = std::cout.flags();
  std::cout << std::hex << std::boolalpha << std::scientific << std::setw(200);
  const std::string text = printed(block);
  EXPECT_EQ(std::cout.width(), 200);
  std::cout.flags(flags);
  std::cout.width(0);
  EXPECT_EQ(text, frame(3, "  int: 255\n  bool: 1\n  double: 2.5\n", 0, ""));
}

TEST(Dump, GlobalLocaleOfTheHostHasNoEffect) {
  struct Grouped : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  TolkParams block;
  block.AddInt(1234567);
  block.AddDouble(2.5);
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouped));
  const std::string text = printed_after_parse(block);
  std::locale::global(before);
  EXPECT_EQ(text, frame(2, "  int: 1234567\n  double: 2.5\n", 0, ""));
}

TEST(Dump, EachLineIsFlushed) {
  TolkParams block;
  block.AddInt(7);
  block.AddKeyValueString("name", "x");
  ASSERT_TRUE(block.ToParams());
  tolk::test::WholeTextBuffer buffer;
  const tolk::test::RedirectedStdout redirected(buffer);
  std::vector<std::string> lines;
  std::string seen;
  buffer.on_flush = [&] {
    lines.push_back(buffer.text().substr(seen.size()));
    seen = buffer.text();
  };
  block.print();
  EXPECT_EQ(lines,
            (std::vector<std::string>{"\n", "params 1" + hyphens + "\n", "  int: 7\n", "\n",
                                      "maps 1" + hyphens + "\n", "   name - string: x\n", "\n"}));
}

TEST(Dump, LinesOfOtherThreadsComeAfterIt) {
  TolkParams block;
  tolk::test::WholeTextBuffer buffer;
  const tolk::test::RedirectedStdout redirected(buffer);
  bool printed_another = false;
  buffer.on_insertion = [&](const std::string&) {
    if (std::exchange(printed_another, true)) return;
    std::thread([] { tolk::platform::print_line("another thread's"); }).join();
  };
  block.print();
  EXPECT_EQ(buffer.text(), frame(0, "", 0, "") + "another thread's\n");
}

}  // namespace
