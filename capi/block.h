// A block of the C interface: values that are added, or were received.
//
// A built block has its encoded records in a RecordBuffer, with held bytes between them. A received
// one has only its index, which looks into the message. A change turns the second into the first.
// A block of the host has room for its first records behind it, see BlockWithRoom.
//
// Thread: one at a time while somebody changes it; any thread may use the const functions
// otherwise. Owner: whoever made it; inner blocks belong to the index of the outermost one.
// Failure: a change that fails empties the block, see status(); it stays so until it is cleared.
// The const functions that return texts or bytes throw std::bad_alloc.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "capi/block_index.h"
#include "capi/record_buffer.h"
#include "capi/type_notes.h"
#include "params/encoder.h"
#include "params/shared_bytes.h"
#include "transport/frame_format.h"

struct tolk_block {
 public:
  // Keys that begin with "s_c_" or "tolk.".
  enum class Reserved { kept, dropped };
  struct Received;
  static constexpr const char* kTypesKey = "tolk.types";

  tolk_block() = default;
  tolk_block(const tolk_block& other);
  tolk_block& operator=(const tolk_block&) = delete;
  virtual ~tolk_block();

  // The block of received bytes, which stay as they are while it lives. Bytes that nobody owns are
  // copied. `types` is the text of
  // "tolk.types" that came with it. In a reply the reserved keys are not values: dropped.
  static Received of_message(const tolk::SharedBytes& payload, std::string_view types,
                             Reserved reserved);
  // The same of one's own encoded bytes, which are copied and have "tolk.types" in them.
  static Received of_copy(std::string_view encoded);
  tolk_block* copy() const;
  // Without memory for a block, the host gets this one.
  static tolk_block* without_memory() noexcept;

  // Anything but TOLK_OK: a call with the block fails with that, TOLK_NO_MEMORY, TOLK_TOO_LARGE, or
  // TOLK_MISUSE after a reserved key. The block is empty then.
  tolk_status status() const noexcept { return status_; }
  // Why, if the status alone does not say it; null otherwise. Valid until the block is changed.
  const char* reason() const noexcept { return reason_ == nullptr ? nullptr : reason_->c_str(); }

  // The records for a message, without "tolk.types" and without reserved keys.
  // Where they lie, if they do so in one piece; valid until the block is changed.
  std::optional<std::string_view> view() const;
  // In one piece; copied only if they are not in one already.
  tolk::SharedBytes share() const;
  // Without a copy of held bytes; together they are the records.
  std::vector<tolk::SharedBytes> pieces() const;
  std::size_t size() const;
  // The text for "tolk.types"; empty if there is nothing to say.
  std::string types() const;

  // What tolk_block_encode gives.
  std::string_view encode();

  const tolk::BlockIndex& index() const;

  void clear() noexcept;
  void run_out_of_memory() noexcept { lose(TOLK_NO_MEMORY); }
  void add_key(const char* key);  // null is misuse
  void add_none();
  void add_bool(bool value);
  void add_int(std::int64_t value);
  void add_uint(std::uint64_t value);
  void add_double(double value);
  void add_text(std::string_view text);
  void add_bytes(std::string_view bytes);
  void add_held(tolk::SharedBytes bytes);
  void add_list(const tolk_block& elements);
  void add_map(const tolk_block& entries);
  void add_ints(const std::int64_t* values, std::size_t count);
  void add_doubles(const double* values, std::size_t count);

 protected:
  // `room`: for the first records, see RecordBuffer.
  explicit tolk_block(char* room) noexcept : buffer_(room) {}
  tolk_block(const tolk_block& other, char* room);
  explicit tolk_block(tolk_status status) noexcept : status_(status) {}

 private:
  friend class tolk::BlockIndex;
  // Held bytes, which belong at `at` of the buffer.
  struct Held {
    std::size_t at;
    tolk::SharedBytes bytes;
  };
  static constexpr std::size_t kMostBytes = tolk::frame_format::kMaxPayloadBytes;
  static constexpr std::size_t kNoKey = static_cast<std::size_t>(-1);

  explicit tolk_block(tolk::BlockIndex* index) noexcept : is_received_(true), index_(index) {}

  static Received received(tolk::IndexRef index, std::string_view types, Reserved reserved);

