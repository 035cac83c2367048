// Connecting: what is printed, what is refused, what a second attempt does.
#include <atomic>

#include "tests/e2e/client_fixture.h"
#include "tests/e2e/support/process_state.h"

namespace tolk::test {
namespace {

class ClientConnect : public OverTransports {
 protected:
  const char* label() const {
    if (is_pipe()) return "Pipe";
    return GetParam() == Transport::tcp4 ? "Tcp4" : "Tcp6";
  }
  std::string tcp_only(const std::string& text) const { return is_pipe() ? "" : text; }
  bool connect() { return connect_client(client.get(), address); }

  std::string first_lines() const {
    return std::string(label()) + ": Tolk Version: 1.1.0.12\n" + tcp_only("run\n") +
           "connected: " + address.port + " \n";
  }
  std::string versions(const std::string& theirs) const {
    return "Check Server Version: \nserver " + theirs + "\nclient Tolk Version: 1.1.0.12 \n";
  }
  std::string close_lines() const {
    return "Client Closing!\nClient Closing!\nClient Closed!\n" + tcp_only("run out\n") +
           "Client Closed!\n";
  }
  std::string refusal(const std::string& theirs) const {
    return first_lines() + versions(theirs) + "Check Server Version Error!\n" + close_lines();
  }

  ClientPtr client = make_client();
};
TOLK_OVER_TRANSPORTS(ClientConnect);

TEST_P(ClientConnect, PrintsItsLinesOnSuccess) {
  RawServer server(address);
  const Capture out;
  EXPECT_TRUE(connect());
  EXPECT_TRUE(client->isok());
  EXPECT_EQ(out.text(), first_lines() + versions("Tolk Version: 1.1.0.12"));
}

TEST_P(ClientConnect, ToARealServerSucceeds) {
  const ServerPtr server = make_server();
  ASSERT_TRUE(start_server(server.get(), address));
  EXPECT_TRUE(connect());
  EXPECT_TRUE(client->isok());
}

TEST_P(ClientConnect, HandshakeIsACallWithTheVersionAsArgument) {
  std::optional<Message> question;
  Counter seen;
  RawServer server(address, [&](RawSocket& socket) {
    question = socket.read_message();
    if (question) socket.send_frame(reply_payload(*question, BlockWriter().add(true)));
    seen.add();
  });
  EXPECT_TRUE(connect());
  ASSERT_TRUE(seen.wait_for(1));
  ASSERT_TRUE(question);
  EXPECT_EQ(question->name(), "s_c_version");
  EXPECT_EQ(question->arguments(), version_arguments());
  EXPECT_TRUE(question->call_id().has_value());
  EXPECT_TRUE(question->token().has_value());
}

TEST_P(ClientConnect, FailsWithTwoLinesWhenNobodyListens) {
  const Capture out;
  EXPECT_FALSE(connect());
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(out.text(), std::string(label()) +
                            ": Tolk Version: 1.1.0.12\ncant connect: " + address.port + " \n");
}

TEST_P(ClientConnect, FailedAttemptKeepsTheHandlers) {
  Counter deleted;
  client->method("m", answering("still here", deleted));
  EXPECT_FALSE(connect());
  EXPECT_EQ(deleted.value(), 0);
  RawServer server(address);
  ASSERT_TRUE(connect());
  RawSocket peer = server.take();
  peer.send_frame(call_payload("m", 1));
  const auto reply = peer.read_message();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->string_at(0), "still here");
}

TEST_P(ClientConnect, FailsWhenTheServerRefusesTheVersion) {
  RawServer server(address, replying(BlockWriter().add(false).keyed(
                                "VERSION", std::string("Tolk Version: 1.1.0.13"))));
  const Capture out;
  EXPECT_FALSE(connect());
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(out.text(), refusal("Tolk Version: 1.1.0.13"));
}

TEST_P(ClientConnect, FailsUnlessTheReplyBeginsWithABool) {
  const std::string ours = kVersion;
  const BlockWriter replies[] = {
      BlockWriter().keyed("VERSION", ours),
      BlockWriter().add(1).keyed("VERSION", ours),
      BlockWriter().add(std::string("1")).keyed("VERSION", ours),
      BlockWriter().add(std::string("true")).add(true).keyed("VERSION", ours),
      BlockWriter().list({true}).keyed("VERSION", ours),
      BlockWriter().keyed("0", true).keyed("VERSION", ours),
  };
  for (const BlockWriter& reply : replies) {
    RawServer server(address, replying(reply));
    const Capture out;
    EXPECT_FALSE(connect());
    EXPECT_EQ(out.text(), refusal(ours));
  }
}

TEST_P(ClientConnect, VersionThatIsNotAStringIsPrintedEmpty) {
  const BlockWriter replies[] = {BlockWriter().add(false),
                                 BlockWriter().add(false).keyed("VERSION", 7),
                                 BlockWriter().add(false).keyed("VERSION", Stream{"1.1"})};
  for (const BlockWriter& reply : replies) {
    RawServer server(address, replying(reply));
    const Capture out;
    EXPECT_FALSE(connect());
    EXPECT_EQ(out.text(), refusal(""));
  }
}

TEST_P(ClientConnect, AcceptsAnyVersionThatTheServerAccepts) {
  RawServer server(address,
                   replying(BlockWriter().add(true).keyed("VERSION", std::string("anything"))));
  const Capture out;
  EXPECT_TRUE(connect());
  EXPECT_EQ(out.text(), first_lines() + versions("anything"));
}

TEST_P(ClientConnect, FailsWhenTheServerHangsUpAndCanBeRetried) {
  {
    RawServer server(address, hanging_up());
    EXPECT_FALSE(connect());
    EXPECT_FALSE(client->isok());
  }
  RawServer server(address);
  EXPECT_TRUE(connect());
}

TEST_P(ClientConnect, FailsWhenTheReplyIsCutOff) {
  RawServer server(address, [](RawSocket& socket) {
    if (socket.read_message()) socket.send(prefix(100) + "half");
    socket.close();
  });
  const Capture out;
  EXPECT_FALSE(connect());
  EXPECT_EQ(out.count("Check Server Version: timeout"), 1);
  EXPECT_EQ(out.count("Check Server Version Error!"), 1);
}

TEST_P(ClientConnect, OfAConnectedClientChangesNothing) {
  RawServer server(address);
  ASSERT_TRUE(connect());
  const Capture out;
  EXPECT_TRUE(connect());
  EXPECT_EQ(out.text(), "");
  EXPECT_TRUE(server.take().is_open());
  EXPECT_FALSE(server.take(kQuiet).is_open());
}

TEST_P(ClientConnect, FromTwoThreadsAtOnceMakesOneConnection) {
  RawServer server(address);
  for (int round = 0; round < 10; ++round) {
    std::atomic<int> connected{0};
    {
      const Meanwhile other([&] { connected += connect() ? 1 : 0; });
      connected += connect() ? 1 : 0;
      EXPECT_TRUE(other.is_done());
    }
    EXPECT_EQ(connected, 2);
    EXPECT_TRUE(server.take().is_open());
    client->close();
  }
  EXPECT_FALSE(server.take(kQuiet).is_open()) << "one a round";
}

TEST_P(ClientConnect, IgnoresItsBoolArgument) {
  RawServer server(address);
  const char* const port = address.port.c_str();
  const bool connected = is_pipe() ? client->InitTolkClient(port, true)
                         : GetParam() == Transport::tcp4
                             ? client->InitTolkClientTcp4(address.host.c_str(), port, true)
                             : client->InitTolkClientTcp6(address.host.c_str(), port, true);
  EXPECT_TRUE(connected);
}

TEST_P(ClientConnect, SucceedsAfterFailuresOnOtherTransports) {
  {
    RawServer server(address);
    ASSERT_TRUE(connect());
    client->close();
  }
  for (const Transport other : {Transport::tcp4, Transport::pipe, Transport::tcp6}) {
    EXPECT_FALSE(connect_client(client.get(), fresh_address(other)));
    EXPECT_FALSE(client->isok());
  }
  RawServer server(address);
  EXPECT_TRUE(connect());
}

TEST_P(ClientConnect, CallDuringTheHandshakeIsSent) {
  // isok() is true before the server has answered the version check.
  Gate gate;
  RawServer server(address, [gate](RawSocket& socket) mutable {
    const auto question = socket.read_message();
    gate.pass();
    if (question) socket.send_frame(reply_payload(*question, BlockWriter().add(true)));
  });
  const OpenAtEnd before_the_server_ends(gate);
  const Meanwhile connecting([this] { EXPECT_TRUE(connect()); });
  ASSERT_TRUE(gate.wait_entered());
  EXPECT_TRUE(client->isok());
  client->PostMsgFast("early", nullptr, 1);
  gate.open();
  ASSERT_TRUE(connecting.is_done());
  RawSocket peer = server.take();
  const auto message = peer.read_message();
  ASSERT_TRUE(message);
  EXPECT_EQ(message->name(), "early");
}

TEST_P(ClientConnect, CloseDuringTheHandshakeMakesItFail) {
  Gate gate;
  RawServer server(address, [gate](RawSocket& socket) mutable {
    socket.read_message();
    gate.pass();
  });
  const OpenAtEnd before_the_server_ends(gate);
  const Capture out;
  const Meanwhile connecting([this] { EXPECT_FALSE(connect()); });
  ASSERT_TRUE(gate.wait_entered());
  client->close();
  ASSERT_TRUE(connecting.is_done());
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(out.count("Check Server Version: timeout"), 1);
  EXPECT_EQ(out.count("Check Server Version Error!"), 1);
}

TEST_P(ClientConnect, SucceedsAfterEachOfAHundredLosses) {
  RawServer server(address);
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(connect()) << round;
    server.take().close();
    // The next connect comes at once, while the earlier session is still ending.
    ASSERT_TRUE(eventually([this] { return !client->isok(); }));
  }
}

