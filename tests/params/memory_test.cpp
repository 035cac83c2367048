// Each operation, with every single one of its allocations failing in turn.
#include <gtest/gtest.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <streambuf>
#include <string>
#include <string_view>

#include "params/content.h"
#include "params/encoder.h"
#include "platform/standard_output.h"
#include "tests/params/allocations.h"
#include "tests/platform/redirected_stdout.h"

namespace {

using tolk::test::allocations_until_failure;
using tolk::test::fail_each_allocation;

constexpr char long_text[] = "a text that needs memory of its own";

void nothing(TolkParams&) {}

void fill(TolkParams& block) {
  block.AddString(long_text);
  block.AddKeyValueString(long_text, long_text);
  ListParams* list = TolkParams::CreateListParams();
  list->AddString(long_text, sizeof long_text - 1);
  block.AddList(list);
}

std::string encoded_sample() {
  TolkParams block;
  fill(block);
  return *block.GetParamas();
}

TEST(OutOfMemory, AddingLeavesNoPartOfARecord) {
  fail_each_allocation<TolkParams>(
      nothing, [](TolkParams& block) { block.AddKeyValueString("k", long_text); },
      [](TolkParams& block) { EXPECT_EQ(block.Size(), 0); });
}

TEST(OutOfMemory, OwnBytesAreAppendedWholeOrNotAtAll) {
  fail_each_allocation<TolkParams>(
      fill,
      [](TolkParams& block) { block.AddStream(block.GetParamasPtr(), block.GetParamasSize()); },
      [](TolkParams& block) { EXPECT_TRUE(block.ToParams()); });
}

TEST(OutOfMemory, AddListFreesItsListAnyway) {
  fail_each_allocation<TolkParams>(
      nothing,
      [](TolkParams& block) {
        auto list = std::make_unique<ListParams>();
        list->AddString(long_text, 20);
        list->AddInt(1);
        block.AddList(list.release());
      },
      [](TolkParams& block) { EXPECT_EQ(block.Size(), 0); });
}

TEST(OutOfMemory, ParsingKeepsWholeValues) {
  fail_each_allocation<TolkParams>(
      fill, [](TolkParams& block) { block.ToParams(); },
      [](TolkParams& block) {
        for (int i = 0; i < block.ParamsSize(); ++i) EXPECT_NE(block.GetValue(i), nullptr);
        for (const auto& [key, value] : *block.GetMapPtr()) EXPECT_NE(value, nullptr);
      });
}

TEST(OutOfMemory, ParsingReceivedBytesKeepsWholeValues) {
  const std::string bytes = encoded_sample();
  for (const bool given : {false, true}) {
    fail_each_allocation<TolkParams>(
        [given](TolkParams& block) {
          if (given) block.GetParamas();
        },
        [&](TolkParams& block) {
          const auto received = std::make_shared<std::string>(bytes);
          TolkParamsAccess::parse_shared(block, {received, *received});
        },
        [&](TolkParams& block) {
          for (int i = 0; i < block.ParamsSize(); ++i) EXPECT_NE(block.GetValue(i), nullptr);
          for (const auto& [key, value] : *block.GetMapPtr()) EXPECT_NE(value, nullptr);
          EXPECT_TRUE(block.Size() == 0 || *block.GetParamas() == bytes);
        });
  }
}

// More values than the first memory of a parse has room for, and keys that come again.
TEST(OutOfMemory, ParsingManyValuesKeepsWholeOnes) {
  fail_each_allocation<TolkParams>(
      [](TolkParams& block) {
        for (int i = 0; i < 300; ++i) {
          block.AddInt(i);
          block.AddKeyValueInt(std::to_string(i % 200).c_str(), i);
        }
      },
      [](TolkParams& block) { block.ToParams(); },
      [](TolkParams& block) {
        for (int i = 0; i < block.ParamsSize(); ++i) EXPECT_EQ(block.GetValue(i)->GetInt(), i);
        for (int i = 0; i < 200; ++i) {
          const TolkValue* const value = block.GetMap(std::to_string(i).c_str());
          EXPECT_TRUE(value == nullptr || value->GetInt() % 200 == i) << i;
        }
      });
}

// Maps come only from the wire. Their entries need more than the first memory of a parse.
TEST(OutOfMemory, ParsingAMapOfManyEntriesKeepsWholeOnes) {
  std::string bytes{'\7', '\x80', 0, 0, 0};
  tolk::Encoder<std::string> encoder(bytes, 0);
  for (int i = 0; i < 128; ++i) {
    encoder.add_key(std::to_string(i));
    encoder.add_int(i);
  }
  fail_each_allocation<TolkParams>(
      nothing,
      [&](TolkParams& block) { block.Parser(bytes.data(), static_cast<int>(bytes.size())); },
      [](TolkParams& block) { EXPECT_EQ(block.ParamsSize(), 0); });
}

// The parser allocates once for the values, keys and bytes together, and once for the block itself.
TEST(Memory, AFewValuesNeedOnePiece) {
  const std::string text(16, 't');
  const std::string bytes(64, 'b');
  TolkParams block;
  block.AddInt(7);
  block.AddBool(true);
  block.AddDouble(1.5);
  block.AddString(text.c_str());
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  block.AddKeyValueInt("alpha", 1);
  block.AddKeyValueInt("beta", 2);
  block.AddKeyValueString("gamma", text.c_str());
  const long before = live_allocations;
  TolkParams parsed;
  parsed.Parser(block.GetParamasPtr(), static_cast<int>(block.GetParamasSize()));
  EXPECT_LE(live_allocations - before, 2);
}

TEST(Memory, ManyValuesNeedFewPieces) {
  TolkParams block;
  for (int i = 0; i < 100'000; ++i) block.AddInt(i);
  const long before = live_allocations;
  EXPECT_TRUE(block.ToParams());
  EXPECT_LT(live_allocations - before, 60);
}

TEST(OutOfMemory, SharingLeavesTheBytesInTheBlock) {
  for (const bool parsed : {false, true}) {
    const std::string bytes = encoded_sample();
    fail_each_allocation<TolkParams>(
        [parsed](TolkParams& block) {
          fill(block);
          if (parsed) block.ToParams();
        },
        [](TolkParams& block) { TolkParamsAccess::share_bytes(block); },
        [&](TolkParams& block) { EXPECT_EQ(TolkParamsAccess::bytes(block), bytes); });
  }
}

TEST(OutOfMemory, ChangeOfSharedBytesLeavesThemInTheBlock) {
  const std::string bytes = encoded_sample();
  fail_each_allocation<TolkParams>(
      [&](TolkParams& block) { fill(block); },
      [](TolkParams& block) {
        const tolk::SharedBytes shared = TolkParamsAccess::share_bytes(block);
        block.AddInt(1);
      },
      [&](TolkParams& block) { EXPECT_EQ(TolkParamsAccess::bytes(block), bytes); });
}

TEST(OutOfMemory, StringOfTheHostIsMadeWhollyOrNotAtAll) {
  const std::string bytes = encoded_sample();
  fail_each_allocation<TolkParams>(
      [&](TolkParams& block) {
        fill(block);
        block.ToParams();
      },
      [](TolkParams& block) { block.GetParamas(); },
      [&](TolkParams& block) {
        EXPECT_EQ(*block.GetParamas(), bytes);
        EXPECT_STREQ(block.GetValue(0)->GetString(), long_text);
      });
}

TEST(OutOfMemory, RefusedInputLeavesTheBlockAlone) {
  fail_each_allocation<TolkParams>(
      [](TolkParams& block) {
        block.AddInt(7);
        block.ToParams();
      },
      [](TolkParams& block) { block.Parser("\x08 a text that needs memory of its own", 30); },
      [](TolkParams& block) { EXPECT_EQ(block.GetValue(0)->GetInt(), 7); });
}

TEST(OutOfMemory, ViewIsMadeWholeOrNotAtAll) {
  fail_each_allocation<TolkParams>(
      [](TolkParams& block) {
        for (const char* key : {"a", "b", "c"}) block.AddKeyValueInt(key, 1);
        block.ToParams();
      },
      [](TolkParams& block) { block.GetMapPtr(); },
      [](TolkParams& block) { EXPECT_EQ(block.GetMapPtr()->size(), 3U); });
}

TEST(OutOfMemory, CopiesAndAssignmentsLeaveTheSourceWhole) {
  fail_each_allocation<TolkParams>(
      [](TolkParams& block) {
        fill(block);
        block.ToParams();
      },
      [](TolkParams& block) {
        const TolkParams copy(block);
        TolkParams assigned;
        assigned = copy;
      },
      [](TolkParams& block) { EXPECT_STREQ(block.GetValue(0)->GetString(), long_text); });
}

void fill_value(TolkValue& value) {
  value = TolkValue(TolkValue::List);
  value.AddListString(long_text, 30);
  value.AddListMapString(long_text, long_text, 30);
}

TEST(OutOfMemory, ValuesAddAnElementWhollyOrNotAtAll) {
  fail_each_allocation<TolkValue>(
      fill_value,
      [](TolkValue& value) {
        value.AddListStream(long_text, 30);
        value.AddListMapStream("b", long_text, 30);
      },
      [](TolkValue& value) {
        for (const TolkValue* element : *value.GetList()) EXPECT_NE(element, nullptr);
      });
}

TEST(OutOfMemory, AssignmentKeepsTheOldValue) {
  fail_each_allocation<TolkValue>(
      [](TolkValue& value) { value = TolkValue(long_text, 30, TolkValue::String); },
      [](TolkValue& value) {
        TolkValue list;
        fill_value(list);
        value = list;
      },
      [](TolkValue& value) { EXPECT_EQ(value.GetString(), std::string(long_text, 30)); });
}

TEST(OutOfMemory, ListsAddCopyAndAssignWhollyOrNotAtAll) {
  fail_each_allocation<ListParams>([](ListParams& list) { list.AddInt(1); },
                                   [](ListParams& list) {
                                     list.AddString(long_text, 30);
                                     const ListParams copy(list);
                                     ListParams assigned;
                                     assigned = copy;
                                   },
                                   [](ListParams&) {});
}

// Room for a few lines, without an allocation. Prints another line from inside a write.
class FixedBuffer final : public std::streambuf {
 public:
  std::string_view text() const { return {text_.data(), size_}; }

 private:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    if (size_ == 0) tolk::platform::print_line("no memory to enqueue");
    std::copy_n(text, size, text_.data() + size_);
    size_ += static_cast<std::size_t>(size);
    return size;
  }

  std::array<char, 100> text_{};
  std::size_t size_ = 0;
};

TEST(OutOfMemory, ShortLinesComeOutUnlessTheyAreEnqueued) {
  FixedBuffer buffer;
  const tolk::test::RedirectedStdout redirected(buffer);
  const std::string long_line(300, 'x');
  allocations_until_failure = 0;
  EXPECT_NO_THROW(tolk::platform::print_line("one"));
  EXPECT_NO_THROW(tolk::platform::print_line("two"));
  EXPECT_NO_THROW(tolk::platform::print_line(long_line));
  allocations_until_failure = -1;
  EXPECT_EQ(buffer.text(), "one\ntwo\n");
}

}  // namespace
