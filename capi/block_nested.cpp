// Lists and maps of a block that is built.

#include <algorithm>
#include <limits>

#include "capi/block.h"
#include "params/encoder.h"
#include "platform/text.h"

using tolk::BlockIndex;
using tolk::Item;
using tolk::RecordWalk;
using tolk::Tag;
using tolk::TypeNote;
using tolk::TypeNotes;

// A copy of what is added stays as it is while this block changes.
void tolk_block::add_list(const tolk_block& elements) {
  if (&elements == this) return add_list(tolk_block(elements));
  change([&] {
    if (elements.status_ != TOLK_OK) return lose_as(elements);
    has_key() ? put_list_block(elements) : put_plain_list(elements);
  });
}

void tolk_block::add_map(const tolk_block& entries) {
  if (&entries == this) return add_map(tolk_block(entries));
  change([&] {
    if (entries.status_ != TOLK_OK) return lose_as(entries);
    if (!entries.is_received_ && entries.keyed_ == entries.records_) {
      return put_nested(entries, TypeNote::map);
    }
    const BlockIndex& index = entries.index();
    tolk_block keyed;
    for (std::size_t i = index.count(); i < index.total(); ++i) {
      if (!tolk::is_reserved_key(index.at(i)->key_view())) {
        keyed.put_item(*index.at(i), index.notes());
      }
    }
    put_nested(keyed, TypeNote::map);
  });
}

void tolk_block::put_list_block(const tolk_block& elements) {
  if (!elements.is_received_ && elements.keyed_ == 0) return put_nested(elements, TypeNote::list);
  const BlockIndex& index = elements.index();
  tolk_block positional;
  for (std::size_t i = 0; i < index.count(); ++i) {
    positional.put_item(*index.at(i), index.notes());
  }
  put_nested(positional, TypeNote::list);
}

// A list that a plain peer has too: its elements are scalars, or blocks.
void tolk_block::put_plain_list(const tolk_block& elements) {
  const BlockIndex& index = elements.index();
  put_header(Tag::List, index.count());
  TypeNotes about;
  for (std::size_t i = 0; i < index.count(); ++i) {
    put_element(*index.at(i), index.notes(), static_cast<std::uint32_t>(i), about);
  }
  notes_.add_inner(records_, about);
  value_added();
}

// `about`: the notes of the list, which has the element as number `element`.
void tolk_block::put_element(const Item& item, const TypeNotes* notes, std::uint32_t element,
                             TypeNotes& about) {
  if (item.tag <= Tag::Stream) {
    put_scalar(item);
    if (notes != nullptr) about.copy(element, *notes, item.record);
    return;
  }
  const tolk_block inner = block_of(item, notes);
  put_block(inner);
  about.add(element, note_of(item));
  about.add_inner(element, inner.notes_);
}

void tolk_block::put_nested(const tolk_block& inner, TypeNote note) {
  put_block(inner);
  notes_.add(records_, note);
  notes_.add_inner(records_, inner.notes_);
  value_added();
}

TypeNote tolk_block::note_of(const Item& item) {
  return item.tag == Tag::List ? TypeNote::list : TypeNote::map;
}

// A plain list or map as a block of its own. Keys of plain maps end at a zero byte.
tolk_block tolk_block::block_of(const Item& item, const TypeNotes* notes) {
  tolk_block block;
  const TypeNotes* const inside = notes == nullptr ? nullptr : notes->inside(item.record);
  RecordWalk walk(item);
  Item element;
  while (walk.next(element)) {
    element.key_size = static_cast<std::uint32_t>(tolk::cut_at_zero(element.key_view()).size());
    block.put_item(element, inside);
  }
  return block;
}

void tolk_block::put_item(const Item& item, const TypeNotes* notes) {
  if (item.key != nullptr) put_key(item.key_view());
  if (item.tag <= Tag::Stream) {
    put_scalar(item);
  } else {
    put_elements(item);
  }
  if (notes != nullptr) notes_.copy(records_, *notes, item.record);
  value_added();
}

// A plain list or map again, at its new place.
void tolk_block::put_elements(const Item& list) {
  std::size_t count = 0;
  Item element;
  for (RecordWalk walk(list); walk.next(element);) ++count;
  put_header(list.tag, count);
  for (RecordWalk walk(list); walk.next(element);) {
    if (list.tag == Tag::Map) {
      put(tolk::keyed_bytes(element.key_size, 0),
          [&](auto& encoder) { encoder.add_key(element.key_view()); });
    }
    put_scalar(element);
  }
}

// A list of records of one size. Under a key it is a block in a stream.
template <class Put>
void tolk_block::put_numbers(std::size_t count, std::size_t record_bytes, Put&& put_number) {
  if (count > tolk_block::kMostBytes / record_bytes) throw std::length_error("list");
  const bool is_block = has_key();
  const std::size_t bytes = count * record_bytes;
  buffer_.make_room(bytes + tolk::stream_record_bytes(0));
  put_header(is_block ? Tag::Stream : Tag::List, is_block ? bytes : count);
  tolk::RecordBuffer::Writer writer(buffer_, end());
  tolk::Encoder encoder(writer, is_block ? end() : 0);
  for (std::size_t i = 0; i < count; ++i) put_number(encoder, i);
  writer.finish();
  if (!is_block) return;
  put_check_word();
  notes_.add(records_, TypeNote::list);
}

void tolk_block::add_ints(const std::int64_t* values, std::size_t count) {
  using Limits = std::numeric_limits<std::int32_t>;
  const bool are_plain = std::all_of(values, values + count, [](std::int64_t value) {
    return value >= Limits::min() && value <= Limits::max();
  });
  change([&] {
    if (are_plain) {
      put_numbers(count, tolk::int_record_bytes, [&](auto& encoder, std::size_t i) {
        encoder.add_int(static_cast<std::int32_t>(values[i]));
      });
    } else {
      put_numbers(count, tolk::stream_record_bytes(8), [&](auto& encoder, std::size_t i) {
        char bytes[8];
        tolk::store64(bytes, static_cast<std::uint64_t>(values[i]));
        encoder.add_stream({bytes, sizeof bytes});
      });
      notes_.add_elements(records_, TypeNote::int64);
    }
    value_added();
  });
}

void tolk_block::add_doubles(const double* values, std::size_t count) {
  change([&] {
    put_numbers(count, tolk::double_record_bytes,
                [&](auto& encoder, std::size_t i) { encoder.add_double(values[i]); });
    value_added();
  });
}
