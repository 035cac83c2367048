#include "transport/envelope.h"

#include <gtest/gtest.h>
#include <tests/params/hex.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <locale>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "params/encoder.h"
#include "tests/one_of.h"
#include "transport/reserved_names.h"

namespace {

using namespace std::string_view_literals;
using tolk::Envelope;
using tolk::test::hex;
using tolk::test::to_hex;
using Block = tolk::Encoder<std::string>;

// What may follow a key.
enum class Kind { absent, no_value, integer, boolean, real, string, stream };
constexpr Kind kKinds[] = {Kind::absent, Kind::no_value, Kind::integer, Kind::boolean,
                           Kind::real,   Kind::string,   Kind::stream};
constexpr const char* kKeys[] = {tolk::kKeyName, tolk::kKeyCallId, tolk::kKeyArguments,
                                 tolk::kKeyToken};

constexpr int kInteger = -7;
constexpr double kReal = 3.25e-300;
constexpr auto kBytes = "ab\0c"sv;

void add_keyed(Block& block, std::string_view key, Kind kind) {
  if (kind == Kind::absent) return;
  block.add_key(key);
  if (kind == Kind::no_value) block.add_list_header(0);
  if (kind == Kind::integer) block.add_int(kInteger);
  if (kind == Kind::boolean) block.add_bool(true);
  if (kind == Kind::real) block.add_double(kReal);
  if (kind == Kind::string) block.add_string(kBytes);
  if (kind == Kind::stream) block.add_stream(kBytes);
}

std::string keyed(std::string_view key, Kind first, Kind second = Kind::absent) {
  std::string bytes;
  Block block(bytes, 0);
  block.add_int(1);
  add_keyed(block, key, first);
  block.add_string("between");
  add_keyed(block, key, second);
  return bytes;
}

std::int32_t first_bytes_of(double value) {
  std::int32_t low = 0;
  std::memcpy(&low, &value, sizeof low);
  return low;
}

struct Expected {
  std::optional<std::string_view> name;
  std::optional<int> call_id;
  std::optional<std::string_view> arguments;
  std::optional<std::string_view> token;
};

std::optional<std::string_view> name_of(Kind kind) {
  if (kind == Kind::absent || kind == Kind::no_value) return std::nullopt;
  return kind == Kind::string || kind == Kind::stream ? "ab"sv : ""sv;
}

std::optional<int> number_of(Kind kind) {
  switch (kind) {
    case Kind::absent:
    case Kind::no_value:
      return std::nullopt;
    case Kind::integer:
      return kInteger;
    case Kind::boolean:
      return 1;
    case Kind::real:
      return first_bytes_of(kReal);
    default:
      return 0;
  }
}

// The reading of a block that holds one envelope key, `last` being what it holds in the end.
Expected expected(std::string_view key, Kind last) {
  Expected result;
  const bool has_bytes = last == Kind::string || last == Kind::stream;
  if (key == tolk::kKeyName) result.name = name_of(last);
  if (key == tolk::kKeyCallId) result.call_id = number_of(last);
  if (key == tolk::kKeyArguments && has_bytes) result.arguments = kBytes;
  if (key == tolk::kKeyToken && last == Kind::string) result.token = "ab"sv;
  return result;
}

void expect_fields(const Envelope& envelope, const Expected& fields, const std::string& what) {
  EXPECT_EQ(envelope.name, fields.name) << what;
  EXPECT_EQ(envelope.call_id, fields.call_id) << what;
  EXPECT_EQ(envelope.arguments, fields.arguments) << what;
  EXPECT_EQ(envelope.token, fields.token) << what;
}

std::string label(std::string_view key, Kind first, Kind second) {
  return std::string(key) + " " + std::to_string(static_cast<int>(first)) + " then " +
         std::to_string(static_cast<int>(second));
}

TEST(Envelope, EveryKeyIsReadFromEveryTypeAndTheLastOfTwoCounts) {
  for (const char* const key : kKeys) {
    for (const Kind first : kKinds) {
      for (const Kind second : kKinds) {
        const std::string payload = keyed(key, first, second);
        const Envelope envelope = Envelope::scan(payload);
        EXPECT_TRUE(envelope.well_formed);
        const Kind last = second == Kind::absent ? first : second;
        expect_fields(envelope, expected(key, last), label(key, first, second));
      }
    }
  }
}

TEST(Envelope, WhatStoodBeforeAMalformedRecordIsKept) {
  for (const char* const key : kKeys) {
    for (const Kind kind : kKinds) {
      const std::string payload = keyed(key, kind) + "\x09";
      const Envelope envelope = Envelope::scan(payload);
      EXPECT_FALSE(envelope.well_formed);
      expect_fields(envelope, expected(key, kind), label(key, kind, Kind::absent));
    }
  }
}

TEST(Envelope, NothingBehindAMalformedRecordIsRead) {
  for (const char* const key : kKeys) {
    const std::string payload = "\x09" + keyed(key, Kind::string);
    const Envelope envelope = Envelope::scan(payload);
    EXPECT_FALSE(envelope.well_formed);
    expect_fields(envelope, Expected(), key);
  }
}

TEST(Envelope, EmptyPayloadIsWellFormedAndNameless) {
  const Envelope envelope = Envelope::scan("");
  EXPECT_TRUE(envelope.well_formed);
  expect_fields(envelope, Expected(), "empty");
  EXPECT_FALSE(envelope.is_reply());
}

TEST(Envelope, ReplyIsExactlyRetval) {
  for (const auto& [name, reply] :
       {std::pair("retval"sv, true), std::pair("retval\0x"sv, true), std::pair("Retval"sv, false),
        std::pair("retval "sv, false), std::pair("retva"sv, false), std::pair(""sv, false)}) {
    std::string payload;
    Block block(payload, 0);
    block.add_key(tolk::kKeyName);
    block.add_string(name);
    EXPECT_EQ(Envelope::scan(payload).is_reply(), reply) << name;
  }
}

TEST(Envelope, KeysInsideAMapAreNotEnvelopeKeysButDropEarlierOnes) {
  std::string payload;
  Block block(payload, 0);
  add_keyed(block, tolk::kKeyName, Kind::string);
  payload += hex("07 01 00 00 00");
  add_keyed(block, tolk::kKeyName, Kind::string);
  const Envelope envelope = Envelope::scan(payload);
  EXPECT_TRUE(envelope.well_formed);
  EXPECT_EQ(envelope.name, std::nullopt);
}

// The envelope as a block tells it that was parsed in the ordinary way.
Expected read_from(TolkParams& block) {
  Expected fields;
  if (const TolkValue* name = block.GetMap(tolk::kKeyName)) {
    fields.name = tolk::read::text(name).value_or("");
  }
  if (const TolkValue* id = block.GetMap(tolk::kKeyCallId)) fields.call_id = tolk::read::number(id);
  fields.arguments = tolk::read::bytes(block.GetMap(tolk::kKeyArguments));
  const TolkValue* const token = block.GetMap(tolk::kKeyToken);
  if (token != nullptr && token->IsString()) fields.token = tolk::read::text(token);
  return fields;
}

void expect_as_parsed(const std::string& payload) {
  TolkParams block;
  const bool verdict = block.Parser(payload.data(), static_cast<int>(payload.size()));
  const Envelope envelope = Envelope::scan(payload);
  EXPECT_EQ(envelope.well_formed, verdict) << to_hex(payload);
  expect_fields(envelope, read_from(block), to_hex(payload));
}

// A block of envelope keys, other keys, zero bytes in keys, lists and maps.
std::string random_block(std::mt19937& random) {
  const auto below = [&](std::size_t limit) { return random() % limit; };
  const std::string_view keys[] = {tolk::kKeyName,  tolk::kKeyCallId,      tolk::kKeyArguments,
                                   tolk::kKeyToken, "s_c_sw_name\0more"sv, "other"sv};
  std::string bytes;
  Block block(bytes, 0);
  for (auto records = below(7); records > 0; --records) {
    if (below(6) == 0) bytes += hex(below(2) == 0 ? "07 02 00 00 00" : "06 01 00 00 00");
    add_keyed(block, keys[below(std::size(keys))], kKinds[below(std::size(kKinds))]);
  }
  return bytes;
}

TEST(Envelope, ScanAgreesWithTheParserOnRandomPayloads) {
  for (unsigned seed = 0; seed < 4000; seed += tolk::test::one_of()) {
    std::mt19937 random(seed);
    std::string payload = random_block(random);
    expect_as_parsed(payload);
    if (!payload.empty()) {
      payload[random() % payload.size()] = static_cast<char>(random());
      expect_as_parsed(payload);
      expect_as_parsed(payload.substr(0, random() % payload.size()));
    }
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
}

TEST(Envelope, TypedReadingsOfEveryType) {
  const TolkValue integer(kInteger);
  const TolkValue boolean(true);
  const TolkValue real(kReal);
  const TolkValue string(kBytes.data(), static_cast<long>(kBytes.size()), TolkValue::String);
  const TolkValue stream(kBytes.data(), static_cast<long>(kBytes.size()), TolkValue::Stream);
  const TolkValue list(TolkValue::List);
  const TolkValue nothing;
  for (const TolkValue* value : {&integer, &boolean, &real, &list, &nothing}) {
    EXPECT_EQ(tolk::read::text(value), std::nullopt);
    EXPECT_EQ(tolk::read::bytes(value), std::nullopt);
  }
  for (const TolkValue* value : {&string, &stream}) {
    EXPECT_EQ(tolk::read::text(value), "ab");
    EXPECT_EQ(tolk::read::bytes(value), kBytes);
    EXPECT_EQ(tolk::read::number(value), 0);
  }
  EXPECT_EQ(tolk::read::number(&integer), kInteger);
  EXPECT_EQ(tolk::read::number(&boolean), 1);
  EXPECT_EQ(tolk::read::number(&real), first_bytes_of(kReal));
  EXPECT_EQ(tolk::read::number(&list), 0);
  EXPECT_EQ(tolk::read::number(&nothing), 0);
}

TEST(Envelope, TypedReadingsOfAnAbsentValue) {
  EXPECT_EQ(tolk::read::text(nullptr), std::nullopt);
  EXPECT_EQ(tolk::read::bytes(nullptr), std::nullopt);
  EXPECT_EQ(tolk::read::number(nullptr), 0);
}

TEST(Envelope, TokenIsWrittenLikeAPointer) {
  EXPECT_EQ(tolk::token_text(0xAB), "0xab");
  EXPECT_EQ(tolk::token_text(0), "0x0");
  EXPECT_EQ(tolk::token_text(std::numeric_limits<std::uint64_t>::max()), "0xffffffffffffffff");
}

TEST(Envelope, TokenTextIsReadBack) {
  for (const std::uint64_t token :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0x7F00DEADBEEF},
        std::numeric_limits<std::uint64_t>::max()}) {
    EXPECT_EQ(tolk::parse_token(tolk::token_text(token)), token);
  }
}

