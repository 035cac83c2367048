#include "capi/block.h"

#include "params/encoder.h"
#include "params/parser.h"

namespace tolk {
namespace {

struct ItemSink {
  void positional(const Scalar& value) {
    tolk_block::Item item;
    if (value.type == TolkValue::Int) item = {TOLK_INT, value.integer, {}};
    if (value.type == TolkValue::Bool) item = {TOLK_BOOL, value.boolean ? 1 : 0, {}};
    if (value.has_bytes()) item = {TOLK_TEXT, 0, std::string(value.bytes)};
    items.push_back(item);
  }
  void erase_key(std::string_view) {}
  void keyed(std::string_view, const Scalar&) {}
  void begin_list() {}
  void list_element(const Scalar&) {}
  void end_list() {}
  void begin_map() {}
  void map_entry(std::string_view, const Scalar&) {}
  void end_map() {}

  std::vector<tolk_block::Item>& items;
};

template <class Add>
void add(tolk_block* block, Add&& add_to) {
  if (block == nullptr) return;
  Encoder<std::string> encoder(block->encoded, 0);
  add_to(encoder);
  block->items.clear();
  ItemSink sink{block->items};
  parse_records(block->encoded, sink);
}

}  // namespace
}  // namespace tolk

tolk::SharedBytes tolk_block::share() const { return tolk::copy_of(encoded); }

tolk_block::Received tolk_block::of_message(tolk::SharedBytes payload, std::string_view types,
                                            Reserved) {
  auto block = std::make_unique<tolk_block>();
  block->encoded = payload.view;
  block->type_notes = tolk::TypeNotes::parse(types);
  tolk::ItemSink sink{block->items};
  const bool well_formed = tolk::parse_records(block->encoded, sink);
  return {std::move(block), well_formed ? TOLK_NOWHERE : 0};
}

tolk_block* tolk_block_new() { return new tolk_block; }
void tolk_block_free(tolk_block* block) { delete block; }
void tolk_block_add_int(tolk_block* block, int64_t value) {
  tolk::add(block, [&](auto& to) { to.add_int(static_cast<std::int32_t>(value)); });
}
void tolk_block_add_text(tolk_block* block, const char* text, size_t size) {
  const std::string_view all = size == TOLK_TO_ZERO ? text : std::string_view(text, size);
  tolk::add(block, [&](auto& to) { to.add_string(all); });
}
size_t tolk_block_count(const tolk_block* block) {
  return block == nullptr ? 0 : block->items.size();
}
tolk_kind tolk_block_kind(const tolk_block* block, size_t index) {
  return index < tolk_block_count(block) ? block->items[index].kind : TOLK_MISSING;
}
int64_t tolk_block_int(const tolk_block* block, size_t index) {
  return index < tolk_block_count(block) ? block->items[index].number : 0;
}
const char* tolk_block_text(const tolk_block* block, size_t index, size_t* size) {
  const bool there = tolk_block_kind(block, index) == TOLK_TEXT;
  if (size != nullptr) *size = there ? block->items[index].text.size() : 0;
  return there ? block->items[index].text.c_str() : nullptr;
}
