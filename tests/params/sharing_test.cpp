// Bytes that a block has with others: given out, taken over, and changed afterwards.
#include <gtest/gtest.h>
#include <tests/params/sample_block.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "params/content.h"
#include "tests/params/block_text.h"
#include "tests/params/hex.h"

namespace {

using Access = TolkParamsAccess;
using tolk::SharedBytes;
using tolk::test::expect_sample_block;
using tolk::test::fill_sample_block;
using tolk::test::sample_bytes;
using tolk::test::sample_text;

SharedBytes received(const std::string& bytes) {
  const auto memory = std::make_shared<std::string>(bytes);
  return {memory, *memory};
}

bool lies_in(const char* text, std::string_view bytes) {
  return text >= bytes.data() && text < bytes.data() + bytes.size();
}

// --- bytes that a block gives ---

TEST(ShareBytes, BuiltBytesAreNotCopied) {
  TolkParams block;
  fill_sample_block(block);
  const char* const before = Access::bytes(block).data();
  const SharedBytes first = Access::share_bytes(block);
  const SharedBytes second = Access::share_bytes(block);
  EXPECT_EQ(first.view.data(), before);
  EXPECT_EQ(second.view.data(), before);
  EXPECT_EQ(first.view, sample_bytes());
  EXPECT_EQ(block.Size(), static_cast<int>(first.view.size()));
  EXPECT_EQ(Access::bytes(block), first.view);
}

TEST(ShareBytes, OfAnEmptyBlockAreNone) {
  const TolkParams block;
  EXPECT_EQ(Access::share_bytes(block).view, "");
}

TEST(ShareBytes, OutliveTheBlock) {
  auto block = std::make_unique<TolkParams>();
  fill_sample_block(*block);
  const SharedBytes shared = Access::share_bytes(*block);
  block.reset();
  EXPECT_EQ(shared.view, sample_bytes());
}

TEST(ShareBytes, EveryChangeOfTheBlockLeavesThemAlone) {
  const std::string other = sample_bytes() + sample_bytes();
  const std::vector<std::function<void(TolkParams&)>> changes = {
      [](TolkParams& block) { block.AddInt(1); },
      [](TolkParams& block) { block.AddStream(sample_text, 30); },
      [](TolkParams& block) { block.AddKeyValueString("k", sample_text); },
      [](TolkParams& block) { block.AddList(TolkParams::CreateListParams()); },
      [](TolkParams& block) { block.GetParamas()->at(0) = 'x'; },
      [](TolkParams& block) { block.GetParamas()->append("x"); },
      [](TolkParams& block) { EXPECT_TRUE(block.ToParams()); },
      [&](TolkParams& block) { block.Parser(other.data(), static_cast<int>(other.size())); },
      [](TolkParams& block) { Access::parse_owned(block, sample_bytes()); },
      [](TolkParams& block) { block.Clear(); },
      [](TolkParams& block) { block = TolkParams(); }};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    TolkParams block;
    fill_sample_block(block);
    const SharedBytes shared = Access::share_bytes(block);
    changes[i](block);
    EXPECT_EQ(shared.view, sample_bytes()) << "change " << i;
    EXPECT_EQ(Access::bytes(block), *block.GetParamas()) << "change " << i;
  }
}

TEST(ShareBytes, AddedRecordsComeBehindThem) {
  TolkParams block;
  fill_sample_block(block);
  const SharedBytes shared = Access::share_bytes(block);
  block.AddInt(8);
  EXPECT_EQ(block.Size(), static_cast<int>(shared.view.size()) + 9);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.GetValue(4)->GetInt(), 8);
}

TEST(ShareBytes, ComeBackWithoutACopyWhenNobodyHoldsThemAnyMore) {
  TolkParams block;
  fill_sample_block(block);
  const char* const before = Access::share_bytes(block).view.data();
  EXPECT_EQ(block.GetParamasPtr(), before);
}

// The host may change the string at any time, even while the bytes are written.
TEST(ShareBytes, BytesThatTheHostCanChangeAreCopied) {
  TolkParams block;
  fill_sample_block(block);
  std::string* const buffer = block.GetParamas();
  const SharedBytes shared = Access::share_bytes(block);
  EXPECT_EQ(block.GetParamas(), buffer);
  buffer->assign("x");
  EXPECT_EQ(shared.view, sample_bytes());
  EXPECT_EQ(Access::share_bytes(block).view, "x");
}