TEST(Envelope, TextThatIsNoTokenIsNone) {
  for (const std::string_view text :
       {""sv, "0x"sv, "0"sv, "17"sv, "ab"sv, "0xg"sv, "0x1 "sv, " 0x1"sv, "0x 1"sv, "0x-1"sv,
        "0x+1"sv, "0X1"sv, "-0x1"sv, "0x1\0"sv, "0x10000000000000000"sv,
        "0xffffffffffffffffffffffffffffffffff"sv, "nullptr"sv, "0x0x1"sv}) {
    EXPECT_EQ(tolk::parse_token(text), std::nullopt) << '"' << text << '"';
  }
}

TEST(Envelope, TokensDoNotFollowTheHostsLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  EXPECT_EQ(tolk::token_text(0x123456), "0x123456");
  EXPECT_EQ(tolk::parse_token("0x123456"), 0x123456u);
  std::locale::global(before);
}

TEST(Envelope, CallCarriesNameCallIdArgumentsAndToken) {
  EXPECT_EQ(to_hex(tolk::call_frame("m", 7, "\0A"sv, 0xAB).bytes()),
            to_hex(hex("84 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 "
                       "03 01 00 00 00 6D 1B 00 00 00 "
                       "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 34 00 00 00 "
                       "00 07 00 00 00 3D 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 64 61 74 61 52 00 00 00 "
                       "04 02 00 00 00 00 41 5D 00 00 00 "
                       "05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 73 00 00 00 "
                       "03 04 00 00 00 30 78 61 62 80 00 00 00")));
}

