// The content of a block: its encoded bytes and the values that were parsed from them.
//
// A content is counted, because a block that was assigned from another shares its content.
// TolkParamsAccess is the library's own access to blocks.
//
// Thread: any, one at a time. One exception: `exchange` may replace the content of a refreshable
// block while a thread of the host reads it.
// Owner: the blocks and references that hold a count; the last one deletes the content.
// Failure: std::bad_alloc. A parse that it ends keeps the values that were made until then.
#pragma once

#include <tolk/TolkParams.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "params/shared_bytes.h"

class TolkValue;

struct TolkParams::Content {
  Content() = default;
  Content(const Content& other);  // copies the bytes, shares the values; its view is empty
  Content& operator=(const Content&) = delete;
  ~Content() { drop_values(); }

  // Replaces the bytes, and the values by those that `bytes` encodes.
  bool parse(std::string&& bytes);
  bool parse_own_bytes();
  void clear();
  // Filled at the first use after a parse.
  std::map<const char*, TolkValue*>& keyed_view();

  void retain() noexcept { owners.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  std::atomic<std::uint32_t> owners = 1;
  std::string buffer;
  std::vector<TolkValue*> values;
  std::map<std::string, TolkValue*, std::less<>> keyed;
  std::map<const char*, TolkValue*> view;  // keys point into `keyed`

 private:
  void drop_values() noexcept;
};

struct TolkParamsAccess {
  using Content = TolkParams::Content;

  // One count of a content, or none.
  class ContentRef {
   public:
    ContentRef() = default;
    explicit ContentRef(Content* adopted) noexcept : content_(adopted) {}
    ContentRef(const ContentRef& other) noexcept : content_(other.content_) {
      if (content_ != nullptr) content_->retain();
    }
    ContentRef(ContentRef&& other) noexcept : content_(other.take()) {}
    ContentRef& operator=(ContentRef other) noexcept {
      std::swap(content_, other.content_);
      return *this;
    }
    ~ContentRef() {
      if (content_ != nullptr) content_->release();
    }

    explicit operator bool() const noexcept { return content_ != nullptr; }
    Content* get() const noexcept { return content_; }
    Content* take() noexcept { return std::exchange(content_, nullptr); }

   private:
    Content* content_ = nullptr;
  };

  // The block's content, borrowed. The content of a refreshable block is marked as touched.
  static Content& content(const TolkParams& block) noexcept;

  static std::string_view bytes(const TolkParams& block) noexcept { return content(block).buffer; }

  // A count of the block's content. The content stays for as long as the count, even if the block
  // is changed or destroyed.
  static ContentRef hold(const TolkParams& block) noexcept {
    Content& held = content(block);
    held.retain();
    return ContentRef(&held);
  }

  // The encoded bytes of a block that is about to be destroyed: moved, or copied if other blocks
  // share them.
  static std::string take_bytes(TolkParams& block);

  // TolkParams::Parser without a copy of the bytes.
  static bool parse_owned(TolkParams& block, std::string bytes) {
    return content(block).parse(std::move(bytes));
  }

  // The encoded bytes of a block, for as long as they are held, even if the block is changed or
  // destroyed.
  static tolk::SharedBytes share_bytes(const TolkParams& block);

  // TolkParams::Parser of bytes that stay where they are for as long as the block needs them.
  static bool parse_shared(TolkParams& block, const tolk::SharedBytes& bytes);

  // A new content with the values of `bytes`, up to the first malformed record.
  static ContentRef parsed(std::string_view bytes);

  // Call it before the host gets the block. From then on `exchange` may run while a thread reads.
  static void make_refreshable(TolkParams& block) noexcept { block.refreshable_ = true; }

  // Puts `fresh`, which must not be empty, into the block and returns the old content.
  // `touched`: the host may still hold pointers into the old content, so the caller keeps it.
  // Otherwise the caller can release it at once.
  static ContentRef exchange(TolkParams& block, ContentRef fresh, bool* touched) noexcept;

  // Takes over one count of `content` and releases the block's count of its own content.
  static void replace(TolkParams& block, Content* content) noexcept;
};
