#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

using tolk::v1::Address;

Error why_not(const char* text) {
  Server server;
  Error error = error_of([&] { server.listen(text); });
  EXPECT_EQ(error.code(), Errc::bad_address) << text;
  EXPECT_EQ(error.address(), Address(text).text());
  EXPECT_EQ(error_of([&] { connect(text); }).code(), Errc::bad_address) << text;
  return error;
}

TEST(LayerAddress, TextAndStructMeanTheSameAddress) {
  EXPECT_EQ(Address("pipe:5000").text(), Address(pipe{5000}).text());
  EXPECT_EQ(Address("pipe:editor").text(), Address(pipe{"editor"}).text());
  EXPECT_EQ(Address("tcp4:127.0.0.1:80").text(), Address(tcp4{"127.0.0.1", 80}).text());
  EXPECT_EQ(Address("tcp4:localhost:80").text(), Address(tcp4{"localhost", 80}).text());
  EXPECT_EQ(Address("tcp6:[::1]:80").text(), Address(tcp6{"::1", 80}).text());
  EXPECT_EQ(Address("tcp6:localhost:80").text(), Address(tcp6{"localhost", 80}).text());
}

TEST(LayerAddress, BareNumberIsAPipe) { EXPECT_EQ(Address("5000").text(), "pipe:5000"); }

TEST(LayerAddress, InvalidTextIsExplainedWhenItIsUsed) {
  for (const char* const none : {"", "nowhere", "5000x", "-1", "udp:1"}) {
    EXPECT_THAT(why_not(none).detail(), testing::StartsWith("an address is pipe:NAME, tcp4:HOST"));
  }
  EXPECT_THAT(why_not("pipe:").detail(), testing::HasSubstr("the name of a pipe has 1 to 64"));
  EXPECT_THAT(why_not("pipe:../x").detail(), testing::HasSubstr("the name of a pipe has 1 to 64"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1").detail(), testing::HasSubstr("port is missing"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1:x").detail(), testing::HasSubstr("a port is a number"));
  EXPECT_THAT(why_not("tcp4:1.2.3.256:80").detail(), testing::HasSubstr("not an IPv4 address"));
  EXPECT_THAT(why_not("tcp6:::1:80").detail(), testing::HasSubstr("brackets"));
  EXPECT_STREQ(why_not("nowhere").hint(),
               "write pipe:5000, tcp4:127.0.0.1:5000, tcp6:[::1]:5000 or 5000");
}

TEST(LayerAddress, PipesMayHaveNames) {
  const std::string name = "editor-" + fresh_address(Transport::pipe).port;
  Server server;
  server.listen(tolk::pipe{name});
  EXPECT_EQ(server.address(), "pipe:" + name);
  EXPECT_TRUE(connect("pipe:" + name).connected());
}

TEST(LayerAddress, PortZeroIsChosenByTheSystem) {
  for (const char* const any : {"tcp4:localhost:0", "tcp6:localhost:0"}) {
    Server server;
    server.on("one", [] { return 1; });
    server.listen(any);
    EXPECT_GT(server.port(), 0);
    EXPECT_THAT(server.address(), testing::EndsWith(":" + std::to_string(server.port())));
    EXPECT_EQ(connect(server.address()).call<int>("one").value(), 1);
  }
}

TEST(LayerError, MessageHasMethodAddressAndReason) {
  const Error error(Errc::timed_out, "add", "pipe:5000", "timed out after 500 ms");
  EXPECT_STREQ(error.what(), "add at pipe:5000: timed out after 500 ms");
  EXPECT_STREQ(to_string(error.code()), "timed_out");
  EXPECT_STREQ(Error(Errc::handler_failed, "add", "", "no").what(), "add: handler failed: no");
  EXPECT_STREQ(Error(Errc::gone, "", "5", "gone").what(), "5: gone");
  EXPECT_STREQ(Error(Errc::gone, "", "", "gone").what(), "gone");
}

TEST(LayerError, EveryCodeHasANameAndAHint) {
  for (int code = 0; code <= static_cast<int>(Errc::misuse); ++code) {
    const Error error(static_cast<Errc>(code), "", "", "");
    EXPECT_STRNE(to_string(error.code()), "");
    EXPECT_STRNE(error.hint(), "");
  }
  EXPECT_STREQ(to_string(Errc::misuse), "misuse");
}

TEST(LayerResult, ValueThrowsTheError) {
  const Result<int> failed(Error(Errc::gone, "m", "a", "gone"));
  EXPECT_FALSE(failed);
  EXPECT_EQ(failed.value_or(7), 7);
  EXPECT_EQ(error_of([&] { failed.value(); }).code(), Errc::gone);
  const Result<int> done(3);
  EXPECT_TRUE(done);
  EXPECT_EQ(*done, 3);
  EXPECT_EQ(done.value_or(7), 3);
  EXPECT_EQ(error_of([] { Result<void>(Error(Errc::gone, "", "", "")).value(); }).code(),
            Errc::gone);
}

}  // namespace
}  // namespace tolk::test
