#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

using tolk::v1::Address;

std::string why_not(const char* text) {
  const Error error = error_of([&] { const Address address(text); });
  EXPECT_EQ(error.code(), Errc::bad_address);
  EXPECT_EQ(error.address(), text);
  return error.detail();
}

TEST(LayerAddress, TextAndStructMeanTheSameAddress) {
  EXPECT_EQ(Address("pipe:5000").text(), Address(pipe{5000}).text());
  EXPECT_EQ(Address("tcp4:127.0.0.1:80").text(), Address(tcp4{"127.0.0.1", 80}).text());
  EXPECT_EQ(Address("tcp6:[::1]:80").text(), Address(tcp6{"::1", 80}).text());
  EXPECT_EQ(Address("tcp6:[::1]:80").text(), "tcp6:[::1]:80");
}

TEST(LayerAddress, BareNumberIsAPipe) {
  const Address address("5000");
  EXPECT_EQ(address.transport(), v1::Transport::pipe);
  EXPECT_EQ(address.number(), 5000);
  EXPECT_EQ(address.text(), "pipe:5000");
}

TEST(LayerAddress, PartsAreKeptAsWritten) {
  const Address address("tcp6:[fe80::1%eth0]:65535");
  EXPECT_EQ(address.transport(), v1::Transport::tcp6);
  EXPECT_EQ(address.host(), "fe80::1%eth0");
  EXPECT_EQ(address.number(), 65535);
}

TEST(LayerAddress, InvalidTextIsExplained) {
  for (const char* const none : {"", "nowhere", "5000x", "-1"}) {
    EXPECT_THAT(why_not(none), testing::StartsWith("an address is pipe:NUMBER, tcp4:HOST:PORT"));
  }
  EXPECT_THAT(why_not("pipe:"), testing::HasSubstr("the name of a pipe is a number"));
  EXPECT_THAT(why_not("pipe:-1"), testing::HasSubstr("the name of a pipe is a number"));
  EXPECT_THAT(why_not("pipe:5000x"), testing::HasSubstr("the name of a pipe is a number"));
  EXPECT_THAT(why_not("pipe:99999999999"), testing::HasSubstr("a number from 0 to 2147483647"));
  EXPECT_THAT(why_not("udp:1"), testing::HasSubstr("tcp4:HOST:PORT"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1"), testing::HasSubstr("port is missing"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1:x"), testing::HasSubstr("port is not a number"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1:0"), testing::HasSubstr("from 1 to 65535"));
  EXPECT_THAT(why_not("tcp4:127.0.0.1:65536"), testing::HasSubstr("from 1 to 65535"));
  EXPECT_THAT(why_not("tcp4:localhost:80"), testing::HasSubstr("names are not looked up"));
  EXPECT_THAT(why_not("tcp4:1.2.3:80"), testing::HasSubstr("no IPv4 address"));
  EXPECT_THAT(why_not("tcp4:1.2.3.256:80"), testing::HasSubstr("no IPv4 address"));
  EXPECT_THAT(why_not("tcp4:1.2.3.4.5:80"), testing::HasSubstr("no IPv4 address"));
  EXPECT_THAT(why_not("tcp4:127.0.0.01:80"), testing::HasSubstr("no IPv4 address"));
  EXPECT_THAT(why_not("tcp6:::1:80"), testing::HasSubstr("brackets"));
  EXPECT_THAT(why_not("tcp6:[host]:80"), testing::HasSubstr("no IPv6 address"));
}

TEST(LayerAddress, AnIp6AddressHasEightGroupsOrOneGap) {
  for (const char* host : {"::", "::1", "1::", "1:2:3:4:5:6:7:8", "fe80::1:2%eth0",
                           "::ffff:127.0.0.1", "1:2:3:4:5:6:127.0.0.1", "1:2:3:4:5:6:7::"}) {
    EXPECT_EQ(Address(tcp6{host, 80}).host(), host);
  }
  for (const char* host : {":::::", ":", "", ":::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3",
                           "12345::", "1:2:3:4:5:6:7:", ":1:2:3:4:5:6:7", "::1.2.3",
                           "1.2.3.4::", "1:2:3:4:5:6:7::8", "::1%", "::g"}) {
    EXPECT_EQ(error_of([&] {
                const Address address(tcp6{host, 80});
              }).code(),
              Errc::bad_address)
        << host;
  }
}

TEST(LayerAddress, StructsAreCheckedToo) {
  EXPECT_EQ(error_of([] { const Address address(pipe{-1}); }).code(), Errc::bad_address);
  EXPECT_EQ(error_of([] {
              const Address address(tcp4{"127.0.0.1", 70000});
            }).code(),
            Errc::bad_address);
  EXPECT_EQ(error_of([] {
              const Address address(tcp6{"127.0.0.1", 70});
            }).code(),
            Errc::bad_address);
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
