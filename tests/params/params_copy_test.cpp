#include <gtest/gtest.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "params/content.h"

namespace {

std::unique_ptr<TolkParams> sample() {
  auto block = std::make_unique<TolkParams>();
  block->AddInt(7);
  block->AddString("text");
  block->AddKeyValueString("k", "keyed");
  EXPECT_TRUE(block->ToParams());
  return block;
}

void expect_sample(TolkParams& block) {
  EXPECT_EQ(block.ParamsSize(), 2);
  EXPECT_EQ(block.GetValue(0)->GetInt(), 7);
  EXPECT_STREQ(block.GetValue(1)->GetString(), "text");
  EXPECT_STREQ(block.GetMap("k")->GetString(), "keyed");
}

TEST(ParamsCopy, CopiesTheBytes) {
  const auto source = sample();
  TolkParams copy(*source);
  copy.AddInt(1);
  EXPECT_EQ(copy.Size(), source->Size() + 9);
}

TEST(ParamsCopy, SharesTheValues) {
  const auto source = sample();
  TolkParams copy(*source);
  EXPECT_EQ(copy.GetValue(0), source->GetValue(0));
  EXPECT_EQ(copy.GetMap("k"), source->GetMap("k"));
}

TEST(ParamsCopy, HasItsOwnViewAndNoFlag) {
  const auto source = sample();
  source->GetBuffer();
  const char* const source_key = source->GetMapPtr()->begin()->first;
  TolkParams copy(*source);
  EXPECT_FALSE(copy.IsGetBuffer());
  EXPECT_NE(copy.GetMapPtr()->begin()->first, source_key);
  EXPECT_EQ(copy.GetMapPtr()->begin()->second, source->GetMap("k"));
}

TEST(ParamsCopy, OutlivesItsSourceInEitherOrder) {
  auto source = sample();
  auto copy = std::make_unique<TolkParams>(*source);
  source.reset();
  expect_sample(*copy);
  auto second = std::make_unique<TolkParams>(*copy);
  second.reset();
  expect_sample(*copy);
}

TEST(ParamsCopy, ClearOfOneLeavesTheOthersValues) {
  const auto source = sample();
  TolkParams copy(*source);
  source->Clear();
  expect_sample(copy);
  EXPECT_EQ(source->ParamsSize(), 0);
}

TEST(ParamsAssign, BothReferToTheSameBytesAndValues) {
  const auto source = sample();
  TolkParams target;
  target = *source;
  target.AddInt(1);
  EXPECT_EQ(source->Size(), target.Size());
  EXPECT_EQ(source->GetParamas(), target.GetParamas());
  EXPECT_EQ(source->GetMapPtr(), target.GetMapPtr());
  source->Clear();
  EXPECT_EQ(target.Size(), 0);
  EXPECT_EQ(target.ParamsSize(), 0);
}

TEST(ParamsAssign, CopiesTheFlag) {
  TolkParams source;
  source.GetBuffer();
  TolkParams target;
  target = source;
  EXPECT_TRUE(target.IsGetBuffer());
}

TEST(ParamsAssign, SharedContentEndsWithTheLastInEveryOrder) {
  std::vector<std::size_t> order = {0, 1, 2};
  do {
    std::unique_ptr<TolkParams> blocks[3];
    blocks[0] = sample();
    for (const std::size_t i : {1U, 2U}) {
      blocks[i] = std::make_unique<TolkParams>();
      blocks[i]->AddInt(1);
      *blocks[i] = *blocks[i - 1];
    }
    blocks[order[0]].reset();
    blocks[order[1]].reset();
    expect_sample(*blocks[order[2]]);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(ParamsAssign, ReleasesWhatTheTargetHeld) {
  const auto source = sample();
  auto target = sample();
  TolkParams watcher;
  watcher = *target;
  auto& old_content = TolkParamsAccess::content(watcher);
  EXPECT_EQ(old_content.owners, 2U);
  *target = *source;
  EXPECT_EQ(old_content.owners, 1U);
}

TEST(ParamsAssign, ToItselfOrToItsTwinChangesNothing) {
  auto block = sample();
  const TolkParams& same = *block;
  *block = same;
  expect_sample(*block);
  TolkParams twin;
  twin = *block;
  twin = *block;
  *block = twin;
  block.reset();
  expect_sample(twin);
}

TEST(ParamsAssign, VectorsOfBlocksWork) {
  std::vector<TolkParams> blocks(2);
  blocks[0] = *sample();
  blocks.insert(blocks.begin(), TolkParams());
  blocks.erase(blocks.begin());
  expect_sample(blocks[0]);
}

TEST(ParamsAssign, ParseOfOneIsSeenThroughTheOther) {
  const auto source = sample();
  TolkParams target;
  target = *source;
  TolkParams other;
  other.AddInt(99);
  ASSERT_TRUE(target.Parser(other.GetParamasPtr(), other.Size()));
  ASSERT_EQ(source->ParamsSize(), 1);
  EXPECT_EQ(source->GetValue(0)->GetInt(), 99);
}

}  // namespace
