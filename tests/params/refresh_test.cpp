#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "params/content.h"

namespace {

using ContentRef = TolkParamsAccess::ContentRef;

// Bytes whose positional int and keyed text both tell `number`.
std::string numbered_bytes(int number) {
  TolkParams block;
  block.AddInt(number);
  block.AddKeyValueString("text", std::to_string(number).c_str());
  return *block.GetParamas();
}

ContentRef numbered(int number) { return TolkParamsAccess::parsed(numbered_bytes(number)); }

std::unique_ptr<TolkParams> refreshable(int number) {
  auto block = std::make_unique<TolkParams>();
  TolkParamsAccess::parse_owned(*block, numbered_bytes(number));
  TolkParamsAccess::make_refreshable(*block);
  return block;
}

TEST(Content, ParsedHoldsTheValuesWhateverTheVerdict) {
  std::string bytes = numbered_bytes(7);
  bytes += '\x08';
  const ContentRef content = TolkParamsAccess::parsed(bytes);
  EXPECT_EQ(content.get()->bytes(), bytes);
  EXPECT_EQ(content.get()->values.size(), 1U);
  EXPECT_EQ(content.get()->keyed.size(), 1U);
}

TEST(Content, ParseOwnedTellsTheVerdict) {
  TolkParams block;
  EXPECT_TRUE(TolkParamsAccess::parse_owned(block, numbered_bytes(7)));
  EXPECT_FALSE(TolkParamsAccess::parse_owned(block, "\x08"));
  EXPECT_EQ(TolkParamsAccess::bytes(block), "\x08");
}

TEST(Content, ReferencesAreCounted) {
  ContentRef first = numbered(1);
  const ContentRef second = first;
  EXPECT_EQ(second.get()->owners, 2U);
  const ContentRef moved = std::move(first);
  EXPECT_EQ(moved.get()->owners, 2U);
  first = second;
  EXPECT_EQ(moved.get()->owners, 3U);
  EXPECT_FALSE(ContentRef());
}

TEST(Refresh, SamePointerShowsTheNewContent) {
  const auto block = refreshable(1);
  TolkValue* const before = block->GetValue(0);
  bool touched = false;
  const ContentRef old = TolkParamsAccess::exchange(*block, numbered(2), &touched);
  EXPECT_EQ(before->GetInt(), 1);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 2);
  EXPECT_STREQ(block->GetMap("text")->GetString(), "2");
}

TEST(Refresh, UnusedContentCanGoAtOnce) {
  const auto block = refreshable(1);
  bool touched = true;
  TolkParamsAccess::exchange(*block, numbered(2), &touched);
  EXPECT_FALSE(touched);
  TolkParamsAccess::exchange(*block, numbered(3), &touched);
  EXPECT_FALSE(touched);
}

TEST(Refresh, EveryAccessorMarksTheContentAsUsed) {
  const std::vector<void (*)(TolkParams&)> accessors = {
      [](TolkParams& block) { block.AddInt(1); },
      [](TolkParams& block) { block.AddString("x"); },
      [](TolkParams& block) { block.AddKeyValueInt("k", 1); },
      [](TolkParams& block) { block.AddList(TolkParams::CreateListParams()); },
      [](TolkParams& block) { block.GetParamas(); },
      [](TolkParams& block) { block.GetParamasPtr(); },
      [](TolkParams& block) { block.GetParamasSize(); },
      [](TolkParams& block) { block.Size(); },
      [](TolkParams& block) { block.ParamsSize(); },
      [](TolkParams& block) { block.MapSize(); },
      [](TolkParams& block) { block.Parser(nullptr, 0); },
      [](TolkParams& block) { block.ToParams(); },
      [](TolkParams& block) { block.GetValue(0); },
      [](TolkParams& block) { block.GetMap("text"); },
      [](TolkParams& block) { block.GetMapPtr(); },
      [](TolkParams& block) { block.Clear(); },
      [](TolkParams& block) { const TolkParams copy(block); },
      [](TolkParams& block) { TolkParams().operator=(block); }};
  for (std::size_t i = 0; i < accessors.size(); ++i) {
    const auto block = refreshable(1);
    accessors[i](*block);
    bool touched = false;
    const ContentRef old = TolkParamsAccess::exchange(*block, numbered(2), &touched);
    EXPECT_TRUE(touched) << "accessor " << i;
    const ContentRef unused = TolkParamsAccess::exchange(*block, numbered(3), &touched);
    EXPECT_FALSE(touched) << "accessor " << i;
  }
}

TEST(Refresh, ContentOfAnOrdinaryBlockCountsAsUsed) {
  TolkParams block;
  bool touched = false;
  const ContentRef old = TolkParamsAccess::exchange(block, numbered(2), &touched);
  EXPECT_TRUE(touched);
  EXPECT_EQ(block.GetValue(0)->GetInt(), 2);
}

TEST(Refresh, CopiesAndAssignedBlocksAreNotRefreshed) {
  const auto block = refreshable(1);
  TolkParams copy(*block);
  TolkParams assigned;
  assigned = *block;
  bool touched = false;
  TolkParamsAccess::exchange(*block, numbered(2), &touched);
  EXPECT_EQ(copy.GetValue(0)->GetInt(), 1);
  EXPECT_EQ(assigned.GetValue(0)->GetInt(), 1);
}

TEST(Refresh, AssignmentToARefreshableBlockReplacesItsContent) {
  const auto block = refreshable(1);
  TolkParams source;
  TolkParamsAccess::parse_owned(source, numbered_bytes(5));
  *block = source;
  EXPECT_EQ(block->GetValue(0)->GetInt(), 5);
  bool touched = false;
  TolkParamsAccess::exchange(*block, numbered(6), &touched);
  EXPECT_EQ(source.GetValue(0)->GetInt(), 5);
  EXPECT_EQ(block->GetValue(0)->GetInt(), 6);
}

// A host that reads a result block over and over, while the library refreshes it.
class RefreshRace : public ::testing::Test {
 protected:
  static constexpr int refreshes = 3000;

  // Keeps used contents as the owner of a result block does.
  void refresh_all() {
    for (int i = 1; i <= refreshes; ++i) {
      bool touched = false;
      ContentRef old = TolkParamsAccess::exchange(*result, numbered(i), &touched);
      if (touched) kept.push_back(std::move(old));
    }
    done = true;
  }

  template <class Read>
  void run(int readers, Read read) {
    std::vector<std::thread> threads;
    for (int i = 0; i < readers; ++i) {
      threads.emplace_back([this, read] {
        do {
          read(*result);
        } while (!done);
      });
    }
    refresh_all();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(result->GetValue(0)->GetInt(), refreshes);
  }

  std::unique_ptr<TolkParams> result = refreshable(0);
  std::vector<ContentRef> kept;
  std::atomic<bool> done = false;
};

TEST_F(RefreshRace, ReadersSeeWholeContents) {
  run(2, [](TolkParams& block) {
    const int number = block.GetValue(0)->GetInt();
    const int later = std::stoi(block.GetMap("text")->GetString());
    ASSERT_LE(number, later);
  });
}

TEST_F(RefreshRace, CopiesAndAssignedBlocksAreWhole) {
  run(1, [](TolkParams& block) {
    TolkParams copy(block);
    TolkParams assigned;
    assigned = block;
    for (TolkParams* taken : {&copy, &assigned}) {
      ASSERT_EQ(std::to_string(taken->GetValue(0)->GetInt()), taken->GetMap("text")->GetString());
    }
  });
}

}  // namespace
