#include "capi/block.h"

#include <array>
#include <limits>
#include <new>
#include <stdexcept>

#include "params/encoder.h"
#include "platform/never_destroyed.h"
#include "transport/frame_format.h"

using tolk::BlockIndex;
using tolk::IndexRef;
using tolk::Item;
using tolk::SharedBytes;

namespace {

class BlockWithoutMemory final : public tolk_block {
 public:
  BlockWithoutMemory() noexcept : tolk_block(TOLK_NO_MEMORY) {}
};
tolk::NeverDestroyed<BlockWithoutMemory> block_without_memory;

}  // namespace

tolk_block::tolk_block(const tolk_block& other) : tolk_block(other, nullptr) {}

tolk_block::tolk_block(const tolk_block& other, char* room) : tolk_block(room) {
  if (other.status_ != TOLK_OK) {
    lose_as(other);
    return;
  }
  if (!other.is_received_) {
    buffer_.copy(other.buffer_);
    held_ = other.held_;
    held_bytes_ = other.held_bytes_;
    records_ = other.records_;
    keyed_ = other.keyed_;
    key_at_ = other.key_at_;
    notes_ = other.notes_;
    return;
  }
  const BlockIndex& index = other.index();
  if (!index.is_outermost() && !index.has_bytes()) {
    other.rebuild_into(*this);
    return;
  }
  IndexRef shared;
  if (index.is_outermost()) {
    other.index_.load(std::memory_order_acquire)->retain();
    shared = IndexRef(other.index_.load(std::memory_order_acquire));
  } else {
    shared = BlockIndex::of_shared(other.share());
    shared->copy_notes(index.notes());
  }
  index_ = shared.take();
  is_received_ = true;
}

tolk_block::~tolk_block() { drop_index(); }

tolk_block* tolk_block::copy() const {
  return is_received_ ? new tolk_block(*this) : new tolk::BlockWithRoom(*this);
}

tolk_block* tolk_block::without_memory() noexcept { return &*block_without_memory; }

tolk_block::Received tolk_block::of_message(const SharedBytes& payload, std::string_view types,
                                            Reserved reserved) {
  return received(
      payload.owner ? BlockIndex::of_shared(payload) : BlockIndex::of_copy(payload.view), types,
      reserved);
}

tolk_block::Received tolk_block::of_copy(std::string_view encoded) {
  IndexRef index = BlockIndex::of_copy(encoded);
  const std::string_view types =
      index->has_reserved() ? index->take(kTypesKey) : std::string_view();
  return received(std::move(index), types, Reserved::kept);
}

tolk_block::Received tolk_block::received(IndexRef index, std::string_view types,
                                          Reserved reserved) {
  Received result;
  result.wrong_at = index->wrong_at();
  if (!index->set_notes(types) && result.is_well_formed()) {
    const std::string_view bytes = index->bytes();
    const bool is_inside =
        types.data() >= bytes.data() && types.data() < bytes.data() + bytes.size();
    result.wrong_at = is_inside ? static_cast<std::size_t>(types.data() - bytes.data()) : 0;
  }
  if (reserved == Reserved::dropped && index->has_reserved()) index->drop_reserved();
  result.block.reset(new tolk_block(index.get()));
  static_cast<void>(index.take());
  return result;
}

// ---- The records ----

bool tolk_block::is_in_one_piece() const {
  if (!is_received_) return held_.empty();
  const BlockIndex& index = this->index();
  return index.has_bytes() && !index.has_reserved() && index.wrong_at() == TOLK_NOWHERE;
}

std::optional<std::string_view> tolk_block::view() const {
  if (!is_in_one_piece()) return std::nullopt;
  return is_received_ ? index().bytes() : buffer_.view().substr(0, buffer_end());
}

SharedBytes tolk_block::share() const {
  if (const auto bytes = view()) {
    if (!is_received_) {
      SharedBytes shared = buffer_.share();
      shared.view = shared.view.substr(0, bytes->size());
      return shared;
    }
    BlockIndex* const index = index_.load(std::memory_order_acquire);
    index->retain();
    IndexRef held(index);
    return {std::make_shared<const IndexRef>(std::move(held)), *bytes};
  }
  if (is_received_) {
    tolk_block built;
    rebuild_into(built);
    return built.share();
  }
  const std::size_t whole = size();
  const std::shared_ptr<char[]> memory = std::make_shared_for_overwrite<char[]>(whole);
  char* to = memory.get();
  for (const SharedBytes& piece : pieces()) {
    to = std::copy(piece.view.begin(), piece.view.end(), to);
  }
  return {memory, {memory.get(), whole}};
}