TEST(Envelope, PostedCallWithoutArgumentsCarriesNeitherArgumentsNorToken) {
  EXPECT_EQ(to_hex(tolk::call_frame("m", -2, std::nullopt, std::nullopt).bytes()),
            to_hex(hex("41 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 "
                       "03 01 00 00 00 6D 1B 00 00 00 "
                       "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 34 00 00 00 "
                       "00 FE FF FF FF 3D 00 00 00")));
}

TEST(Envelope, HeldArgumentsAreNotCopiedAndGiveTheSameCall) {
  const auto owner = std::make_shared<const std::string>("\0A"sv);
  const tolk::Frame frame = tolk::call_frame("m", 7, *owner, 0xAB, owner);
  ASSERT_EQ(frame.buffers().size(), 3u);
  EXPECT_TRUE(frame.buffers()[1].base == owner->data());
  std::string joined;
  for (const uv_buf_t& buffer : frame.buffers()) joined.append(buffer.base, buffer.len);
  EXPECT_EQ(to_hex(joined), to_hex(tolk::call_frame("m", 7, "\0A"sv, 0xAB).bytes()));
}

TEST(Envelope, EmptyArgumentsAreAnEmptyStreamAndNotAbsent) {
  const tolk::Frame frame = tolk::call_frame("m", 1, "", std::nullopt);
  const Envelope envelope = Envelope::scan(frame.bytes().substr(4));
  EXPECT_EQ(envelope.arguments, "");
}