TEST(ShareBytes, PointerOfTheHostStaysValid) {
  TolkParams block;
  fill_sample_block(block);
  const char* const bytes = block.GetParamasPtr();
  const SharedBytes shared = Access::share_bytes(block);
  EXPECT_EQ(block.GetParamasPtr(), bytes);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(std::string_view(bytes, static_cast<std::size_t>(block.GetParamasSize())), shared.view);
}

TEST(ShareBytes, ParsedNumbersAreNotCopied) {
  TolkParams block;
  block.AddInt(1);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(Access::share_bytes(block).view.data(), Access::share_bytes(block).view.data());
  EXPECT_EQ(tolk::test::to_hex(Access::share_bytes(block).view),
            tolk::test::normal("00 01000000 05000000"));
}

TEST(ShareBytes, ParsedTextsAreCopiedOnceAndTheValuesStay) {
  TolkParams block;
  fill_sample_block(block);
  ASSERT_TRUE(block.ToParams());
  const SharedBytes first = Access::share_bytes(block);
  EXPECT_EQ(first.view, sample_bytes());
  EXPECT_EQ(Access::share_bytes(block).view.data(), first.view.data());
  expect_sample_block(block);
}

TEST(ShareBytes, OfBlocksThatShareTheirContent) {
  TolkParams block;
  fill_sample_block(block);
  TolkParams twin;
  twin = block;
  const SharedBytes shared = Access::share_bytes(block);
  twin.AddInt(8);
  EXPECT_EQ(shared.view, sample_bytes());
  EXPECT_EQ(block.Size(), twin.Size());
}

TEST(ShareBytes, AreTheSameForACopyOfTheBlock) {
  TolkParams block;
  fill_sample_block(block);
  const SharedBytes shared = Access::share_bytes(block);
  TolkParams copy(block);
  copy.AddInt(8);
  EXPECT_EQ(shared.view, sample_bytes());
  EXPECT_EQ(Access::bytes(block), sample_bytes());
  EXPECT_EQ(copy.Size(), block.Size() + 9);
}

TEST(ShareBytes, OwnSharedBytesCanBeAppended) {
  TolkParams block;
  fill_sample_block(block);
  const SharedBytes shared = Access::share_bytes(block);
  block.AddStream(shared.view.data(), static_cast<long>(shared.view.size()));
  ASSERT_TRUE(block.ToParams());
  long size = 0;
  const char* const added = block.GetValue(4)->GetStream(size);
  EXPECT_EQ(std::string(added, static_cast<std::size_t>(size)), sample_bytes());
}

TEST(TakeBytes, BuiltBytesAreMovedEvenAfterTheyWereShared) {
  for (const bool shared : {false, true}) {
    TolkParams block;
    fill_sample_block(block);
    const char* const before = Access::bytes(block).data();
    if (shared) Access::share_bytes(block);
    const std::string taken = Access::take_bytes(block);
    EXPECT_EQ(taken.data(), before);
    EXPECT_EQ(taken, sample_bytes());
  }
}

TEST(TakeBytes, HeldBytesAreCopied) {
  TolkParams block;
  fill_sample_block(block);
  const SharedBytes shared = Access::share_bytes(block);
  EXPECT_EQ(Access::take_bytes(block), sample_bytes());
  EXPECT_EQ(shared.view, sample_bytes());
}

TEST(TakeBytes, ParsedBytesAreAsTheyCame) {
  TolkParams block;
  Access::parse_owned(block, sample_bytes());
  EXPECT_EQ(Access::take_bytes(block), sample_bytes());
  TolkParams again;
  Access::parse_owned(again, sample_bytes());
  TolkParams twin;
  twin = again;
  EXPECT_EQ(Access::take_bytes(again), sample_bytes());
  expect_sample_block(twin);
}

