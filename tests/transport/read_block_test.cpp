// The place of a loop's reads: which messages keep it, and what the next read gets then.
#include "transport/read_block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace {

using tolk::ReadBlock;
using tolk::SharedBytes;

constexpr std::size_t kPlace = 100;
constexpr std::size_t kLarge = kPlace / 2;

class ReadBlocks : public testing::Test {
 protected:
  // A read that fills the block, with a message of `size` at its end.
  SharedBytes read(char byte, std::size_t size) {
    const std::span<char> place = block.get(kPlace);
    std::fill(place.begin(), place.end(), byte);
    SharedBytes message{nullptr, {place.data() + place.size() - size, size}};
    block.share_with(message);
    return message;
  }
  // Whether the next read gets the memory in which this message lies.
  bool gets_memory_of(const SharedBytes& message) {
    const std::span<char> place = block.get(kPlace);
    return place.data() + place.size() == message.view.data() + message.view.size();
  }

  ReadBlock block;
};

TEST_F(ReadBlocks, GiveAtLeastWhatIsAskedFor) {
  EXPECT_EQ(block.get(kPlace).size(), kPlace);
  const std::span<char> larger = block.get(10 * kPlace);
  ASSERT_EQ(larger.size(), 10 * kPlace);
  std::fill(larger.begin(), larger.end(), 'x');
  EXPECT_EQ(block.get(kPlace).data(), larger.data()) << "they keep what they have";
}

TEST_F(ReadBlocks, ServeReadAfterReadWhileNoMessageKeepsThem) {
  const char* const first = block.get(kPlace).data();
  for (int i = 0; i < 3; ++i) {
    const SharedBytes message = read('x', kLarge - 1);
    EXPECT_EQ(message.owner, nullptr) << "a small message does not keep a large block";
    block.end_of_read();
    EXPECT_EQ(block.get(kPlace).data(), first);
  }
}

TEST_F(ReadBlocks, StayWithALargeMessageAndTheNextReadGetsAnother) {
  const SharedBytes first = read('1', kLarge);
  ASSERT_NE(first.owner, nullptr);
  EXPECT_TRUE(gets_memory_of(first)) << "the read is still under way";
  block.end_of_read();
  const SharedBytes second = read('2', kPlace);
  ASSERT_NE(second.owner, nullptr);
  block.end_of_read();
  read('3', kPlace);
  EXPECT_EQ(std::count(first.view.begin(), first.view.end(), '1'), kLarge);
  EXPECT_EQ(std::count(second.view.begin(), second.view.end(), '2'), kPlace);
}

TEST_F(ReadBlocks, GoWithTheMessageThatKeepsThem) {
  SharedBytes message = read('x', kPlace);
  const std::weak_ptr<const void> memory = message.owner;
  block.end_of_read();
  EXPECT_FALSE(memory.expired());
  message.owner.reset();
  EXPECT_TRUE(memory.expired());
}

TEST_F(ReadBlocks, LeaveMessagesAloneThatLieElsewhere) {
  static char static_place[kPlace];
  char automatic_place[kPlace];
  read('x', 1);
  for (const char* const place : {&static_place[0], &automatic_place[0]}) {
    SharedBytes message{nullptr, {place, kPlace}};
    block.share_with(message);
    EXPECT_EQ(message.owner, nullptr);
  }
  const SharedBytes own = read('x', 1);
  block.end_of_read();
  EXPECT_TRUE(gets_memory_of(own)) << "no message keeps it";
}

TEST_F(ReadBlocks, LeaveTheOwnerOfAMessageAlone) {
  const auto owner = std::make_shared<int>(0);
  const std::span<char> place = block.get(kPlace);
  SharedBytes message{owner, {place.data(), place.size()}};
  block.share_with(message);
  EXPECT_EQ(message.owner, owner);
}

}  // namespace
