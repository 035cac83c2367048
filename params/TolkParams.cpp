#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "params/argument.h"
#include "params/content.h"
#include "params/encoder.h"
#include "params/value_access.h"
#include "platform/large_memory.h"
#include "platform/text.h"

using ParamsAccess = TolkParamsAccess;
using tolk::Argument;

namespace {

// A block with a large record has spare room for some small records, such as the keys of a large
// call. They do not make the block move, which would need the memory twice for a moment.
constexpr std::size_t large_block_bytes = std::size_t{1} << 20;
constexpr std::size_t spare_bytes = 4096;

// The first memory of a block: enough for most small blocks, which then never move.
constexpr std::size_t first_capacity = 255;

std::string& own_bytes(TolkParams& block) { return ParamsAccess::content(block).own_bytes(); }

// Doubling keeps many small records cheap.
void grow(std::string& buffer, std::size_t needed) {
  const std::size_t spare = needed < large_block_bytes ? 0 : spare_bytes;
  const std::size_t capacity = std::max({first_capacity, needed + spare, 2 * buffer.capacity()});
  tolk::platform::expect_large_piece(capacity);
  buffer.reserve(capacity);
  tolk::platform::prefer_large_pages(buffer.data(), capacity);
}

// Makes room for a whole record, so that a failed allocation leaves no part of a record.
void make_room(std::string& buffer, std::size_t record_bytes) {
  const std::size_t needed = buffer.size() + record_bytes;
  if (needed > buffer.capacity()) grow(buffer, needed);
}

// A small record, put together here and appended at once.
class SmallRecord {
 public:
  static constexpr std::size_t most_bytes = 256;

  // `position`: where the record will be in its block.
  explicit SmallRecord(std::size_t position) : position_(position) {}
  void append(const char* bytes, std::size_t size) {
    std::memcpy(bytes_ + used_, bytes, size);
    used_ += size;
  }
  std::size_t size() const { return position_ + used_; }
  std::string_view bytes() const { return {bytes_, used_}; }

 private:
  const std::size_t position_;
  std::size_t used_ = 0;
  char bytes_[most_bytes];
};

template <class Write>
void append_record(std::string& buffer, std::size_t record_bytes, Write write) {
  make_room(buffer, record_bytes);
  if (record_bytes > SmallRecord::most_bytes) {
    tolk::Encoder<std::string> encoder(buffer, 0);
    write(encoder);
    return;
  }
  SmallRecord record(buffer.size());
  tolk::Encoder<SmallRecord> encoder(record, 0);
  write(encoder);
  buffer.append(record.bytes());
}

// Appends a key-and-value record whose value `write` adds.
template <class Write>
void append_keyed(std::string& buffer, const char* key, std::size_t value_bytes, Write write) {
  const Argument name(buffer, tolk::wire_part(tolk::text_of(key)));
  const std::size_t record_bytes = tolk::keyed_bytes(name.view().size(), value_bytes);
  append_record(buffer, record_bytes, [&](auto& encoder) {
    encoder.add_key(name.view());
    write(encoder);
  });
}

// On purpose: a string element is encoded up to its first zero byte, a stream element whole.
std::string_view element_bytes(const TolkValue& element) {
  const std::string_view bytes = tolk::wire_part(TolkValueAccess::bytes(element));
  return element.IsString() ? tolk::cut_at_zero(bytes) : bytes;
}

std::size_t element_record_bytes(const TolkValue& element) {
  switch (TolkValueAccess::type(element)) {
    case TolkValue::Bool:
      return tolk::bool_record_bytes;
    case TolkValue::Int:
      return tolk::int_record_bytes;
    case TolkValue::Double:
      return tolk::double_record_bytes;
    default:
      return tolk::string_record_bytes(element_bytes(element).size());
  }
}

template <class Encoder>
void add_element(Encoder& encoder, const TolkValue& element) {
  switch (TolkValueAccess::type(element)) {
    case TolkValue::Bool:
      return encoder.add_bool(element.GetBool());
    case TolkValue::Int:
      return encoder.add_int(element.GetInt());
    case TolkValue::Double:
      return encoder.add_double(element.GetDouble());
    case TolkValue::String:
      return encoder.add_string(element_bytes(element));
    case TolkValue::Stream:
      return encoder.add_stream(element_bytes(element));
    default:
      return;  // a list record holds scalars only
  }
}

}  // namespace

TolkParams::TolkParams() : content_(new Content) {}

TolkParams::TolkParams(const TolkParams& other)
    : content_(new Content(ParamsAccess::content(other))) {}

TolkParams& TolkParams::operator=(const TolkParams& other) {
  if (this == &other) return *this;
  get_buffer_ = other.get_buffer_;
  // This marks the content of a refreshable block as used. Its table then keeps the content until
  // this block holds a count of its own.
  Content& shared = ParamsAccess::content(other);
  shared.retain();
  ParamsAccess::replace(*this, &shared);
  return *this;
}

TolkParams::~TolkParams() { ParamsAccess::content(*this).release(); }

void TolkParams::AddInt(int v) {
  append_record(own_bytes(*this), tolk::int_record_bytes, [&](auto& to) { to.add_int(v); });
}

void TolkParams::AddBool(bool v) {
  append_record(own_bytes(*this), tolk::bool_record_bytes, [&](auto& to) { to.add_bool(v); });
}

