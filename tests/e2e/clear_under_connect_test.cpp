// A host may clear the results of a client while the client connects. The answer to the version
// check is one of those results.
#include <atomic>
#include <string>
#include <thread>

#include "tests/e2e/client_fixture.h"

namespace tolk::test {
namespace {

class ClearUnderConnect : public OverTransports {};
TOLK_OVER_TRANSPORTS(ClearUnderConnect);

// The client reads this large answer for some 10 ms. Results are cleared about every millisecond:
// often enough to hit the reading, and seldom enough for the client to find the answer first. The
// result of a connect is not asserted, since a cleared answer counts as missing.
TEST_P(ClearUnderConnect, ResultsCanBeClearedWhileTheAnswerToTheVersionCheckIsRead) {
  const std::string large(40 << 20, 'v');
  const RawServer server(address, replying(BlockWriter().add(true).keyed("VERSION", large)));
  const ClientPtr client = make_client();
  std::atomic<bool> over{false};
  const Meanwhile clearing([&] {
    while (!over) {
      client->ClearRetvalMem();
      std::this_thread::sleep_for(Milliseconds(1));
    }
  });
  for (int round = 0; round < 2; ++round) {
    if (connect_client(client.get(), address)) client->close();
  }
  over = true;
  EXPECT_TRUE(clearing.is_done());
  EXPECT_EQ(server.greeted(), 2);
}

}  // namespace
}  // namespace tolk::test