  // add: a value of the host, checked and with its failures. put: a part of that, which throws.
  template <class Add>
  void change(Add&& add) noexcept;
  template <class Encode>
  void add_record(std::size_t room, Encode&& encode);
  void prepare_change();
  void add_noted(std::string_view bytes, tolk::TypeNote note);
  void add_wide(std::uint64_t value, tolk::TypeNote note);
  template <class Encode>
  void put(std::size_t room, Encode&& encode);
  void put_header(tolk::Tag tag, std::size_t word);
  void put_check_word();
  void put_key(std::string_view key);
  void refuse(std::string reason);
  void put_scalar(const tolk::Item& item);
  void put_stream(std::string_view bytes);
  void put_block(const tolk_block& inner);
  void put_nested(const tolk_block& inner, tolk::TypeNote note);
  void put_list_block(const tolk_block& elements);
  void put_plain_list(const tolk_block& elements);
  void put_element(const tolk::Item& item, const tolk::TypeNotes* notes, std::uint32_t element,
                   tolk::TypeNotes& about);
  void put_elements(const tolk::Item& list);
  // A value of an index, with its key; `notes` are those of the index.
  void put_item(const tolk::Item& item, const tolk::TypeNotes* notes);
  template <class Put>
  void put_numbers(std::size_t count, std::size_t record_bytes, Put&& put_number);
  static tolk_block block_of(const tolk::Item& item, const tolk::TypeNotes* notes);
  static tolk::TypeNote note_of(const tolk::Item& item);
  static std::string_view checked(std::string_view bytes);
  void value_added();
  std::size_t end() const { return buffer_.size() + held_bytes_; }

  void become_built();
  void drop_index() noexcept;
  void lose(tolk_status status) noexcept;
  void lose_as(const tolk_block& other);
  bool is_in_one_piece() const;
  bool has_key() const { return key_at_ != kNoKey; }
  std::size_t buffer_end() const { return has_key() ? key_at_ : buffer_.size(); }
  void rebuild_into(tolk_block& built) const;

  tolk::RecordBuffer buffer_;
  std::vector<Held> held_;
  std::size_t held_bytes_ = 0;
  std::uint32_t records_ = 0;    // the values in the buffer
  std::uint32_t keyed_ = 0;      // how many of them have keys
  std::size_t key_at_ = kNoKey;  // of a key that has no value yet
  bool is_received_ = false;
  tolk_status status_ = TOLK_OK;
  tolk::TypeNotes notes_;
  mutable std::atomic<tolk::BlockIndex*> index_ = nullptr;
  std::unique_ptr<std::string> encoded_;
  std::unique_ptr<const std::string> reason_;
  tolk_block* next_inner_ = nullptr;
};

template <class Add>
void tolk_block::change(Add&& add) noexcept {
  if (status_ != TOLK_OK) return;
  try {
    const bool is_as_built =
        !is_received_ && encoded_ == nullptr && index_.load(std::memory_order_relaxed) == nullptr;
    if (!is_as_built) prepare_change();
    add();
  } catch (const std::length_error&) {
    lose(TOLK_TOO_LARGE);
  } catch (const std::exception&) {
    lose(TOLK_NO_MEMORY);
  }
}

template <class Encode>
void tolk_block::put(std::size_t room, Encode&& encode) {
  buffer_.make_room(room);
  tolk::RecordBuffer::Writer writer(buffer_, end());
  tolk::Encoder encoder(writer, 0);
  encode(encoder);
  writer.finish();
}

namespace tolk {

// A block of the host. Most of them fit in this one piece of memory.
class BlockWithRoom final : public tolk_block {
 public:
  BlockWithRoom() noexcept : tolk_block(room_) {}
  explicit BlockWithRoom(const tolk_block& other) : tolk_block(other, room_) {}

 private:
  char room_[RecordBuffer::kRoomBytes];  // NOLINT(modernize-avoid-c-arrays)
};

}  // namespace tolk

struct tolk_block::Received {
  std::unique_ptr<tolk_block> block;  // with the values before the first malformed record
  // The offset of what is malformed; TOLK_NOWHERE if nothing is.
  std::size_t wrong_at = TOLK_NOWHERE;

  bool is_well_formed() const { return wrong_at == TOLK_NOWHERE; }
};