void TolkParams::AddDouble(double v) {
  append_record(own_bytes(*this), tolk::double_record_bytes, [&](auto& to) { to.add_double(v); });
}

void TolkParams::AddString(const char* s) {
  std::string& buffer = own_bytes(*this);
  const Argument text(buffer, tolk::wire_part(tolk::text_of(s)));
  append_record(buffer, tolk::string_record_bytes(text.view().size()),
                [&](auto& to) { to.add_string(text.view()); });
}

void TolkParams::AddStream(const char* data, long len) {
  std::string& buffer = own_bytes(*this);
  const Argument bytes(buffer, tolk::wire_part(tolk::bytes_of(data, len)));
  append_record(buffer, tolk::stream_record_bytes(bytes.view().size()),
                [&](auto& to) { to.add_stream(bytes.view()); });
}

void TolkParams::AddKeyValueInt(const char* key, int v) {
  append_keyed(own_bytes(*this), key, tolk::int_record_bytes, [&](auto& to) { to.add_int(v); });
}

void TolkParams::AddKeyValueBool(const char* key, bool v) {
  append_keyed(own_bytes(*this), key, tolk::bool_record_bytes, [&](auto& to) { to.add_bool(v); });
}

void TolkParams::AddKeyValueDouble(const char* key, double v) {
  append_keyed(own_bytes(*this), key, tolk::double_record_bytes,
               [&](auto& to) { to.add_double(v); });
}

void TolkParams::AddKeyValueString(const char* key, const char* s) {
  std::string& buffer = own_bytes(*this);
  const Argument text(buffer, tolk::wire_part(tolk::text_of(s)));
  append_keyed(buffer, key, tolk::string_record_bytes(text.view().size()),
               [&](auto& to) { to.add_string(text.view()); });
}

void TolkParams::AddKeyValueStream(const char* key, const char* data, long len) {
  std::string& buffer = own_bytes(*this);
  const Argument bytes(buffer, tolk::wire_part(tolk::bytes_of(data, len)));
  append_keyed(buffer, key, tolk::stream_record_bytes(bytes.view().size()),
               [&](auto& to) { to.add_stream(bytes.view()); });
}

void TolkParams::AddList(ListParams* list) {
  if (list == nullptr) return;
  const std::unique_ptr<ListParams> owned(list);
  const auto& elements = owned->elements_;
  std::size_t record_bytes = tolk::list_header_bytes;
  for (const TolkValue* element : elements) record_bytes += element_record_bytes(*element);
  append_record(own_bytes(*this), record_bytes, [&](auto& to) {
    to.add_list_header(static_cast<std::uint32_t>(elements.size()));
    for (const TolkValue* element : elements) add_element(to, *element);
  });
}

ListParams* TolkParams::CreateListParams() { return new ListParams; }

std::string* TolkParams::GetParamas() { return &ParamsAccess::content(*this).given_bytes(); }
const char* TolkParams::GetParamasPtr() { return GetParamas()->c_str(); }
long TolkParams::GetParamasSize() { return static_cast<long>(ParamsAccess::content(*this).size()); }
int TolkParams::Size() { return static_cast<int>(ParamsAccess::content(*this).size()); }

int TolkParams::ParamsSize() {
  return static_cast<int>(ParamsAccess::content(*this).values.size());
}
int TolkParams::MapSize() { return static_cast<int>(ParamsAccess::content(*this).keyed.size()); }

bool TolkParams::Parser(const char* data, int len) {
  return ParamsAccess::content(*this).parse_copy(tolk::bytes_of(data, len));
}

bool TolkParams::ToParams() { return ParamsAccess::content(*this).parse_own_bytes(); }

TolkValue* TolkParams::GetValue(int i) {
  const auto& values = ParamsAccess::content(*this).values;
  const bool exists = i >= 0 && static_cast<std::size_t>(i) < values.size();
  return exists ? values[static_cast<std::size_t>(i)] : nullptr;
}

TolkValue* TolkParams::GetMap(const char* key) {
  if (key == nullptr) return nullptr;
  return ParamsAccess::content(*this).find(key);
}

std::map<const char*, TolkValue*>* TolkParams::GetMapPtr() {
  return &ParamsAccess::content(*this).keyed_view();
}

void TolkParams::GetBuffer() { get_buffer_ = true; }
bool TolkParams::IsGetBuffer() { return get_buffer_; }

void TolkParams::Clear() { ParamsAccess::content(*this).clear(); }

void TolkParams::IntTobytes(int v, std::string* out) {
  char bytes[4];
  tolk::store32(bytes, static_cast<std::uint32_t>(v));
  out->append(bytes, sizeof bytes);
}

void TolkParams::DoubleTobytes(double v, std::string* out) {
  char bytes[8];
  tolk::store64(bytes, std::bit_cast<std::uint64_t>(v));
  out->append(bytes, sizeof bytes);
}

void TolkParams::AddCheckSize() {
  std::string& buffer = own_bytes(*this);
  IntTobytes(static_cast<int>(buffer.size()), &buffer);
}

int TolkParams::BytesToInt(const char* p) { return tolk::load_int(p); }
double TolkParams::BytesToDouble(const char* p) { return tolk::load_double(p); }
bool TolkParams::CheckSize(int n, const char* p) { return tolk::load_int(p) == n; }
