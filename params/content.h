// The content of a block: its encoded bytes and the values that were parsed from them.
//
// A content is counted, because a block that was assigned from another shares its content.
// TolkParamsAccess is the library's own access to blocks.
//
// The bytes are built in a string. They move to an arena when they are parsed, because the values
// look into them there, and when they are shared. A later change brings them back: moved if nobody
// else needs the arena, and copied otherwise.
//
// Thread: any, one at a time. Two exceptions: `exchange` may replace the content of a refreshable
// block while a thread of the host reads it, and `bytes` and `share` may run on several threads:
// hosts send one block to many peers.
// Owner: the blocks and references that hold a count; the last one deletes the content.
// Failure: std::bad_alloc. A parse that it ends keeps the values that were made until then.
#pragma once

#include <tolk/TolkParams.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "params/arena.h"
#include "params/counted_ref.h"
#include "params/shared_bytes.h"

class TolkValue;

struct TolkParams::Content {
  // A keyed value. The key's text ends with a zero.
  struct Keyed {
    std::string_view key;
    TolkValue* value;
  };

  Content() = default;
  Content(const Content& other);  // copies the bytes, shares the values; its view is empty
  Content& operator=(const Content&) = delete;
  ~Content() { drop_values(); }

  // Replaces the bytes, and the values by those that `bytes` encodes.
  bool parse(std::string&& bytes);
  bool parse(const tolk::SharedBytes& bytes);
  bool parse_copy(std::string_view bytes);
  bool parse_own_bytes();
  void clear();
  // The value of a key, or null.
  TolkValue* find(std::string_view key) const;
  // Filled at the first use after a parse.
  std::map<const char*, TolkValue*>& keyed_view();

  // The encoded bytes, in `buffer`. No other holder of them sees a change of it.
  std::string& own_bytes() { return place ? bring_home() : buffer; }
  // The same for a host, which may then look at and change them at any time.
  std::string& given_bytes() {
    std::string& bytes = own_bytes();
    given = true;
    return bytes;
  }
  // The encoded bytes, wherever they lie, until the block is changed.
  std::string_view bytes() {
    const std::lock_guard<std::mutex> lock(senders);
    return place && !place->has_text_ends() ? place->bytes() : own_bytes();
  }
  std::size_t size() const { return place ? place->bytes().size() : buffer.size(); }
  tolk::SharedBytes share();
  // For a content that is about to end.
  std::string take();

  void retain() noexcept { owners.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    // Nobody else can count a content that one block has.
    const bool last = owners.load(std::memory_order_acquire) == 1 ||
                      owners.fetch_sub(1, std::memory_order_acq_rel) == 1;
    if (last) delete this;
  }

  std::atomic<std::uint32_t> owners = 1;
  std::mutex senders;  // held while the bytes move so that they can be sent
  // A host has a pointer to `buffer` or into it, so the bytes stay there for good.
  bool given = false;
  std::string buffer;    // the encoded bytes, unless they lie in `place`
  tolk::ArenaRef place;  // where others hold the bytes too, or values look into them
  tolk::ArenaRef home;   // of the values, and of the two sequences
  tolk::ArenaArray<TolkValue*> values;
  tolk::ArenaArray<Keyed> keyed;  // in the order of the keys, bytewise
  std::map<const char*, TolkValue*> view;

 private:
  std::string& bring_home();
  bool parse_in(tolk::ArenaRef arena, std::string encoded);
  void drop_values() noexcept;
};

struct TolkParamsAccess {
  using Content = TolkParams::Content;

  using ContentRef = tolk::CountedRef<Content>;

  // The block's content, borrowed. The content of a refreshable block is marked as touched.
  static Content& content(const TolkParams& block) noexcept {
    return block.refreshable_ ? refreshable_content(block) : *block.content_;
  }

  // Valid until the block is changed.
  static std::string_view bytes(const TolkParams& block) { return content(block).bytes(); }

  // A count of the block's content. The content stays for as long as the count, even if the block
  // is changed or destroyed.
  static ContentRef hold(const TolkParams& block) noexcept {
    Content& held = content(block);
    held.retain();
    return ContentRef(&held);
  }

  // The encoded bytes of a block that is about to be destroyed: moved where nobody else holds them,
  // and copied otherwise.
  static std::string take_bytes(TolkParams& block);

  // TolkParams::Parser without a copy of the bytes.
  static bool parse_owned(TolkParams& block, std::string bytes) {
    return content(block).parse(std::move(bytes));
  }

  // The encoded bytes of a block, for as long as they are held, even if the block is changed or
  // destroyed. There is no copy, unless the host may look at or change the bytes at any time
  // (GetParamas, GetParamasPtr), or they were parsed and have texts in them.
  static tolk::SharedBytes share_bytes(const TolkParams& block) { return content(block).share(); }

  // TolkParams::Parser of bytes that stay where they are for as long as the block or one of its
  // values needs them. Their memory must be writable: the parse puts a zero behind each text and
  // key, where the first byte of a check word was. Nobody else may read check words from then on.
  static bool parse_shared(TolkParams& block, const tolk::SharedBytes& bytes) {
    return content(block).parse(bytes);
  }

  // A new content with the values of `bytes`, up to the first malformed record.
  static ContentRef parsed(std::string_view bytes);
  // The same where the bytes are, as parse_shared.
  static ContentRef parsed_shared(const tolk::SharedBytes& bytes);

  // Call it before the host gets the block. From then on `exchange` may run while a thread reads.
  static void make_refreshable(TolkParams& block) noexcept { block.refreshable_ = true; }

  // Puts `fresh`, which must not be empty, into the block and returns the old content.
  // `touched`: the host may still hold pointers into the old content, so the caller keeps it.
  // Otherwise the caller can release it at once.
  static ContentRef exchange(TolkParams& block, ContentRef fresh, bool* touched) noexcept;

  // Takes over one count of `content` and releases the block's count of its own content.
  static void replace(TolkParams& block, Content* content) noexcept;

 private:
  static Content& refreshable_content(const TolkParams& block) noexcept;
};
