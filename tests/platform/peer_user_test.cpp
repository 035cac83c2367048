#include "platform/peer_user.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <limits>
#include <string>
#include <utility>

namespace tolk::platform {
namespace {

constexpr unsigned kNobody = 65534;

TEST(TrustedUser, IsOnesOwn) {
  for (const unsigned user : {0U, 1U, 1000U, kNobody, std::numeric_limits<unsigned>::max()}) {
    EXPECT_TRUE(is_trusted_user(user, user)) << user;
  }
}

TEST(TrustedUser, IsTheAdministrator) { EXPECT_TRUE(is_trusted_user(0, 1000)); }

TEST(TrustedUser, IsNobodyElse) {
  EXPECT_FALSE(is_trusted_user(1001, 1000));
  EXPECT_FALSE(is_trusted_user(1000, 0)) << "the administrator does not trust the users";
  EXPECT_FALSE(is_trusted_user(kNobody, 1000));
}

// One end of a pair of sockets, in a handle of libuv's.
class PeerUserTest : public testing::Test {
 protected:
  PeerUserTest() {
    uv_loop_init(&loop_);
    uv_pipe_init(&loop_, &pipe_, 0);
  }
  ~PeerUserTest() override {
    uv_close(reinterpret_cast<uv_handle_t*>(&pipe_), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
    if (other_end_ >= 0) close(other_end_);
  }
  void open_pair() {
    std::array<int, 2> pair{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    other_end_ = pair[1];
    ASSERT_EQ(uv_pipe_open(&pipe_, pair[0]), 0);
  }

  uv_loop_t loop_{};
  uv_pipe_t pipe_{};
  int other_end_ = -1;
};

TEST_F(PeerUserTest, OwnProcessIsTrusted) {
  open_pair();
  const PeerUser peer = peer_user(&pipe_);
  EXPECT_TRUE(peer.trusted);
  EXPECT_EQ(peer.name, "");
  EXPECT_EQ(peer.user, std::to_string(geteuid()));
#if defined(__linux__)
  EXPECT_EQ(peer.process, getpid());
#endif
}

TEST_F(PeerUserTest, WhoeverMadeThePairIsThePeerAlsoOnceItIsGone) {
  open_pair();
  close(std::exchange(other_end_, -1));
  EXPECT_TRUE(peer_user(&pipe_).trusted);
}

TEST_F(PeerUserTest, PipeThatIsNotOpenIsNotTrusted) {
  const PeerUser peer = peer_user(&pipe_);
  EXPECT_FALSE(peer.trusted);
  EXPECT_EQ(peer.name, "EBADF");
  EXPECT_EQ(peer.user, "");
  EXPECT_EQ(peer.process, 0);
}

TEST_F(PeerUserTest, PipeWithoutAPeerIsNotTrusted) {
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(uv_pipe_open(&pipe_, descriptor), 0);
  EXPECT_FALSE(peer_user(&pipe_).trusted);
}

}  // namespace
}  // namespace tolk::platform
