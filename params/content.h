// What a block holds: its encoded bytes and the values that were parsed from them.
//
// Content is counted, because blocks that were assigned to one another refer to the same one.
// TolkParamsAccess is the library's own access to blocks.
//
// Thread: any, one at a time, but for `exchange`, which may replace the content of a refreshable
// block while a host's thread is reading it.
// Failure: std::bad_alloc; a parse that it interrupts keeps the values it had made so far.
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

class TolkValue;

struct TolkParams::Content {
  Content() = default;
  Content(const Content& other);  // copies the bytes, shares the values; its view is empty
  Content& operator=(const Content&) = delete;
  ~Content() { drop_values(); }

  // Replaces everything by what `bytes` encodes.
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

  // The block's content, borrowed. Of a refreshable block it is marked as touched.
  static Content& content(const TolkParams& block) noexcept;

  static std::string_view bytes(const TolkParams& block) noexcept { return content(block).buffer; }

  // A count of the block's content: what is read through it stays, whatever becomes of the block.
  static ContentRef hold(const TolkParams& block) noexcept {
    Content& held = content(block);
    held.retain();
    return ContentRef(&held);
  }

  // The encoded bytes, out of a block that is about to go; a copy if other blocks refer to them.
  static std::string take_bytes(TolkParams& block);

  // As TolkParams::Parser, without its copy.
  static bool parse_owned(TolkParams& block, std::string bytes) {
    return content(block).parse(std::move(bytes));
  }

  // A new content that holds what `bytes` encodes, as far as it is well formed.
  static ContentRef parsed(std::string_view bytes);

  // Before the block is handed out: from then on `exchange` may run beside its reader.
  static void make_refreshable(TolkParams& block) noexcept { block.refreshable_ = true; }

  // Puts `fresh`, which must not be empty, into the block and gives the old content back.
  // `touched`: the host may still hold pointers into the old one, so keep it. Else it can go at
  // once.
  static ContentRef exchange(TolkParams& block, ContentRef fresh, bool* touched) noexcept;

  // Takes over one count of `content` and drops the block's own.
  static void replace(TolkParams& block, Content* content) noexcept;
};
