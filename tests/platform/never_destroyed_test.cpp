#include "platform/never_destroyed.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

namespace {

struct Counted {
  Counted(int& destroyed, std::unique_ptr<int> given)
      : destroyed_count(destroyed), number(std::move(given)) {}
  ~Counted() { ++destroyed_count; }
  int& destroyed_count;
  std::unique_ptr<int> number;
};

TEST(NeverDestroyed, HoldsWhatItsArgumentsMakeAndNeverEndsIt) {
  int destroyed_count = 0;
  int* number = nullptr;
  {
    tolk::NeverDestroyed<Counted> object(destroyed_count, std::make_unique<int>(7));
    EXPECT_EQ(*object->number, 7);
    EXPECT_EQ(&(*object).destroyed_count, &destroyed_count);
    number = object->number.release();
  }
  EXPECT_EQ(destroyed_count, 0);
  delete number;
}

}  // namespace
