#include <gtest/gtest.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>

#include <memory>
#include <string>
#include <utility>

#include "params/content.h"
#include "tests/params/hex.h"

namespace {

using tolk::test::normal;
using tolk::test::to_hex;

std::string encoded(ListParams* list) {
  TolkParams block;
  block.AddList(list);
  return to_hex(TolkParamsAccess::bytes(block));
}

TEST(ListParams, EmptyListIsATagAndACountOfZero) {
  EXPECT_EQ(encoded(TolkParams::CreateListParams()), "06 00 00 00 00");
}

TEST(ListParams, EachKindOfElementIsItsRecord) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddInt(7);
  list->AddBool(true);
  list->AddDouble(1.0);
  list->AddString("ok", 2);
  list->AddStream("a\0b", 3);
  EXPECT_EQ(encoded(list), normal("06 05000000"
                                  "00 07000000 0A000000"
                                  "01 31 10000000"
                                  "02 000000000000F03F 1D000000"
                                  "03 02000000 6F6B 28000000"
                                  "04 03000000 610062 34000000"));
}

TEST(ListParams, StringElementTravelsUpToItsFirstZeroByte) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddString("a\0b", 3);
  EXPECT_EQ(encoded(list), normal("06 01000000 03 01000000 61 0B000000"));
}

TEST(ListParams, NullDataAndNegativeLengthsAreEmptyElements) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddString(nullptr, 4);
  list->AddStream("abc", -1);
  EXPECT_EQ(encoded(list), normal("06 02000000 03 00000000 0A000000 04 00000000 13000000"));
}

TEST(ListParams, CheckWordsCountFromTheStartOfTheBlock) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddInt(-1);
  TolkParams block;
  block.AddInt(1);
  block.AddList(list);
  EXPECT_EQ(to_hex(TolkParamsAccess::bytes(block)),
            normal("00 01000000 05000000 06 01000000 00 FFFFFFFF 13000000"));
}

TEST(ListParams, AddListIgnoresNull) { EXPECT_EQ(encoded(nullptr), ""); }

TEST(ListParams, CopiesShareElementsAndEndInAnyOrder) {
  for (const bool copy_first : {true, false}) {
    auto original = std::make_unique<ListParams>();
    original->AddString("text", 4);
    auto copy = std::make_unique<ListParams>(*original);
    auto& gone = copy_first ? copy : original;
    auto& left = copy_first ? original : copy;
    gone.reset();
    EXPECT_EQ(encoded(left.release()), normal("06 01000000 03 04000000 74657874 0E000000"));
  }
}

TEST(ListParams, AddListLeavesTheCopiesOfItsListAlone) {
  ListParams* list = TolkParams::CreateListParams();
  list->AddInt(7);
  auto copy = std::make_unique<ListParams>(*list);
  EXPECT_EQ(encoded(list), normal("06 01000000 00 07000000 0A000000"));
  EXPECT_EQ(encoded(copy.release()), normal("06 01000000 00 07000000 0A000000"));
}

TEST(ListParams, AssignmentReplacesTheElements) {
  auto target = std::make_unique<ListParams>();
  target->AddInt(1);
  {
    ListParams source;
    source.AddInt(2);
    *target = source;
    source.AddInt(3);
  }
  EXPECT_EQ(encoded(target.release()), normal("06 01000000 00 02000000 0A000000"));
}

TEST(ListParams, SelfAssignmentChangesNothing) {
  auto list = std::make_unique<ListParams>();
  list->AddInt(2);
  const ListParams& same = *list;
  *list = same;
  EXPECT_EQ(encoded(list.release()), normal("06 01000000 00 02000000 0A000000"));
}

}  // namespace
