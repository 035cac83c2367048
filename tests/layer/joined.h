// A connected server and client of the C++ layer, for tests of calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <tolk/tolk.hpp>
#include <utility>

#include "tests/e2e/support/raw_peer.h"
#include "tests/e2e/support/transports.h"
#include "tests/e2e/support/waiting.h"

namespace tolk::test {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

// As the layer writes it.
inline tolk::v1::Address layered(const Address& at) {
  if (at.is_pipe()) return tolk::pipe{at.port};
  if (at.transport == Transport::tcp4) return tolk::tcp4{at.host, std::stoi(at.port)};
  return tolk::tcp6{at.host, std::stoi(at.port)};
}

inline tolk::v1::Address fresh() { return layered(fresh_address(Transport::pipe)); }

// The Error that `what` throws; the test fails if it throws none.
template <class What>
Error error_of(const What& what) {
  try {
    what();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {Errc::misuse, "", "", "nothing was thrown"};
}

// The suite's tests call `client` and register what they need with `server`.
class JoinedTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = std::make_unique<Server>();
    server_->listen(fresh());
    client_ = std::make_unique<Client>();
    client_->connect(server_->address());
  }
  static void TearDownTestSuite() {
    client_.reset();
    server_.reset();
  }

  Server& server = *server_;
  Client& client = *client_;

 private:
  static inline std::unique_ptr<Server> server_;
  static inline std::unique_ptr<Client> client_;
};

}  // namespace tolk::test
