#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "params/argument.h"
#include "params/value_access.h"
#include "platform/text.h"

namespace {

using Access = TolkValueAccess;

bool may_have_text(TolkValue::Type type) {
  return type == TolkValue::String || type == TolkValue::Stream;
}

std::unique_ptr<TolkValue> bytes_value(const char* data, long len, TolkValue::Type type) {
  return std::make_unique<TolkValue>(data, len, type);
}

// Reads the value field as the type that the caller asks for. Hosts may ask for the wrong type.
template <class T, class Field>
T field_as(const Field& field) {
  T value;
  std::memcpy(&value, &field, sizeof value);
  return value;
}

// On purpose: only the bytes of the type are copied. The other bytes of the field do not change.
template <class Field>
void copy_field_bytes(Field& to, const Field& from, std::size_t size) {
  std::memcpy(&to, &from, size);
}

// A copy of `bytes` with a zero behind it.
std::unique_ptr<char[]> owned_text(std::string_view bytes) {
  std::unique_ptr<char[]> text(new char[bytes.size() + 1]);
  if (!bytes.empty()) std::memcpy(text.get(), bytes.data(), bytes.size());
  text[bytes.size()] = '\0';
  return text;
}

}  // namespace

TolkValue::TolkValue() : TolkValue(None) {}

TolkValue::TolkValue(bool v) : TolkValue(Bool) { value_.boolean = v; }

TolkValue::TolkValue(int v) : TolkValue(Int) { value_.integer = v; }

TolkValue::TolkValue(double v) : TolkValue(Double) { value_.real = v; }

TolkValue::TolkValue(Type type) : type_(type), owners_(0), owns_text_(false), home_(nullptr) {
  value_.all = 0;
}

TolkValue::TolkValue(const char* data, long len, Type type) : TolkValue(type) {
  if (!may_have_text(type)) return;
  const std::string_view bytes = tolk::bytes_of(data, len);
  value_.text = owned_text(bytes).release();
  text_size_ = bytes.size();
  owns_text_ = true;
}

TolkValue::TolkValue(const TolkValue& other) : TolkValue(None) { *this = other; }

TolkValue& TolkValue::operator=(const TolkValue& other) {
  if (this == &other) return *this;
  // The new state is complete before the old is released: `other` may be one of our own elements.
  const Type type = other.type_;
  const Field field = other.value_;
  const std::size_t text_size = other.text_size_;
  std::unique_ptr<char[]> text;
  if (Access::has_text(other)) text = owned_text(Access::bytes(other));
  auto list = type == List ? other.list_ : std::vector<TolkValue*>();
  std::unique_ptr<Access::Map> map;
  if (type == Map) {
    map = std::make_unique<Access::Map>(other.map_ ? *other.map_ : Access::Map());
    Access::retain_all_of(*map);
  }
  Access::retain_all(list);

  clear();
  type_ = type;
  if (type == Bool) copy_field_bytes(value_, field, sizeof field.boolean);
  if (type == Int) copy_field_bytes(value_, field, sizeof field.integer);
  if (type == Double) copy_field_bytes(value_, field, sizeof field.real);
  if (text != nullptr) {
    value_.text = text.release();
    text_size_ = text_size;
    owns_text_ = true;
  }
  if (type == List) list_.swap(list);
  if (type == Map) map.reset(std::exchange(map_, map.release()));
  Access::release_all(list);
  if (map != nullptr) Access::release_all_of(*map);
  return *this;
}

TolkValue::~TolkValue() {
  clear();
  // A host may have added elements to a value of another type.
  Access::release_all(list_);
  if (map_ != nullptr) Access::release_all_of(*map_);
  delete map_;
}

bool TolkValue::IsBool() const { return type_ == Bool; }
bool TolkValue::IsInt() const { return type_ == Int; }
bool TolkValue::IsDouble() const { return type_ == Double; }
bool TolkValue::IsString() const { return type_ == String; }
bool TolkValue::IsStream() const { return type_ == Stream; }
bool TolkValue::IsList() const { return type_ == List; }

bool TolkValue::GetBool() const { return field_as<unsigned char>(value_) != 0; }
int TolkValue::GetInt() const { return field_as<std::int32_t>(value_); }
double TolkValue::GetDouble() const { return field_as<double>(value_); }

const char* TolkValue::GetString() const { return Access::has_text(*this) ? value_.text : ""; }

const char* TolkValue::GetStream(long& len) const {
  len = static_cast<long>(Access::bytes(*this).size());
  return GetString();
}

const std::vector<TolkValue*>* TolkValue::GetList() const { return &list_; }

void TolkValue::AddListBool(bool v) { Access::adopt(list_, std::make_unique<TolkValue>(v)); }
void TolkValue::AddListInt(int v) { Access::adopt(list_, std::make_unique<TolkValue>(v)); }
void TolkValue::AddListDouble(double v) { Access::adopt(list_, std::make_unique<TolkValue>(v)); }

void TolkValue::AddListString(const char* data, long len) {
  Access::adopt(list_, bytes_value(data, len, String));
}

void TolkValue::AddListStream(const char* data, long len) {
  Access::adopt(list_, bytes_value(data, len, Stream));
}

// On purpose: the value that a key had before is dropped and not freed, since hosts may still hold
// it. Only a copy of the map that shares it frees it, when the copy ends.
void TolkValue::AddListMapBool(const char* key, bool v) {
  Access::put_and_drop(Access::map(*this), tolk::text_of(key), std::make_unique<TolkValue>(v));
}

void TolkValue::AddListMapInt(const char* key, int v) {
  Access::put_and_drop(Access::map(*this), tolk::text_of(key), std::make_unique<TolkValue>(v));
}

void TolkValue::AddListMapDouble(const char* key, double v) {
  Access::put_and_drop(Access::map(*this), tolk::text_of(key), std::make_unique<TolkValue>(v));
}

void TolkValue::AddListMapString(const char* key, const char* data, long len) {
  Access::put_and_drop(Access::map(*this), tolk::text_of(key), bytes_value(data, len, String));
}

void TolkValue::AddListMapStream(const char* key, const char* data, long len) {
  Access::put_and_drop(Access::map(*this), tolk::text_of(key), bytes_value(data, len, Stream));
}

void TolkValue::clear() {
  const Type type = type_;
  type_ = None;
  if (may_have_text(type)) {
    if (owns_text_) delete[] value_.text;
    owns_text_ = false;
    value_.all = 0;
  }
  // On purpose: a value that is not a List keeps its elements, and a value that is not a Map keeps
  // its entries.
  if (type == List) Access::release_all(list_);
  if (type == Map && map_ != nullptr) Access::release_all_of(*map_);
}
