#include <gtest/gtest.h>
#include <tolk/TolkValue.h>

#include <bit>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "params/value_access.h"

namespace {

std::string stream_of(const TolkValue& value) {
  long size = -1;
  const char* bytes = value.GetStream(size);
  return {bytes, static_cast<std::size_t>(size)};
}

TolkValue list_of(std::initializer_list<int> numbers) {
  TolkValue list(TolkValue::List);
  for (const int number : numbers) list.AddListInt(number);
  return list;
}

TEST(Value, TypeNumbersAreFixed) {
  EXPECT_EQ(TolkValue::None, 0);
  EXPECT_EQ(TolkValue::Bool, 1);
  EXPECT_EQ(TolkValue::Int, 2);
  EXPECT_EQ(TolkValue::Double, 3);
  EXPECT_EQ(TolkValue::String, 4);
  EXPECT_EQ(TolkValue::Stream, 5);
  EXPECT_EQ(TolkValue::List, 6);
  EXPECT_EQ(TolkValue::Map, 7);
  EXPECT_EQ(sizeof(TolkValue::Type), 4U);
}

TEST(Value, DefaultIsOfNoKindAndFalse) {
  const TolkValue value;
  EXPECT_FALSE(value.IsBool());
  EXPECT_FALSE(value.IsInt());
  EXPECT_FALSE(value.IsDouble());
  EXPECT_FALSE(value.IsString());
  EXPECT_FALSE(value.IsStream());
  EXPECT_FALSE(value.IsList());
  EXPECT_FALSE(value.GetBool());
}

TEST(Value, EachConstructorMakesItsKind) {
  EXPECT_TRUE(TolkValue(true).IsBool());
  EXPECT_TRUE(TolkValue(true).GetBool());
  EXPECT_TRUE(TolkValue(-7).IsInt());
  EXPECT_EQ(TolkValue(-7).GetInt(), -7);
  EXPECT_TRUE(TolkValue(0.5).IsDouble());
  EXPECT_EQ(TolkValue(0.5).GetDouble(), 0.5);
  EXPECT_TRUE(TolkValue("x", 1, TolkValue::String).IsString());
  EXPECT_TRUE(TolkValue("x", 1, TolkValue::Stream).IsStream());
  EXPECT_TRUE(TolkValue(TolkValue::List).IsList());
}

TEST(Value, StreamKeepsZeroBytesAndItsTextEndsAtTheFirst) {
  const TolkValue value("a\0b", 3, TolkValue::Stream);
  EXPECT_EQ(stream_of(value), std::string("a\0b", 3));
  EXPECT_STREQ(value.GetString(), "a");
}

TEST(Value, TextIsCopiedAndZeroTerminated) {
  std::string source = "hello";
  const TolkValue value(source.data(), 4, TolkValue::String);
  source[0] = 'J';
  EXPECT_STREQ(value.GetString(), "hell");
}

TEST(Value, NegativeLengthAndNullDataCountAsEmpty) {
  EXPECT_EQ(stream_of(TolkValue("abc", -1, TolkValue::String)), "");
  EXPECT_EQ(stream_of(TolkValue(nullptr, 3, TolkValue::Stream)), "");
  TolkValue list(TolkValue::List);
  list.AddListString("abc", -5);
  list.AddListStream(nullptr, 5);
  for (const TolkValue* element : *list.GetList()) EXPECT_EQ(stream_of(*element), "");
}

TEST(Value, BytesForAnotherKindAreIgnored) {
  const TolkValue value("abc", 3, TolkValue::Int);
  EXPECT_TRUE(value.IsInt());
  EXPECT_EQ(value.GetInt(), 0);
  EXPECT_STREQ(value.GetString(), "");
}

TEST(Value, WrongTextAccessorGivesAnEmptyText) {
  for (const TolkValue& value : {TolkValue(), TolkValue(true), TolkValue(1234567), TolkValue(1e300),
                                 TolkValue(TolkValue::String), TolkValue(TolkValue::Stream),
                                 TolkValue(TolkValue::List), TolkValue(TolkValue::Map)}) {
    EXPECT_STREQ(value.GetString(), "");
    EXPECT_EQ(stream_of(value), "");
    EXPECT_TRUE(value.GetList()->empty());
  }
}

TEST(Value, WrongNumberAccessorGivesTheBytesOfTheField) {
  EXPECT_EQ(TolkValue(0.5).GetInt(), 0);
  EXPECT_EQ(TolkValue(true).GetInt(), 1);
  EXPECT_TRUE(TolkValue(0x0201).GetBool());
  EXPECT_FALSE(TolkValue(0x0200).GetBool());
  EXPECT_EQ(std::bit_cast<std::uint64_t>(TolkValue(7).GetDouble()), 7U);
}

TEST(Value, TextCopiesAreDeep) {
  auto source = std::make_unique<TolkValue>("a\0b", 3, TolkValue::Stream);
  const TolkValue copy(*source);
  EXPECT_NE(copy.GetString(), source->GetString());
  source.reset();
  EXPECT_TRUE(copy.IsStream());
  EXPECT_EQ(stream_of(copy), std::string("a\0b", 3));
}

TEST(Value, CopyOfATextWithoutBytesHasNone) {
  const TolkValue source(TolkValue::String);
  const TolkValue copy(source);
  EXPECT_TRUE(copy.IsString());
  EXPECT_STREQ(copy.GetString(), "");
}

TEST(Value, AssignmentCopiesOnlyTheBytesOfTheKind) {
  TolkValue value(0x01020300);
  value = TolkValue(true);
  EXPECT_TRUE(value.IsBool());
  EXPECT_EQ(value.GetInt(), 0x01020301);
  value = TolkValue(2.5);
  EXPECT_EQ(value.GetDouble(), 2.5);
  value = TolkValue(3);
  EXPECT_EQ(value.GetInt(), 3);
}

TEST(Value, AssignmentOfAnUnknownKindCopiesTheKindAlone) {
  TolkValue value(7);
  value = TolkValue(static_cast<TolkValue::Type>(99));
  EXPECT_EQ(TolkValueAccess::type(value), 99);
  EXPECT_EQ(value.GetInt(), 7);
}

TEST(Value, SelfAssignmentChangesNothing) {
  TolkValue list = list_of({1, 2});
  const TolkValue& same = list;
  list = same;
  ASSERT_EQ(list.GetList()->size(), 2U);
  EXPECT_EQ(list.GetList()->at(1)->GetInt(), 2);
}

TEST(Value, ListCopiesShareTheirElements) {
  const TolkValue source = list_of({1, 2});
  TolkValue assigned;
  assigned = source;
  const TolkValue constructed(source);
  EXPECT_EQ(*assigned.GetList(), *source.GetList());
  EXPECT_EQ(*constructed.GetList(), *source.GetList());
  EXPECT_EQ(TolkValueAccess::owners(*source.GetList()->front()), 3U);
}

TEST(Value, MapCopiesShareTheirEntries) {
  TolkValue source(TolkValue::Map);
  source.AddListMapInt("k", 1);
  TolkValue copy(source);
  EXPECT_EQ(TolkValueAccess::map(copy), TolkValueAccess::map(source));
  EXPECT_EQ(TolkValueAccess::owners(*TolkValueAccess::map(source).at("k")), 2U);
}

TEST(Value, SharedElementsLiveAsLongAsAnyCopy) {
  // Each order in which three holders of the same elements can end.
  for (const auto& order : std::vector<std::vector<std::size_t>>{
           {0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}}) {
    std::unique_ptr<TolkValue> holders[3];
    holders[0] = std::make_unique<TolkValue>(list_of({1}));
    holders[0]->AddListString("text", 4);
    holders[1] = std::make_unique<TolkValue>(*holders[0]);
    holders[2] = std::make_unique<TolkValue>();
    *holders[2] = *holders[1];
    for (const std::size_t gone : {order[0], order[1]}) holders[gone].reset();
    EXPECT_STREQ(holders[order[2]]->GetList()->at(1)->GetString(), "text");
  }
}

TEST(Value, ClearReleasesOnlyTheOwnShare) {
  TolkValue source = list_of({1, 2});
  const TolkValue copy(source);
  source.clear();
  EXPECT_FALSE(source.IsList());
  EXPECT_TRUE(source.GetList()->empty());
  EXPECT_EQ(copy.GetList()->at(1)->GetInt(), 2);
}

TEST(Value, ClearMakesItReusable) {
  TolkValue value("text", 4, TolkValue::String);
  value.clear();
  EXPECT_FALSE(value.IsString());
  EXPECT_STREQ(value.GetString(), "");
  value.clear();
  value = TolkValue(3);
  EXPECT_EQ(value.GetInt(), 3);
}

TEST(Value, ClearOfATextWithoutBytesIsHarmless) {
  TolkValue value(TolkValue::String);
  value.clear();
  EXPECT_FALSE(value.IsString());
}

TEST(Value, ClearLeavesTheElementsOfAnotherKind) {
  TolkValue value(7);
  value.AddListInt(1);
  value.AddListMapInt("k", 2);
  EXPECT_TRUE(value.IsInt());
  value.clear();
  EXPECT_EQ(value.GetList()->size(), 1U);
  EXPECT_EQ(TolkValueAccess::map(value).size(), 1U);
}

TEST(Value, AssignmentFromAnOwnElement) {
  TolkValue value(TolkValue::List);
  value.AddListString("inner", 5);
  value = *(*value.GetList())[0];
  EXPECT_TRUE(value.IsString());
  EXPECT_STREQ(value.GetString(), "inner");
  EXPECT_TRUE(value.GetList()->empty());
}

TEST(Value, AssignmentFromAListInsideTheList) {
  TolkValue value = list_of({0});
  *(*value.GetList())[0] = list_of({5, 6});
  value = *(*value.GetList())[0];
  ASSERT_EQ(value.GetList()->size(), 2U);
  EXPECT_EQ(value.GetList()->at(1)->GetInt(), 6);
}

TEST(Value, AssignedListReplacesStrayElements) {
  TolkValue value(7);
  value.AddListInt(1);
  value = list_of({5, 6});
  EXPECT_EQ(value.GetList()->size(), 2U);
}

TEST(Value, AddListAppendsInOrder) {
  TolkValue list(TolkValue::List);
  list.AddListBool(true);
  list.AddListInt(2);
  list.AddListDouble(2.5);
  list.AddListString("a\0b", 3);
  list.AddListStream("c\0d", 3);
  const auto& elements = *list.GetList();
  ASSERT_EQ(elements.size(), 5U);
  EXPECT_TRUE(elements[0]->IsBool() && elements[0]->GetBool());
  EXPECT_TRUE(elements[1]->IsInt() && elements[1]->GetInt() == 2);
  EXPECT_TRUE(elements[2]->IsDouble() && elements[2]->GetDouble() == 2.5);
  EXPECT_TRUE(elements[3]->IsString());
  EXPECT_EQ(stream_of(*elements[3]), std::string("a\0b", 3));
  EXPECT_TRUE(elements[4]->IsStream());
  EXPECT_EQ(stream_of(*elements[4]), std::string("c\0d", 3));
}

TEST(Value, AddListMapSetsEntriesOfEachKind) {
  TolkValue map(TolkValue::Map);
  map.AddListMapBool("bool", true);
  map.AddListMapInt("int", 2);
  map.AddListMapDouble("double", 2.5);
  map.AddListMapString("string", "abc", 2);
  map.AddListMapStream(nullptr, "c\0d", 3);
  auto& entries = TolkValueAccess::map(map);
  ASSERT_EQ(entries.size(), 5U);
  EXPECT_TRUE(entries.at("bool")->GetBool());
  EXPECT_EQ(entries.at("int")->GetInt(), 2);
  EXPECT_EQ(entries.at("double")->GetDouble(), 2.5);
  EXPECT_STREQ(entries.at("string")->GetString(), "ab");
  EXPECT_EQ(stream_of(*entries.at("")), std::string("c\0d", 3));
}

TEST(Value, AddListMapDropsTheEarlierValueWithoutFreeingIt) {
  TolkValue map(TolkValue::Map);
  map.AddListMapInt("k", 1);
  TolkValue* const earlier = TolkValueAccess::map(map).at("k");
  map.AddListMapInt("k", 2);
  ASSERT_EQ(TolkValueAccess::map(map).size(), 1U);
  EXPECT_EQ(TolkValueAccess::map(map).at("k")->GetInt(), 2);
  EXPECT_EQ(earlier->GetInt(), 1);
  EXPECT_EQ(TolkValueAccess::owners(*earlier), 1U);
  TolkValueAccess::release(earlier);
}

TEST(Value, AddListMapGivesUpItsShareOfAnEarlierValueThatCopiesHold) {
  TolkValue map(TolkValue::Map);
  map.AddListMapInt("k", 1);
  TolkValue copy(map);
  TolkValue* const earlier = TolkValueAccess::map(map).at("k");
  map.AddListMapInt("k", 2);
  EXPECT_EQ(TolkValueAccess::map(copy).at("k"), earlier);
  EXPECT_EQ(TolkValueAccess::owners(*earlier), 1U) << "it ends with the copy";
  copy.AddListMapInt("k", 3);
  EXPECT_EQ(TolkValueAccess::owners(*earlier), 1U) << "the last share is dropped with the value";
  EXPECT_EQ(earlier->GetInt(), 1);
  TolkValueAccess::release(earlier);
}

}  // namespace