TEST(ClientConnectByPipe, FailsAfterTenSecondsOfSilence) {
  const Address address = fresh_address(Transport::pipe);
  RawServer server(address, silent());
  const ClientPtr client = make_client();
  const Capture out;
  const Stopwatch watch;
  EXPECT_FALSE(connect_client(client.get(), address));
  EXPECT_GE(watch.elapsed(), Milliseconds(9990));
  EXPECT_EQ(out.text(), "Pipe: Tolk Version: 1.1.0.12\nconnected: " + address.port +
                            " \nCheck Server Version: timeout\nCheck Server Version Error!\n"
                            "Client Closing!\nClient Closing!\nClient Closed!\nClient Closed!\n");
}

TEST(ClientConnectByPipe, FailsIfTheNameIsTooLongForASocketAddress) {
  const ClientPtr client = make_client();
  const std::string name(200, 'n');
  const Capture out;
  EXPECT_FALSE(client->InitTolkClient(name.c_str(), false));
  EXPECT_EQ(out.text(), "Pipe: Tolk Version: 1.1.0.12\ncant connect: " + name + " \n");
}

TEST(ClientConnectByPipe, NameNeedNotBeANumber) {
  Address address = fresh_address(Transport::pipe);
  address.port = "abc" + address.port;
  RawServer server(address);
  const ClientPtr client = make_client();
  EXPECT_TRUE(client->InitTolkClient(address.port.c_str(), false));
}

