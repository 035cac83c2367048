#include "params/arena.h"

#include <cstring>
#include <new>

#include "params/parser.h"
#include "platform/large_memory.h"

namespace tolk {

namespace {

// Writes each check word of a well-formed block as it was.
struct RestoreCheckWord {
  char* bytes;
  std::uint64_t until;

  bool operator()(const char*, std::uint64_t at) const {
    if (at + 4 > until) return false;
    store32(bytes + at, static_cast<std::uint32_t>(at));
    return true;
  }
};

}  // namespace

Arena* Arena::make(std::size_t inside_bytes, std::size_t room) {
  const std::size_t inside = sizeof(Arena) + (inside_bytes + alignment - 1) / alignment * alignment;
  // A little less room is worth it.
  const bool nearly_quick = inside + room / 2 <= quick_bytes && inside + room > quick_bytes;
  const std::size_t size = nearly_quick ? quick_bytes : inside + room;
  platform::expect_large_piece(size);
  char* const memory = static_cast<char*>(::operator new(size));
  platform::prefer_large_pages(memory, size);
  return new (memory) Arena(memory + inside, memory + size);
}

Arena* Arena::with_copy(std::string_view bytes, std::size_t room) {
  Arena* const arena = make(bytes.size() + 1, room);
  char* const copy = reinterpret_cast<char*>(arena + 1);
  if (!bytes.empty()) std::memcpy(copy, bytes.data(), bytes.size());
  copy[bytes.size()] = '\0';
  arena->bytes_ = {copy, bytes.size()};
  return arena;
}

Arena* Arena::with_string(std::string&& bytes, std::size_t room) {
  Arena* const arena = make(0, room);
  arena->string_ = std::move(bytes);
  arena->bytes_ = arena->string_;
  return arena;
}

Arena* Arena::with_shared(const SharedBytes& bytes, std::size_t room) {
  Arena* const arena = make(0, room);
  arena->owner_ = bytes.owner;
  arena->bytes_ = bytes.view;
  return arena;
}

Arena::~Arena() {
  while (chunks_ != nullptr) ::operator delete(std::exchange(chunks_, chunks_->before));
}

void Arena::destroy() noexcept {
  this->~Arena();
  ::operator delete(this);
}

std::string Arena::encoded() const {
  std::string copy(bytes_);
  if (has_text_ends()) restore(copy.data());
  return copy;
}

std::string Arena::take_encoded() {
  if (bytes_.data() != string_.data()) return encoded();
  if (has_text_ends()) restore(string_.data());
  encoded_until_ = 0;
  bytes_ = {};
  return std::move(string_);
}

// Chunks grow, so that there are few of them for any number of values.
void Arena::add_chunk(std::size_t least) {
  const std::size_t usual =
      chunks_ == nullptr ? least_chunk_bytes : std::min(2 * chunks_->usual, most_chunk_bytes);
  const std::size_t size = sizeof(Chunk) + std::max(least, usual);
  char* const memory = static_cast<char*>(::operator new(size));
  chunks_ = new (memory) Chunk{chunks_, usual};
  next_ = memory + sizeof(Chunk);
  end_ = memory + size;
}

void Arena::restore(char* bytes) const {
  IgnoringSink nothing;
  RecordParser<IgnoringSink, RestoreCheckWord>({bytes, bytes_.size()}, nothing,
                                               {bytes, encoded_until_})
      .run();
}

}  // namespace tolk
