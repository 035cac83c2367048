// Holds a thread of the library at one of its pause points, for as long as the test likes.
//
//   Hold hold("queue.before_post");
//   ... something that gets there, on a thread of its own ...
//   ASSERT_TRUE(hold.reached());
//   ... what shall happen meanwhile ...
//   hold.release();
//
// Thread: any. The first thread that gets to the point is held, later ones pass. A Hold that goes
// out of scope releases.
#pragma once

#include <memory>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

class Hold {
 public:
  explicit Hold(const char* point);
  ~Hold();
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

  // Until a thread is there.
  bool reached(Milliseconds limit = kLimit) const;
  void release();

  struct State;

 private:
  const std::shared_ptr<State> state_;
};

}  // namespace tolk::test
