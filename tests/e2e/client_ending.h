// The fixture of the tests of closed and of lost connections.
#pragma once

#include <atomic>
#include <thread>

#include "tests/e2e/client_fixture.h"

namespace tolk::test {

class Ending : public WithRawServer {
 protected:
  std::string close_lines() const {
    return "Client Closing!\nClient Closing!\nClient Closed!\n" + tcp_only("run out\n") +
           "Client Closed!\n";
  }
  bool goes_offline() {
    return eventually([this] { return !client->isok(); });
  }
  // Until the loop thread has released the handlers too.
  bool ends(const Counter& deleted, int count = 1) { return deleted.wait_for(count); }
};

// A handler that does something when it is deleted.
class LastWords final : public FunctionHandler {
 public:
  explicit LastWords(std::function<void()> words)
      : FunctionHandler([](int, TolkParams*, TolkParams*) {}), words_(std::move(words)) {}
  ~LastWords() override { words_(); }

 private:
  const std::function<void()> words_;
};

}  // namespace tolk::test