TEST(ClientConnectByTcp4, NullTextsCountAsEmpty) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_FALSE(client->InitTolkClientTcp4(nullptr, nullptr, false));
  EXPECT_EQ(out.text(), "Tcp4: Tolk Version: 1.1.0.12\nuv_ip4_addr error\ncant connect:  \n");
}

TEST(ClientConnectByTcp4, InvalidAddressReachesNoLocalServer) {
  const Address address = fresh_address(Transport::tcp4);
  RawServer server(address);
  const ClientPtr client = make_client();
  for (const char* const host : {"bad", "", "localhost", "256.0.0.1", "::1", "127.0.0.1 "}) {
    const Capture out;
    EXPECT_FALSE(client->InitTolkClientTcp4(host, address.port.c_str(), false)) << host;
    EXPECT_EQ(out.text(), "Tcp4: Tolk Version: 1.1.0.12\nuv_ip4_addr error\ncant connect: " +
                              address.port + " \n");
  }
  EXPECT_FALSE(server.take(kQuiet).is_open());
}

// The system refuses a stream to a broadcast or multicast address before anything is sent.
TEST(ClientConnectByTcp4, ImmediateRefusalPrintsALine) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_FALSE(client->InitTolkClientTcp4("255.255.255.255", "1", false));
  EXPECT_EQ(out.text(), "Tcp4: Tolk Version: 1.1.0.12\nuv_tcp_connect error\ncant connect: 1 \n");
}

TEST(ClientConnectByTcp6, ImmediateRefusalPrintsNoLineOfItsOwn) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_FALSE(client->InitTolkClientTcp6("ff02::1", "1", false));
  EXPECT_EQ(out.text(), "Tcp6: Tolk Version: 1.1.0.12\ncant connect: 1 \n");
}

TEST(ClientConnectByTcp6, InvalidAddressPrintsNoLineOfItsOwn) {
  const Address address = fresh_address(Transport::tcp6);
  RawServer server(address);
  const ClientPtr client = make_client();
  for (const char* const host : {"bad", "", "127.0.0.1", "::1::"}) {
    const Capture out;
    EXPECT_FALSE(client->InitTolkClientTcp6(host, address.port.c_str(), false)) << host;
    EXPECT_EQ(out.text(), "Tcp6: Tolk Version: 1.1.0.12\ncant connect: " + address.port + " \n");
  }
  EXPECT_FALSE(server.take(kQuiet).is_open());
}

TEST(ClientConnectByTcp4, NonNumericPortIsPortZero) {
  const ClientPtr client = make_client();
  const Capture out;
  EXPECT_FALSE(client->InitTolkClientTcp4("127.0.0.1", "port", false));
  EXPECT_EQ(out.line_starting("cant connect"), "cant connect: port ");
}

TEST(ClientConnectByTcp4, PortIsParsedAsANumberAndPrintedAsGiven) {
  const Address address = fresh_address(Transport::tcp4);
  RawServer server(address);
  const ClientPtr client = make_client();
  const std::string port = " +" + address.port + "x";
  const Capture out;
  EXPECT_TRUE(client->InitTolkClientTcp4("127.0.0.1", port.c_str(), false));
  EXPECT_EQ(out.line_starting("connected"), "connected: " + port + " ");
}

}  // namespace
}  // namespace tolk::test
