#include "capi/address.h"

#include <gtest/gtest.h>

#include <string>

namespace tolk {
namespace {

std::string listened(std::string_view text) {
  const AddressParse parse = parse_address(text, AddressUse::listen);
  return parse.address ? parse.address->text() : std::string();
}

TEST(AddressText, TheFormsOfEachTransportAreReadAndWritten) {
  for (const char* const text :
       {"pipe:5000", "pipe:editor", "pipe:a.b_c-9", "tcp4:127.0.0.1:5000", "tcp4:0.0.0.0:0",
        "tcp6:[::1]:65535", "tcp6:[::ffff:1.2.3.4]:1", "fd:3"}) {
    EXPECT_EQ(listened(text), text);
  }
}

TEST(AddressText, ANumberIsAPipe) { EXPECT_EQ(listened("5000"), "pipe:5000"); }

TEST(AddressText, LocalhostIsTheLoopbackOfTheTransport) {
  EXPECT_EQ(listened("tcp4:localhost:5000"), "tcp4:127.0.0.1:5000");
  EXPECT_EQ(listened("tcp6:localhost:5000"), "tcp6:[::1]:5000");
}

TEST(AddressText, TheEndpointHasHostAndPort) {
  const AddressParse parse = parse_address("tcp6:[::1]:5000", AddressUse::connect);
  ASSERT_TRUE(parse.address);
  EXPECT_EQ(parse.address->endpoint.kind, Endpoint::Kind::tcp6);
  EXPECT_EQ(parse.address->endpoint.host, "::1");
  EXPECT_EQ(parse.address->endpoint.port(), 5000);
}

TEST(AddressText, OtherTextsAreRefusedWithAReason) {
  for (const char* const text : {"",
                                 "editor",
                                 "pipe:",
                                 "pipe:..",
                                 "pipe:.x",
                                 "pipe:a/b",
                                 "pipe:a\\b",
                                 "pipe:a b",
                                 "tcp4:",
                                 "tcp4:127.0.0.1",
                                 "tcp4:127.0.0.1:",
                                 "tcp4:127.0.0.1:x",
                                 "tcp4:127.0.0.1:-1",
                                 "tcp4:127.0.0.1:65536",
                                 "tcp4:example:80",
                                 "tcp4:::1:80",
                                 "tcp6:::1:80",
                                 "tcp6:[::1:80",
                                 "tcp6:[::1]",
                                 "tcp6:[127.0.0.1]:80",
                                 "tcp:1.2.3.4:5",
                                 "fd:",
                                 "fd:x",
                                 "fd:-1"}) {
    const AddressParse parse = parse_address(text, AddressUse::listen);
    EXPECT_FALSE(parse.address) << text;
    EXPECT_NE(parse.wrong, nullptr) << text;
  }
  EXPECT_FALSE(parse_address("pipe:" + std::string(65, 'a'), AddressUse::listen).address);
  EXPECT_FALSE(parse_address(std::string_view("pipe:a\0b", 8), AddressUse::listen).address);
}

TEST(AddressText, OnlyServersHavePortZeroAndDescriptors) {
  EXPECT_FALSE(parse_address("tcp4:127.0.0.1:0", AddressUse::connect).address);
  EXPECT_FALSE(parse_address("fd:3", AddressUse::connect).address);
}

}  // namespace
}  // namespace tolk