TEST(Envelope, ClientReplyIsResultThenCallIdTokenAndName) {
  const std::string result = hex("01 31 02 00 00 00");
  EXPECT_EQ(to_hex(tolk::client_reply_frame(result, 7, "0xab").bytes()),
            to_hex(hex("6F 00 00 00 01 31 02 00 00 00 "
                       "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 1B 00 00 00 "
                       "00 07 00 00 00 24 00 00 00 "
                       "05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 3A 00 00 00 "
                       "03 04 00 00 00 30 78 61 62 47 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 5C 00 00 00 "
                       "03 06 00 00 00 72 65 74 76 61 6C 6B 00 00 00")));
}

TEST(Envelope, ClientReplyNamesCallIdZeroWhereTheCallNamedNone) {
  EXPECT_EQ(to_hex(tolk::client_reply_frame("", std::nullopt, std::nullopt).bytes()),
            to_hex(hex("46 00 00 00 "
                       "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 15 00 00 00 "
                       "00 00 00 00 00 1E 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 33 00 00 00 "
                       "03 06 00 00 00 72 65 74 76 61 6C 42 00 00 00")));
}

TEST(Envelope, ServerReplyIsResultThenNameCallIdAndToken) {
  const std::string result = hex("01 31 02 00 00 00");
  EXPECT_EQ(to_hex(tolk::server_reply_frame(result, 7, "0xab").bytes()),
            to_hex(hex("6F 00 00 00 01 31 02 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 17 00 00 00 "
                       "03 06 00 00 00 72 65 74 76 61 6C 26 00 00 00 "
                       "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 3F 00 00 00 "
                       "00 07 00 00 00 48 00 00 00 "
                       "05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 5E 00 00 00 "
                       "03 04 00 00 00 30 78 61 62 6B 00 00 00")));
}

TEST(Envelope, ServerReplyLeavesOutWhatTheCallDidNotHave) {
  const std::string bare(tolk::no_method_frame().bytes());
  EXPECT_EQ(to_hex(tolk::server_reply_frame("", std::nullopt, std::nullopt).bytes()), to_hex(bare));
}

TEST(Envelope, NoMethodReplyIsTheNameAlone) {
  EXPECT_EQ(to_hex(tolk::no_method_frame().bytes()),
            to_hex(hex("24 00 00 00 "
                       "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 "
                       "03 06 00 00 00 72 65 74 76 61 6C 20 00 00 00")));
}

}  // namespace