std::vector<SharedBytes> tolk_block::pieces() const {
  if (is_received_ || held_.empty()) return {share()};
  std::vector<SharedBytes> pieces;
  pieces.reserve(2 * held_.size() + 1);
  const SharedBytes own = buffer_.share();
  std::size_t from = 0;
  for (const Held& held : held_) {
    if (held.at >= buffer_end()) break;
    pieces.push_back({own.owner, own.view.substr(from, held.at - from)});
    pieces.push_back(held.bytes);
    from = held.at;
  }
  pieces.push_back({own.owner, own.view.substr(from, buffer_end() - from)});
  return pieces;
}

std::size_t tolk_block::size() const {
  if (!is_received_) return buffer_end() + held_bytes_;
  const auto bytes = view();
  return bytes ? bytes->size() : share().view.size();
}

std::string tolk_block::types() const {
  if (!is_received_) return notes_.text();
  if (is_in_one_piece()) return index().notes() == nullptr ? "" : index().notes()->text();
  tolk_block built;
  rebuild_into(built);
  return built.notes_.text();
}

std::string_view tolk_block::encode() {
  if (encoded_) return *encoded_;  // the host may still have it
  const std::string types = this->types();
  const auto bytes = view();
  if (bytes && types.empty()) return *bytes;
  auto encoded = std::make_unique<std::string>(share().view);
  tolk::Encoder encoder(*encoded, 0);
  if (!types.empty()) {
    encoder.add_key(kTypesKey);
    encoder.add_string(types);
  }
  encoded_ = std::move(encoded);
  return *encoded_;
}

void tolk_block::rebuild_into(tolk_block& built) const {
  const BlockIndex& index = this->index();
  for (std::size_t i = 0; i < index.total(); ++i) {
    const Item& item = *index.at(i);
    const bool is_value = item.key == nullptr || !tolk::is_reserved_key(item.key_view());
    if (is_value) built.put_item(item, index.notes());
  }
}

// ---- The index ----

const BlockIndex& tolk_block::index() const {
  if (const BlockIndex* const made = index_.load(std::memory_order_acquire)) return *made;
  IndexRef index = held_.empty() && buffer_.is_in_room() ? BlockIndex::of_copy(*view())
                                                         : BlockIndex::of_shared(share());
  index->borrow_notes(notes_);
  BlockIndex* first = nullptr;
  if (!index_.compare_exchange_strong(first, index.get(), std::memory_order_acq_rel)) return *first;
  return *index.take();
}

void tolk_block::drop_index() noexcept {
  BlockIndex* const index = index_.load(std::memory_order_relaxed);
  if (index == nullptr) return;
  index_.store(nullptr, std::memory_order_relaxed);
  index->release();
}

// ---- Changes ----

void tolk_block::prepare_change() {
  encoded_.reset();
  become_built();
}

void tolk_block::become_built() {
  if (!is_received_) {
    drop_index();
    return;
  }
  tolk_block built;
  rebuild_into(built);
  drop_index();
  is_received_ = false;
  buffer_.copy(built.buffer_);
  held_ = std::move(built.held_);
  held_bytes_ = built.held_bytes_;
  records_ = built.records_;
  keyed_ = built.keyed_;
  notes_ = std::move(built.notes_);
}

void tolk_block::lose(tolk_status status) noexcept {
  clear();
  status_ = status;
}

void tolk_block::refuse(std::string reason) {
  auto kept = std::make_unique<const std::string>(std::move(reason));
  lose(TOLK_MISUSE);
  reason_ = std::move(kept);
}

void tolk_block::lose_as(const tolk_block& other) {
  auto reason = other.reason_ ? std::make_unique<const std::string>(*other.reason_) : nullptr;
  lose(other.status_);
  reason_ = std::move(reason);
}

void tolk_block::clear() noexcept {
  if (this == without_memory()) return;
  drop_index();
  encoded_.reset();
  reason_.reset();
  buffer_.clear();
  held_.clear();
  held_bytes_ = 0;
  records_ = 0;
  keyed_ = 0;
  key_at_ = kNoKey;
  is_received_ = false;
  status_ = TOLK_OK;
  notes_ = {};
}
