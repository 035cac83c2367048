#include <gtest/gtest.h>

#include "platform/pipe_name.h"

namespace tolk::platform {
namespace {

TEST(PipeAddress, IsTheLiteralPathAndTheName) {
  const PipeAddress address = pipe_address("4000");
  EXPECT_EQ(address.error, 0);
  EXPECT_EQ(address.path, "\\\\?\\pipe\\echo.sock.4000");
}

TEST(PipeAddress, TakesEveryName) {
  EXPECT_EQ(pipe_address("").path, "\\\\?\\pipe\\echo.sock.");
  EXPECT_EQ(pipe_address("a b/c").path, "\\\\?\\pipe\\echo.sock.a b/c");
}

}  // namespace
}  // namespace tolk::platform