// Wherever the parse has put them.
TEST(TakeBytes, BytesThatWereCopiedOrSharedAreAsTheyCame) {
  const std::string bytes = sample_bytes();
  TolkParams copied;
  ASSERT_TRUE(copied.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_EQ(Access::take_bytes(copied), bytes);
  TolkParams shared;
  ASSERT_TRUE(Access::parse_shared(shared, received(bytes)));
  EXPECT_EQ(Access::take_bytes(shared), bytes);
}

// --- bytes that a block takes over ---

TEST(ParseShared, ValuesLookIntoTheBytes) {
  const SharedBytes bytes = received(sample_bytes());
  TolkParams block;
  EXPECT_TRUE(Access::parse_shared(block, bytes));
  expect_sample_block(block);
  EXPECT_TRUE(lies_in(block.GetValue(1)->GetString(), bytes.view));
  EXPECT_TRUE(lies_in(block.GetMap("name")->GetString(), bytes.view));
  EXPECT_EQ(block.Size(), static_cast<int>(bytes.view.size()));
}

TEST(ParseShared, HostsStringIsAsTheBytesCame) {
  TolkParams block;
  Access::parse_shared(block, received(sample_bytes()));
  std::string* const buffer = block.GetParamas();
  EXPECT_EQ(*buffer, sample_bytes());
  EXPECT_EQ(block.GetParamas(), buffer);
  buffer->assign(buffer->size(), 'x');
  expect_sample_block(block);
  EXPECT_FALSE(block.ToParams());
}

TEST(ParseShared, PartOfAMessageCanBeTheBytes) {
  const auto memory = std::make_shared<std::string>("xxx" + sample_bytes() + "yyy");
  TolkParams block;
  const std::string_view part = std::string_view(*memory).substr(3, memory->size() - 6);
  EXPECT_TRUE(Access::parse_shared(block, {memory, part}));
  expect_sample_block(block);
  EXPECT_EQ(memory->substr(0, 3) + memory->substr(memory->size() - 3), "xxxyyy");
  EXPECT_EQ(*block.GetParamas(), sample_bytes());
}

TEST(ParseShared, BytesAreHeldAsLongAsAValueLooksIntoThem) {
  auto memory = std::make_shared<std::string>(sample_bytes());
  const std::weak_ptr<std::string> watch = memory;
  auto block = std::make_unique<TolkParams>();
  Access::parse_shared(*block, {memory, *memory});
  memory.reset();
  auto copy = std::make_unique<TolkParams>(*block);
  const TolkValue list(*block->GetValue(3));
  block.reset();
  expect_sample_block(*copy);
  copy.reset();
  EXPECT_FALSE(watch.expired());
  EXPECT_STREQ(list.GetList()->at(0)->GetString(), sample_text);
}

TEST(ParseShared, BytesAreReleasedWithTheLastValue) {
  auto memory = std::make_shared<std::string>(sample_bytes());
  const std::weak_ptr<std::string> watch = memory;
  TolkParams block;
  Access::parse_shared(block, {std::move(memory), *watch.lock()});
  {
    const TolkValue list(*block.GetValue(3));
    block.Clear();
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());
}

TEST(ParseShared, ChangesOfTheBlockLeaveTheValuesAlone) {
  TolkParams block;
  Access::parse_shared(block, received(sample_bytes()));
  block.AddInt(8);
  expect_sample_block(block);
  EXPECT_EQ(block.Size(), static_cast<int>(sample_bytes().size()) + 9);
  ASSERT_TRUE(block.ToParams());
  EXPECT_EQ(block.ParamsSize(), 5);
}

TEST(ParseShared, CanBeSentOn) {
  TolkParams block;
  Access::parse_shared(block, received(sample_bytes()));
  EXPECT_EQ(Access::share_bytes(block).view, sample_bytes());
  EXPECT_EQ(Access::bytes(block), sample_bytes());
  expect_sample_block(block);
}

TEST(ParseShared, MalformedBytesKeepWhatCameBefore) {
  // In each place where the sample can end, with a wrong byte behind it.
  const std::string whole = sample_bytes();
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const std::string bytes = whole.substr(0, size) + '\x09';
    TolkParams plain;
    const bool verdict = plain.Parser(bytes.data(), static_cast<int>(bytes.size()));
    TolkParams block;
    EXPECT_EQ(Access::parse_shared(block, received(bytes)), verdict) << size;
    EXPECT_EQ(tolk::test::block_text(verdict, block), tolk::test::NaiveParser(bytes).text());
    EXPECT_EQ(*block.GetParamas(), bytes) << size;
    EXPECT_EQ(*plain.GetParamas(), bytes) << size;
  }
}

TEST(ParseShared, IntoABlockWhoseStringTheHostHas) {
  TolkParams block;
  std::string* const buffer = block.GetParamas();
  EXPECT_TRUE(Access::parse_shared(block, received(sample_bytes())));
  EXPECT_EQ(*buffer, sample_bytes());
  expect_sample_block(block);
}

TEST(ParseShared, ParsedSharedMakesAContent) {
  const auto content = Access::parsed_shared(received(sample_bytes()));
  EXPECT_EQ(content.get()->values.size(), 4U);
  EXPECT_EQ(content.get()->bytes(), sample_bytes());
}

}  // namespace
